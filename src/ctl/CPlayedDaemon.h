// The conversation as the daemon leads it, for qelctl daemon: answers requests, keeps what awaits a reply,
// and tells what the component does in the words of a script.
#ifndef QEL_CTL_CPLAYEDDAEMON_H
#define QEL_CTL_CPLAYEDDAEMON_H

#include "base/SFeature.h"
#include "messaging/wire/wire.h"

#include <chrono>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

// What a component does, or its process. A page is a request that was answered with a feature, `fetch` the
// one that was answered with the end of the list; `stray` is a reply that nothing awaited.
enum class EDeed { announce, rewind, page, fetch, monitor, accept, refuse, stray, shutdown, end, nothing };

std::string_view word(EDeed deed);

struct SDeed {
    EDeed m_eDeed = EDeed::nothing;
    std::string m_sName = {};                // of an announcement, as it came
    std::vector<SFeature> m_vHeld = {};      // of an announcement, in order
    std::optional<SFeature> m_oFeature = {}; // of accept and refuse: what the reply is credited to
    std::string m_sText = {};                // of a reply and of shutdown
    int m_nStatus = 0;                       // of end: the exit status, or 128 and the signal's number

    // Whether a script need not expect it: how a component comes up is its own affair.
    bool isRequest() const { return m_eDeed <= EDeed::monitor; }
};

// What a script expects. What is not set may be anything.
struct SExpectation {
    EDeed m_eDeed = EDeed::nothing;
    std::optional<std::string> m_oName;
    std::optional<std::vector<SFeature>> m_oHeld; // in order
    std::optional<uint32_t> m_oCode;
    std::optional<uint32_t> m_oData;
    std::optional<std::string> m_oText;
    std::optional<int> m_oStatus;
    std::optional<std::chrono::milliseconds> m_oTime; // within which; of nothing: for how long

    bool fits(const SDeed& deed) const;
};

// In the words of a script, without control characters.
std::string describe(const SDeed& deed);

// One component at a time converses: the one that announced itself last. Messages from other handles are not
// answered, as the daemon does not answer who is unknown to it. Replies are credited in the order in which
// the notifications were sent. What an announcement says is held keeps nothing back: a
// script sends what it says.
class CPlayedDaemon {
public:
    // Puts another list in force. Tells nobody, and leaves the component's page where it was.
    void setList(std::vector<SFeature> list) { m_vList = std::move(list); }

    struct SHeard {
        std::optional<SDeed> m_oDeed;               // none: the message is none, or from a stranger
        std::optional<CQelServerMessage> m_oAnswer; // for component()
    };
    SHeard hear(const uint8_t* body, size_t length);

    // The component's address; nNoHandle: none has announced itself.
    uint32_t component() const { return m_nComponent; }

    // What a notification says. The reply is awaited from here on, and the list follows: an enable takes the
    // place of what its code had so far. `type` is that of the message, 1 to 3.
    CQelServerMessage notify(uint32_t type, const SFeature& feature, uint32_t newData);
    // That the reply about a code is overdue; none is awaited any more. Nothing, if none was.
    std::optional<CQelServerMessage> giveUp(uint32_t code);

    // A new process, that knows nobody. The list stays.
    void forget();

private:
    struct SAwaited {
        SFeature m_oFeature;
        uint32_t m_nNewData; // of a modification
        uint32_t m_nType;
    };

    SHeard takeAnnouncement(const uint8_t* body, size_t length);
    SHeard takeRequest(uint32_t subType);
    SHeard takePage();
    SHeard takeReply(const CQelReplyMessage& message);
    CQelServerMessage message(uint32_t type, const SFeature& feature, uint32_t extra = 0) const;
    void follow(uint32_t type, const SFeature& feature, uint32_t newData);

    std::vector<SFeature> m_vList;
    size_t m_nPage = 0; // the next; only `rewind` sets it back, also over announcements
    std::vector<SAwaited> m_vAwaited;
    uint32_t m_nComponent = nNoHandle;
    uint32_t m_nProcess = 0; // its id, as announced
    uint32_t m_nTag = 0;     // of its latest message
};

#endif
