#include "client/CQelClient.h"

#include <algorithm>
#include <climits>
#include <unistd.h>
#include <utility>

namespace {

constexpr size_t nMaxHandled = 256; // notifications in one go

constexpr std::chrono::seconds tSoon{2};   // after a doubt: what is under way should be over
constexpr std::chrono::seconds tProbe{45}; // after which a request without an answer is asked about

CClientClock::duration patience(const qel_options& options) {
    const std::chrono::milliseconds wanted(options.answer_timeout_ms);
    return wanted.count() != 0 ? wanted : std::chrono::milliseconds(CPatience::tDefault);
}

// Differs between processes that start at the same moment.
uint32_t chance() {
    const auto now = CClientClock::now().time_since_epoch().count();
    return static_cast<uint32_t>(now) ^ static_cast<uint32_t>(getpid()) << 12;
}

// Any negative limit is QEL_FOREVER.
CClientClock::time_point deadlineAfter(int timeoutMs) {
    return timeoutMs < 0 ? CClientClock::time_point::max()
                         : CClientClock::now() + std::chrono::milliseconds(timeoutMs);
}

} // namespace

CQelClient::CQelClient(const char* name, const qel_options& options)
    : m_oLink(name, options.trace, options.user), m_oCallback(options, m_oTable),
      m_oPatience(patience(options), chance()), m_oAsking(name), m_oChance(chance()) {}

int CQelClient::hold(const SFeature& feature) {
    m_oTable.add(feature);
    return QEL_OK;
}

// What is wanted stays wanted after the call, in this one and those below: it is done again after each
// restart of the daemon.
int CQelClient::announce(int timeoutMs) {
    m_bWanted = true;
    if (std::exchange(m_bReplaced, false)) {
        startOver();
    }
    return pump([this] { return m_bAnnounced; }, timeoutMs);
}

// After a complete fetch this begins another. After one that ran out of time it goes on with that one, so
// that a caller with a short time limit gets to the end as well.
int CQelClient::fetch(int timeoutMs) {
    m_bWanted = m_bListWanted = true;
    if (std::exchange(m_bListed, false)) {
        m_bRewound = m_bConfirming = false;
    }
    int rc = pump([this] { return m_bListed; }, timeoutMs);
    return rc == QEL_OK ? static_cast<int>(std::min<size_t>(m_oTable.size(), INT_MAX)) : rc;
}

int CQelClient::monitor(int timeoutMs) {
    m_bWanted = m_bMonitorWanted = true;
    return pump([this] { return m_bMonitored; }, timeoutMs);
}

// A missing daemon is no error here: the loop keeps looking for it, which is all that a caller could do.
int CQelClient::wait(int timeoutMs) {
    m_oCallback.countFromZero();
    int rc = pump([this] { return m_oCallback.calls() != 0; }, timeoutMs);
    return rc == QEL_OK || rc == QEL_ENODAEMON || rc == QEL_ETIMEDOUT ? m_oCallback.calls() : rc;
}

// No state ends this; the condition only notes that the component came up once. After that, a missing daemon
// or a stop is a good end.
int CQelClient::run(int timeoutMs) {
    m_bWanted = m_bListWanted = m_bMonitorWanted = true;
    bool cameUp = false;
    int rc = pump(
        [&] {
            cameUp = cameUp || m_bMonitored;
            return false;
        },
        timeoutMs);
    return cameUp && rc != QEL_EREPLACED ? QEL_OK : rc;
}

// A stop is looked for first, since who waits by itself was woken for it.
int CQelClient::dispatch(int* nextMs) {
    m_bWanted = m_bListWanted = m_bMonitorWanted = true;
    m_oCallback.countFromZero();
    const int rc = pump([] { return false; }, 0);
    if (rc != QEL_ENODAEMON && rc != QEL_ETIMEDOUT) {
        return rc;
    }
    if (nextMs != nullptr) {
        const auto wait = waitTime(CClientClock::time_point::max()).count();
        *nextMs = m_oLink.hasMore() ? 0 : static_cast<int>(std::clamp<int64_t>(wait, 0, INT_MAX));
    }
    return m_oCallback.calls();
}

// A daemon that has never answered does not know the handle, and would only log the message. The next
// announcement is a first one again and tells what is held, for the daemon forgets a component that
// shuts down.
int CQelClient::shutdown(const char* text) {
    bool sent = !std::exchange(m_bReplaced, false) && isKnown() &&
                m_oLink.sendReply(ShutdownMsgType, nReplyOk, text ? text : "") != 0;
    startOver();
    m_oNotifications.clear();
    m_nKnownTo = nNoHandle;
    m_bWanted = m_bListWanted = m_bMonitorWanted = false;
    if (!sent) {
        return QEL_ENODAEMON;
    }
    return QEL_OK;
}

// The second pass of a fetch announces the component once more. That is the client's own affair, so the state
// does not fall back to seeking meanwhile.
int CQelClient::state() const {
    if (m_bMonitored) {
        return QEL_STATE_MONITORING;
    }
    if (m_bListed) {
        return QEL_STATE_FETCHED;
    }
    return m_bAnnounced || m_bConfirming ? QEL_STATE_ANNOUNCED : QEL_STATE_SEEKING;
}

// Receives at least once before the deadline counts, and sets act() no deadline where the time limit is 0, so
// that such a call handles what is there. A stop is checked right after act(), where callbacks run, and at
// least once in each look-up period.
int CQelClient::pump(const std::function<bool()>& reached, int timeoutMs) {
    auto deadline = deadlineAfter(timeoutMs);
    const auto limit = timeoutMs != 0 ? deadline : CClientClock::time_point::max();
    for (bool first = true;; first = false) {
        act(limit);
        if (m_bStop.exchange(false)) {
            return QEL_ESTOPPED;
        }
        if (m_bReplaced) {
            return QEL_EREPLACED;
        }
        if (reached()) {
            return QEL_OK;
        }
        if (!first && CClientClock::now() >= deadline) {
            return m_oLink.handle() == nNoHandle ? QEL_ENODAEMON : QEL_ETIMEDOUT;
        }
        m_oLink.receive(waitTime(deadline), limit);
        takeMessages();
        takeAnswerToQuestion();
        if (m_eAwaited != ERequest::none && CClientClock::now() >= m_oPatience.due()) {
            m_oPatience.giveUp();
            startOver();
        }
    }
}

// Never beyond the next look-up, which bounds the time until a restart of the daemon is noticed, and where
// nothing wakes this up never longer than half a second, which bounds it for a stop from another thread. A
// moment that has passed gives a negative time, which receive() takes as 0.
std::chrono::milliseconds CQelClient::waitTime(CClientClock::time_point deadline) const {
    auto now = CClientClock::now();
    if (m_bUnfinished) {
        return {};
    }
    auto until = std::min(deadline, nextAct());
    // The next wake-up looks the daemon up, too, if the platform tells when that is needed before.
    if (!m_oLink.isLookupRare() || until == CClientClock::time_point::max()) {
        until = std::min(until, m_oLink.nextLookup());
    }
    if (!m_oLink.isWoken()) {
        until = std::min<CClientClock::time_point>(until, now + CDaemonLink::tLookup);
    }
    return std::chrono::ceil<std::chrono::milliseconds>(until - now);
}

// The next thing that is due by time alone.
CClientClock::time_point CQelClient::nextAct() const {
    auto next = CClientClock::time_point::max();
    if (m_oLink.handle() == nNoHandle || m_bReplaced) {
        return next;
    }
    if (m_eAwaited != ERequest::none) {
        next = m_bCannotAsk ? m_oPatience.due() : std::min(m_oPatience.due(), m_tProbe);
    } else if (m_tRetry > CClientClock::now()) {
        next = m_tRetry;
    }
    if (m_oAsking.what() != CAsking::nothing) {
        return std::min(next, m_oAsking.due());
    }
    return isIdle() ? std::min(next, m_tCompare) : next;
}

void CQelClient::followDaemon() {
    if (m_oLink.lookUp() == CDaemonLink::ELookup::changed) {
        startOver();
        // The new daemon awaits no reply to what the old one notified, and the send that failed was
        // not to it.
        m_oNotifications.clear();
        m_oPatience.forget();
        m_oSettled.reset();
        m_bCannotAsk = false;
        m_tRetry = {};
    }
}

// Leaves queued notifications alone. If the daemon is still the same, it goes on waiting for their replies.
void CQelClient::startOver() {
    m_eAwaited = ERequest::none;
    m_bAnnounced = m_bRewound = m_bListed = m_bMonitored = m_bConfirming = false;
    m_oReply.reset();
    m_oAsking.end();
    m_bReconciled = false;
    m_tCompare = CClientClock::time_point::max();
}

// Runs until an answer is awaited, or until there is nothing to do. Notifications go before requests, because
// the daemon allows 10 seconds for a reply, while a request can wait. Those that need no reply do not end
// this, so there the deadline is looked at: after the first one, which a call may always handle, and not
// before the reply to the last one is out. Their number is limited, too, so that a flood does not keep a
// caller here that does not wait at all.
void CQelClient::act(CClientClock::time_point deadline) {
    followDaemon();
    size_t left = nMaxHandled;
    m_bUnfinished = false;
    bool mayEnd = false;
    while (m_bWanted && !m_bReplaced && m_oLink.handle() != nNoHandle && m_eAwaited == ERequest::none &&
           CClientClock::now() >= m_tRetry && !m_bStop) {
        if (!m_oReply && !m_oNotifications.empty()) {
            if (std::exchange(mayEnd, true) && (CClientClock::now() >= deadline || left == 0)) {
                m_bUnfinished = true;
                return;
            }
            --left;
            if (mustAsk(m_oNotifications.front())) {
                if (m_oAsking.what() != CAsking::heldOfCode) {
                    ask(CAsking::heldOfCode, m_oNotifications.front().m_oFeature.m_nCode);
                }
                break;
            }
            // Out of the queue first: deliver() takes in messages, which may change the queue.
            SNotification next = m_oNotifications.front();
            m_oNotifications.pop_front();
            deliver(next);
        } else if (!sendNext()) {
            break;
        }
    }
    if (m_bWanted && !m_bReplaced && m_oLink.handle() != nNoHandle && !m_bStop) {
        askWhatIsDue();
    }
}

// Sends what is due next. False: nothing is, or sending failed and is tried again at the next look-up.
bool CQelClient::sendNext() {
    // The reply stays until it is out: without it the daemon would credit the next reply to this feature.
    if (m_oReply) {
        uint32_t tag = m_oLink.sendReply(WriteReplyMsgType, m_oReply->m_nStatus, m_oReply->m_sText);
        if (!expect(ERequest::writeReply, tag)) {
            return false;
        }
        m_oReplied = *std::exchange(m_oReply, std::nullopt);
        return true;
    }
    // From here on, the first goal that is not reached yet.
    if (!m_bAnnounced) {
        return expect(ERequest::announce, sendAnnouncement());
    }
    if (m_bListWanted && !m_bListed) {
        return m_bRewound ? expect(ERequest::getFeature, m_oLink.sendRequest(nQelClientGetFeatureMsgType))
                          : expect(ERequest::initList, m_oLink.sendRequest(InitListMsgType));
    }
    if (m_bMonitorWanted && !m_bMonitored) {
        return expect(ERequest::startMonitor, m_oLink.sendRequest(nQelClientStartMonitorMsgType));
    }
    return false;
}

bool CQelClient::expect(ERequest request, uint32_t tag) {
    if (tag == 0) {
        // The look-up at that time tells whether the daemon has gone or was only busy.
        m_tRetry = m_oLink.nextLookup();
        return false;
    }
    const auto now = CClientClock::now();
    m_eAwaited = request;
    m_nRequest = tag;
    ++m_nEvents;
    m_oPatience.ask(tag, now);
    m_tProbe =
        now + std::min<CClientClock::duration>((m_oPatience.due() - now) / 4 * 3,
                                               tProbe + std::chrono::milliseconds(m_oChance() % 10000));
    return true;
}

// The daemon keeps back a notification of a pair that was announced as held. That is right at first; later
// the pair may be under withdrawal (see the rules in the header).
uint32_t CQelClient::sendAnnouncement() {
    return m_oLink.sendAnnouncement(isKnown() ? std::vector<SFeature>() : m_oTable.list(nMaxKnownPairs));
}

// Whether the present daemon has answered this process, not merely some daemon.
bool CQelClient::isKnown() const {
    return m_nKnownTo != nNoHandle && m_nKnownTo == m_oLink.handle();
}

void CQelClient::takeMessages() {
    auto& inbox = m_oLink.inbox();
    while (!inbox.empty()) {
        CQelServerMessage message = inbox.front();
        inbox.pop_front();
        take(message);
    }
}

// Types above 4 are not for a component, the list for OAM among them.
void CQelClient::take(const CQelServerMessage& message) {
    SFeature feature{message.m_nCode, message.m_nData};
    uint32_t type = message.m_oHeader.m_nType;
    ++m_nEvents;
    if (type == nQelServerReplyMsgType) {
        // Even a late answer proves that this daemon has had an announcement of this process.
        m_nKnownTo = m_oLink.handle();
        const bool isAwaited = m_oPatience.take(message.m_oHeader.m_nTag, CClientClock::now());
        if (isAwaited && m_eAwaited != ERequest::none) {
            takeAnswer(feature);
        }
    } else if (type <= nQelServerTimeoutMsgType && isKnown()) {
        takeNotification({type, feature, message.m_nExtra});
    }
}

// When the daemon says that a reply is overdue, it has stopped waiting. A reply sent now would be credited to
// another feature, so none may go out, however far the notification has come: queued, at the component, or
// answered but not sent yet. The component still hears of both, in order.
void CQelClient::takeNotification(const SNotification& notification) {
    uint32_t code = notification.m_oFeature.m_nCode;
    if (notification.m_nType == nQelServerTimeoutMsgType) {
        doubt(tSoon); // the message may never have come, and a disable does not come again
        for (SNotification& waiting : m_oNotifications) {
            waiting.m_bOverdue = waiting.m_bOverdue || waiting.m_oFeature.m_nCode == code;
        }
        if (m_pDelivering && m_pDelivering->m_oFeature.m_nCode == code) {
            m_pDelivering->m_bOverdue = true;
        }
        if (m_oReply && m_oReply->m_oFeature.m_nCode == code) {
            m_oReply.reset();
        }
    }
    m_oNotifications.push_back(notification);
}

void CQelClient::takeAnswer(const SFeature& feature) {
    switch (std::exchange(m_eAwaited, ERequest::none)) {
    case ERequest::announce:
        m_bAnnounced = true;
        break;
    case ERequest::initList:
        m_bRewound = true;
        m_oTable.beginFetch(!m_bConfirming);
        break;
    case ERequest::getFeature:
        if (feature == SFeature{}) {
            endOfList();
        } else {
            takePage(feature);
        }
        break;
    case ERequest::startMonitor:
        // What the daemon withdrew between its page and this it had nobody to tell. Those who start together
        // do not ask together.
        m_bMonitored = true;
        doubt(tSoon + std::chrono::milliseconds(m_oChance() % 3000));
        break;
    case ERequest::writeReply:
        takeCredit(feature);
        break;
    case ERequest::none:
        break;
    }
}

// If the answer names another feature, or none, then some feature counts as accepted, or refused, of which
// this side has not told it.
void CQelClient::takeCredit(const SFeature& feature) {
    const SFeature& replied = m_oReplied.m_oFeature;
    if (feature != replied && feature != SFeature{replied.m_nCode, m_oReplied.m_nNewData}) {
        doubt(tSoon);
    }
}

// A page counts as accepted with its delivery, and settles a notification about the code that came before it:
// the daemon awaits no reply. The note that a reply is overdue stays, since it asks for none.
void CQelClient::takePage(const SFeature& feature) {
    std::erase_if(m_oNotifications, [&](const SNotification& waiting) {
        return waiting.m_oFeature.m_nCode == feature.m_nCode && waiting.m_nType != nQelServerTimeoutMsgType;
    });
    // Without a text, for the daemon awaits no reply to a page.
    if (m_oTable.see(feature)) {
        m_oCallback.offer({std::nullopt, feature}, true);
    }
}

// Features that are missing may just have been on a skipped page. The second pass begins with an announcement
// that names nothing, so that the daemon notifies a feature that does come back.
void CQelClient::endOfList() {
    if (!m_bConfirming && !m_oTable.gone().empty()) {
        m_bConfirming = true;
        m_bAnnounced = m_bRewound = false;
        return;
    }
    reportFetched();
    m_bConfirming = false;
    m_bListed = true;
}

// Changes first: taking them marks the pairs that are replaced, which gone() must not report as withdrawn.
// What is withdrawn is dropped whatever the component answers, for the daemon no longer knows it.
void CQelClient::reportFetched() {
    for (const auto& change : m_oTable.takeChanges()) {
        m_oCallback.offer({change.m_oOld, change.m_oNew}, true);
    }
    for (const SFeature& feature : m_oTable.gone()) {
        m_oCallback.offer({feature, std::nullopt}, true);
        m_oTable.remove(feature);
    }
}

void CQelClient::deliver(SNotification notification) {
    if (notification.m_nType == nQelServerTimeoutMsgType) {
        // Nothing to answer, and nothing changes: it only says that the daemon has stopped waiting.
        m_oCallback.overdue(notification.m_oFeature);
        return;
    }
    std::string text;
    SDifference difference = compare(notification);
    const CMarked delivering(m_pDelivering, notification);
    // No page about this code has come since: takePage() would have dropped the notification.
    m_oTable.forgetSetAside(notification.m_oFeature.m_nCode);
    if (notification.m_bAsked && !notification.m_oInForce) {
        doubt(tSoon);
    }
    bool changes = difference.m_oOld != difference.m_oNew;
    int result = changes ? m_oCallback.offer(difference, false, &text)
                         : m_oCallback.repeat(notification.m_nType == nQelServerDisableMsgType,
                                              notification.target(), text);
    if (result == QEL_NO_REPLY) {
        return;
    }
    // The callback may have taken its time. If the note that the reply is overdue has arrived meanwhile, the
    // reply must not be sent; takeNotification() marks the one being delivered.
    m_oLink.receive(std::chrono::milliseconds(0));
    takeMessages();
    if (!notification.m_bOverdue) {
        // 1 is the only status that means success; every other one is a refusal.
        m_oReply = {notification.m_oFeature, notification.m_nNewData, result == QEL_OK ? nReplyOk : 0, text};
    }
}

// What the message changes at this component, whatever its type: most changes of data come as a new enable,
// and a withdrawal may name data older or newer than what is held. No old and no new pair: a withdrawal of
// something that is not held. The same pair twice: it is held already.
SDifference CQelClient::compare(const SNotification& notification) const {
    const SFeature& feature = notification.m_oFeature;
    auto old = m_oTable.findHeld(feature);
    if (notification.m_bAsked && old != feature) {
        old = notification.m_oInForce ? m_oTable.findOutdated(feature.m_nCode, *notification.m_oInForce)
                                      : std::nullopt;
    }
    if (notification.m_nType == nQelServerDisableMsgType) {
        return {old, std::nullopt};
    }
    const SFeature target = notification.target();
    if (m_oTable.holds(target)) {
        return {target, target};
    }
    return {old, target};
}
