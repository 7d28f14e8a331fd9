// A platform that the test scripts: it records what the daemon asks of it, hands over messages on demand,
// keeps the log as lines, and fails any call that it is told to fail. Of arguments that are always the same
// (names and numbers of the log, an event's flags, what stands in front of a message's body) it takes no
// others. It starts no thread and waits for nothing.
#ifndef QEL_TESTS_FAKE_PLATFORM_H
#define QEL_TESTS_FAKE_PLATFORM_H

#include "platform/diag.h"
#include "platform/diag_fields.h"
#include "platform/mfw.h"
#include "platform/os.h"
#include "platform/service.h"

#include <cstdint>
#include <functional>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

struct SSent {
    uint32_t m_nHandle;
    uint16_t m_nType;
    std::string m_sBody; // raw bytes
};

struct SLogged {
    uint16_t m_nSeverity;
    uint32_t m_nEvent;
    std::string m_sText;

    bool operator==(const SLogged&) const = default;
};

class CFakePlatform {
public:
    static CFakePlatform& get();
    // Back to a platform that has seen nothing and fails nothing; the clock stands at 1,000,000 seconds.
    void reset();

    // From the n-th call of `function` on (counted from 1, from now), `times` calls do nothing but fail.
    void fail(const std::string& function, int error, int nth = 1, int times = 1);
    int callsOf(const std::string& function) { return m_oCalls[function]; }

    // Hands a message straight to a callback, as the framework would.
    static void handOver(OvuMfwCallback, uint16_t type, std::string_view body, uint32_t from = 0x1234);

    // Texts of the log lines with this event number, oldest first.
    std::vector<std::string> logged(uint32_t event) const;
    std::vector<SSent> takeSent() { return std::exchange(m_vSent, {}); }
    std::vector<SLogged> takeLog() { return std::exchange(m_vLog, {}); }

    void advance(uint32_t seconds) { m_nMicroseconds += uint64_t{seconds} * 1000000; }

    // What every call does first: 0 to go on, else the error to return.
    int enter(const std::string& function);
    // Likewise, and keeps the call in m_vCalls.
    int enter(const std::string& function, const std::string& argument);

    uint64_t m_nMicroseconds = 0; // since the epoch; the test owns the clock
    bool m_bKeepLog = true;       // false: lines are dropped, for long runs
    bool m_bKeepSent = true;
    std::vector<SSent> m_vSent;
    std::vector<SLogged> m_vLog;
    std::string m_sFields;             // of the last line, each as "NAME=value "
    std::vector<std::string> m_vCalls; // "function argument", in order; not of each function
    std::map<uint16_t, OvuMfwCallback> m_oCallbacks;
    std::map<std::string, uint32_t> m_oProcesses; // name to handle, for look-ups
    uint32_t m_nOwnHandle = 1;                    // of the process that asks
    std::set<uint32_t> m_oDead;                   // sends to these handles fail with 111
    std::map<std::string, uint32_t> m_oEvents;    // that exist, by name
    std::vector<uint32_t> m_vWaits;               // milliseconds that osReceiveEvent was given
    std::set<uint32_t> m_oReceiveWaits;           // milliseconds that OvuMfwProcessNextMessage was given
    int m_nAlive = 0;                             // how often the loop said that it turns
    int m_nProcessState = OS_PROCESS_NOT_RUNNING;
    OvuServiceCallback m_fnNotice = nullptr;
    std::function<bool()> m_fnReceiveEvent = [] { return false; }; // true: the event has come
    std::function<void()> m_fnOnReceive = [] {};                   // runs at each OvuMfwProcessNextMessage
    std::function<void()> m_fnOnProcessState = [] {};              // runs at each osGetProcessState
    std::function<void()> m_fnOnMutexCleanup = [] {};              // runs at each osCleanupLwtMutex
    std::function<void()> m_fnOnLookup = [] {};                    // runs at each look-up by name

private:
    struct SFailure {
        int m_nFrom;
        int m_nTimes;
        int m_nError;
    };
    std::map<std::string, int> m_oCalls;
    std::map<std::string, SFailure> m_oFailures;
};

// "00 24 ff" to bytes; blanks are free.
std::string fromHex(std::string_view hex);
std::string toHex(std::string_view bytes);

#endif
