// A component's side of the conversation with the daemon.
#ifndef QEL_CLIENT_CQELCLIENT_H
#define QEL_CLIENT_CQELCLIENT_H

#include "client/CDaemonLink.h"
#include "client/CFeatureTable.h"
#include "client/qelclient.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <string>

// The conversation goes through four goals, in this order: announced, listed (if wanted), monitored (if
// wanted), and then answers what comes. What is not reached yet is what is asked for next, so losing ground
// (the daemon was restarted, an answer never came) is nothing but clearing flags.
//
// Rules, and why:
// - One request at a time. Answers echo its tag; an answer with another tag is a late one and is dropped. A
// request
//   without answer starts the conversation over, since asking for a page again would skip a feature.
// - Notifications that arrive while an answer is awaited are queued and handled in order of arrival before
// the next
//   request goes out. A page about the same code, arriving later, overtakes them: the daemon awaits nothing
//   any more.
// - A daemon's notifications count only after its first answer. What came before is from before the
// announcement,
//   which set the features anew.
// - Only the first announcement to a daemon tells what is held. A later one could tell of a feature that the
// daemon is
//   just withdrawing; it would then hold back that feature when it comes into force again.
// - What a list does not hold is withdrawn only after a second list, announced without it, does not hold it
// either:
//   when a withdrawn feature leaves the daemon's table during the paging, the page after it is skipped.
// - No answer to a notification is sent after the note that it is overdue: the daemon would credit it to
// another.
class CQelClient {
public:
    CQelClient(const char* name, const qel_options& options);

    [[nodiscard]] bool open() { return m_oLink.open(); }

    // These return as the functions of the C interface do.
    int hold(const SFeature& feature);
    int announce(int timeoutMs);
    int fetch(int timeoutMs);
    int monitor(int timeoutMs);
    int wait(int timeoutMs);
    int run(int timeoutMs);
    int shutdown(const char* text);

    void stop() { m_bStop = true; } // any thread, signal handlers
    int state() const;
    const CFeatureTable& table() const { return m_oTable; }

    // Taken by whoever is inside the client, so that callbacks and other threads stay out.
    std::atomic<bool> m_bBusy{false};

private:
    enum class ERequest { none, announce, initList, getFeature, startMonitor, writeReply };

    struct SNotification {
        uint32_t m_nType = 0; // server message type 1 to 4
        SFeature m_oFeature;
        uint32_t m_nNewData = 0;
        bool m_bOverdue = false; // the daemon awaits no answer any more
    };

    // A difference between what is held and what the daemon says.
    struct SDifference {
        std::optional<SFeature> m_oOld; // held; goes
        std::optional<SFeature> m_oNew; // not held; comes
    };

    struct SReply {
        uint32_t m_nCode = 0;
        uint32_t m_nStatus = 0;
        std::string m_sText;
    };

    // Goes on until `reached` or the time is up.
    int pump(const std::function<bool()>& reached, int timeoutMs);
    std::chrono::milliseconds waitTime(CClientClock::time_point deadline) const;
    void followDaemon();
    void startOver();

    // What goes out.
    void act();
    bool sendNext();
    bool expect(ERequest request, uint32_t tag);
    uint32_t sendAnnouncement();
    bool isKnown() const;

    // What comes in.
    void takeMessages();
    void take(const CQelServerMessage& message);
    void takeNotification(const SNotification& notification);
    void takeAnswer(const SFeature& feature);
    void takePage(const SFeature& feature);
    void endOfList();
    void reportFetched();

    // What the component is told.
    void deliver(SNotification notification);
    SDifference compare(const SNotification& notification) const;
    int offer(const SDifference& difference, bool fetched, std::string* text = nullptr);
    int repeat(const SNotification& notification, std::string& text);
    int call(const qel_notification& notification, std::string* text);

    qel_options m_oOptions;
    CDaemonLink m_oLink;
    CFeatureTable m_oTable;
    std::atomic<bool> m_bStop{false};

    bool m_bWanted = false; // the component is to be announced
    bool m_bListWanted = false;
    bool m_bMonitorWanted = false;

    bool m_bAnnounced = false;
    bool m_bRewound = false; // the daemon pages from the start
    bool m_bListed = false;
    bool m_bMonitored = false;
    bool m_bConfirming = false;      // fetching the list a second time
    uint32_t m_nKnownTo = nNoHandle; // daemon that has answered this component

    ERequest m_eAwaited = ERequest::none;
    uint32_t m_nAwaitedTag = 0;
    CClientClock::time_point m_tAnswerDue{};
    CClientClock::time_point m_tRetry{}; // nothing is sent before

    std::deque<SNotification> m_oNotifications; // not told to the component yet
    SNotification* m_pDelivering = nullptr;     // is being told
    std::optional<SReply> m_oReply;             // not sent yet
    int m_nHandled = 0;                         // callbacks' worth of notifications, since the call began
};

#endif
