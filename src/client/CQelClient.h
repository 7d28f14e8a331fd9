// A component's side of the conversation with the daemon.
#ifndef QEL_CLIENT_CQELCLIENT_H
#define QEL_CLIENT_CQELCLIENT_H

#include "client/CAsking.h"
#include "client/CCallback.h"
#include "client/CDaemonLink.h"
#include "client/CFeatureTable.h"
#include "client/CPatience.h"
#include "client/qelclient.h"

#include <atomic>
#include <cstdint>
#include <deque>
#include <functional>
#include <optional>
#include <random>
#include <set>
#include <string>
#include <utility>

// The conversation has three goals, in this order: announced, listed (if wanted), monitored (if wanted).
// After that the client answers what comes. It always asks next for the first goal not reached. So when
// ground is lost (the daemon was restarted, an answer never came), it is enough to clear flags.
//
// Rules, and why:
// - One request at a time. An answer echoes the tag of its request; one with another tag is late and is
//   dropped. If a request stays without an answer for long (CPatience), the conversation starts over: to ask
//   for the page once more would skip a feature.
// - Notifications that arrive while an answer is awaited are queued, and handled in order of arrival before
//   the next request goes out. A page about the same code that arrives later settles them: the daemon no
//   longer awaits a reply.
// - Notifications count only once the daemon has answered this process. Earlier ones are from before the
//   announcement, which set all features back.
// - Only the first announcement to a daemon says what is held. A later one could name a feature that the
//   daemon is just withdrawing; the daemon would then keep back the notification when that feature comes into
//   force again.
// - A feature that is missing in a list is withdrawn only if it is also missing in a second one, fetched
//   after an announcement that names nothing. For when a withdrawn feature leaves the daemon's table during
//   the paging, the page after it is skipped.
// - A notification that has become overdue gets no reply: the daemon would credit it to another feature.
// - A notification about a code that is held with other data may bring a change, or one more value: nothing
//   is dropped before the daemon has said which values are in force. If it does not say, nothing is dropped.
// - Messages get lost, and replies are credited to the wrong features. So once a minute while monitoring, and
//   after whatever looks odd (doubt()), the digest of what is held and refused is compared with the daemon's.
//   On a difference the component is told what differs from the values in force. While anything is under way
//   on either side this says nothing, and is put off.
// - A difference that remains, say because the daemon takes for accepted what the component has refused, is
//   settled: it counts as none until either side changes.
// - The daemon answers in order. So the answer to a question that was asked after a request proves that the
//   request or its answer was lost.
// - Where the name is registered for another living process, this one leaves the daemon alone.
//
// Used by one thread at a time, which m_bBusy ensures; only stop() may be called by others.
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
    int dispatch(int* nextMs);
    int shutdown(const char* text);

    void stop() { // any thread, signal handlers; the next pump() uses it up
        m_bStop = true;
        m_oLink.wake();
    }
    int descriptor() const { return m_oLink.descriptor(); }
    int state() const;
    const CFeatureTable& table() const { return m_oTable; }
    CDaemonLink& link() { return m_oLink; }

    // Set while somebody is inside the client. The C interface sets it, so that other threads and
    // callbacks stay out.
    std::atomic<bool> m_bBusy{false};

private:
    enum class ERequest { none, announce, initList, getFeature, startMonitor, writeReply };

    struct SNotification {
        uint32_t m_nType = 0; // server message type 1 to 4
        SFeature m_oFeature;
        uint32_t m_nNewData = 0;
        bool m_bOverdue = false; // the daemon no longer awaits a reply
        bool m_bAsked = false;   // which values are in force: those, or none if there was no answer
        std::optional<std::set<SFeature>> m_oInForce = {};

        SFeature target() const { // the feature with its data afterwards
            const bool modifies = m_nType == nQelServerModifyMsgType;
            return {m_oFeature.m_nCode, modifies ? m_nNewData : m_oFeature.m_nData};
        }
    };

    // Marks the notification as being delivered, however the delivery ends.
    class CMarked {
    public:
        CMarked(SNotification*& mark, SNotification& notification) : m_rMark(mark) { mark = &notification; }
        ~CMarked() { m_rMark = nullptr; }
        CMarked(const CMarked&) = delete;
        CMarked& operator=(const CMarked&) = delete;

    private:
        SNotification*& m_rMark;
    };

    struct SReply {
        SFeature m_oFeature; // and its data afterwards
        uint32_t m_nNewData = 0;
        uint32_t m_nStatus = 0;
        std::string m_sText;
    };

    // The one loop: sends what is due and handles what comes, until `reached` holds, the time is up, or
    // stop() was called.
    int pump(const std::function<bool()>& reached, int timeoutMs);
    std::chrono::milliseconds waitTime(CClientClock::time_point deadline) const;
    CClientClock::time_point nextAct() const;
    void followDaemon();
    void startOver();

    // What goes out.
    void act(CClientClock::time_point deadline);
    bool sendNext();
    bool expect(ERequest request, uint32_t tag);
    uint32_t sendAnnouncement();
    bool isKnown() const;

    // What comes in.
    void takeMessages();
    void take(const CQelServerMessage& message);
    void takeNotification(const SNotification& notification);
    void takeAnswer(const SFeature& feature);
    void takeCredit(const SFeature& feature);
    void takePage(const SFeature& feature);
    void endOfList();
    void reportFetched();

    // Asking the daemon what it believes (CQelClientCompare.cpp).
    void doubt(CClientClock::duration delay);
    bool isIdle() const;
    bool mustAsk(const SNotification& notification) const;
    void askWhatIsDue();
    void ask(CAsking::EWhat what, uint32_t code = 0);
    bool sendQuestion();
    void giveUpQuestion();
    void takeAnswerToQuestion();
    void takeInForce();
    void takeHoldings(const CStatusHoldings& sum);
    void compareDigests(const CStatusHoldings& sum);
    void reconcile();

    // What the component is told (CCallback).
    void deliver(SNotification notification);
    SDifference compare(const SNotification& notification) const;

    CDaemonLink m_oLink;
    CFeatureTable m_oTable;
    CCallback m_oCallback; // calls it, and changes the table
    std::atomic<bool> m_bStop{false};

    bool m_bWanted = false; // the component is to be announced
    bool m_bListWanted = false;
    bool m_bMonitorWanted = false;

    bool m_bAnnounced = false;
    bool m_bRewound = false; // the daemon has answered InitList and pages from the start
    bool m_bListed = false;
    bool m_bMonitored = false;
    bool m_bConfirming = false;      // in the second pass, since features seem to be gone
    uint32_t m_nKnownTo = nNoHandle; // the daemon that has answered this process

    ERequest m_eAwaited = ERequest::none;
    CPatience m_oPatience;               // when what is awaited has to be given up
    CClientClock::time_point m_tRetry{}; // nothing is sent before: a send has failed

    std::deque<SNotification> m_oNotifications; // the component has yet to hear of these
    SNotification* m_pDelivering = nullptr;     // the component is hearing of this one now
    std::optional<SReply> m_oReply;             // to be sent before anything else
    SReply m_oReplied;                          // sent last

    CAsking m_oAsking;
    bool m_bCannotAsk = false; // an older daemon
    bool m_bReplaced = false;
    CClientClock::time_point m_tCompare = CClientClock::time_point::max();
    CClientClock::time_point m_tAsked{};
    CClientClock::time_point m_tProbe{}; // of the request that is under way
    uint32_t m_nRequest = 0;             // its tag
    uint32_t m_nProbed = 0;     // the tag of the request that was under way when the question was asked
    uint64_t m_nEvents = 0;     // messages of the conversation, either way
    uint64_t m_nAskedAt = 0;    // m_nEvents when the question was asked
    bool m_bReconciled = false; // a difference that is left now is settled
    std::optional<std::pair<uint64_t, uint64_t>> m_oSettled; // the daemon's digest and ours
    std::minstd_rand m_oChance;
    bool m_bUnfinished = false; // act() has left notifications for the next time
};

#endif
