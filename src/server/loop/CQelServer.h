// The server object: the control, the message-framework endpoint and the stop event bound together by the
// main loop.
#ifndef QEL_SERVER_LOOP_CQELSERVER_H
#define QEL_SERVER_LOOP_CQELSERVER_H

#include "platform/mfw.h"
#include "platform/os.h"

#include <atomic>
#include <cstdint>

class CFeatureSupply;
class CQelControl;

// One for each process. init() and run() belong to the main loop's thread. clear() may come from the service
// manager's thread at any moment, while the main loop runs; it takes no lock.
class CQelServer {
public:
    // Created on first use, lives until the process ends. Null only where memory is exhausted.
    static CQelServer* instance();

    CQelServer() = default;
    ~CQelServer();
    CQelServer(const CQelServer&) = delete;
    CQelServer& operator=(const CQelServer&) = delete;

    // Who supplies the feature list; to be named before init(), and to live as long as the process.
    static void setSupply(CFeatureSupply& supply);

    // Opens everything that the loop needs. 1, or 0 with the reason in the log.
    int init();
    // Releases the stop event and the endpoint; callable any number of times.
    void clear();
    // The main loop; returns when the stop event has come.
    int run();

    // One step each of the loop: 1 for success, 0 for failure.
    int processMessages();
    int checkSignal();

    // Sends the stop event to this daemon itself. All ones where it holds no event, else the platform's
    // result.
    uint32_t stop();

    // How long the loop waits for the stop event after a turn that took `elapsed` milliseconds.
    static uint32_t waitAfter(uint32_t elapsed);

    // The log; see server/log/log.h. Severity: 1 error, 2 warning, 4 information.
    static int LogFile(uint16_t severity, uint32_t event, const char* text);
    static int LogFile(const char* text);

    // The callback of the client protocol: hands one message to the request dispatcher.
    static void cbQelServer(uint16_t type, uint32_t id, const sOvuMfwMessage* message, uint32_t length);

private:
    bool initEndpoint();
    bool initEvent();

    static std::atomic<CQelServer*> m_pInstance;
    static CFeatureSupply* m_pSupply; // null: nobody

    std::atomic<uint32_t> m_nEvent = OS_EVENT_NONE;
    std::atomic<CQelControl*> m_pControl = nullptr; // not owned
};

#endif
