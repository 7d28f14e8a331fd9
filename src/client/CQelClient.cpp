#include "client/CQelClient.h"

#include <algorithm>
#include <climits>
#include <utility>

namespace {

constexpr std::chrono::milliseconds tDefaultAnswer{10000};

CClientClock::time_point deadlineAfter(int timeoutMs) {
    return timeoutMs < 0 ? CClientClock::time_point::max()
                         : CClientClock::now() + std::chrono::milliseconds(timeoutMs);
}

} // namespace

CQelClient::CQelClient(const char* name, const qel_options& options)
    : m_oOptions(options), m_oLink(name, options.trace, options.user) {}

int CQelClient::hold(const SFeature& feature) {
    m_oTable.add(feature);
    return QEL_OK;
}

int CQelClient::announce(int timeoutMs) {
    m_bWanted = true;
    return pump([this] { return m_bAnnounced; }, timeoutMs);
}

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

int CQelClient::wait(int timeoutMs) {
    m_nHandled = 0;
    int rc = pump([this] { return m_nHandled != 0; }, timeoutMs);
    return rc == QEL_OK || rc == QEL_ENODAEMON || rc == QEL_ETIMEDOUT ? m_nHandled : rc;
}

int CQelClient::run(int timeoutMs) {
    m_bWanted = m_bListWanted = m_bMonitorWanted = true;
    bool cameUp = false;
    int rc = pump(
        [&] {
            cameUp = cameUp || m_bMonitored;
            return false;
        },
        timeoutMs);
    return cameUp ? QEL_OK : rc;
}

int CQelClient::shutdown(const char* text) {
    bool sent = isKnown() && m_oLink.sendReply(ShutdownMsgType, nReplyOk, text ? text : "") != 0;
    startOver();
    m_oNotifications.clear();
    m_nKnownTo = nNoHandle;
    m_bWanted = m_bListWanted = m_bMonitorWanted = false;
    if (!sent) {
        return QEL_ENODAEMON;
    }
    return QEL_OK;
}

int CQelClient::state() const {
    if (m_bMonitored) {
        return QEL_STATE_MONITORING;
    }
    if (m_bListed) {
        return QEL_STATE_FETCHED;
    }
    return m_bAnnounced || m_bConfirming ? QEL_STATE_ANNOUNCED : QEL_STATE_SEEKING;
}

int CQelClient::pump(const std::function<bool()>& reached, int timeoutMs) {
    auto deadline = deadlineAfter(timeoutMs);
    for (bool first = true;; first = false) {
        act();
        if (m_bStop.exchange(false)) {
            return QEL_ESTOPPED;
        }
        if (reached()) {
            return QEL_OK;
        }
        if (!first && CClientClock::now() >= deadline) {
            return m_oLink.handle() == nNoHandle ? QEL_ENODAEMON : QEL_ETIMEDOUT;
        }
        m_oLink.receive(waitTime(deadline));
        takeMessages();
        if (m_eAwaited != ERequest::none && CClientClock::now() >= m_tAnswerDue) {
            startOver();
        }
    }
}

std::chrono::milliseconds CQelClient::waitTime(CClientClock::time_point deadline) const {
    auto until = std::min(deadline, m_oLink.nextLookup());
    if (m_eAwaited != ERequest::none) {
        until = std::min(until, m_tAnswerDue);
    }
    return std::chrono::ceil<std::chrono::milliseconds>(until - CClientClock::now());
}

void CQelClient::followDaemon() {
    if (m_oLink.lookUp() == CDaemonLink::ELookup::changed) {
        startOver();
        m_oNotifications.clear();
        m_tRetry = {};
    }
}

void CQelClient::startOver() {
    m_eAwaited = ERequest::none;
    m_bAnnounced = m_bRewound = m_bListed = m_bMonitored = m_bConfirming = false;
    m_oReply.reset();
}

void CQelClient::act() {
    followDaemon();
    while (m_bWanted && m_oLink.handle() != nNoHandle && m_eAwaited == ERequest::none &&
           CClientClock::now() >= m_tRetry && !m_bStop) {
        if (!m_oReply && !m_oNotifications.empty()) {
            SNotification next = m_oNotifications.front();
            m_oNotifications.pop_front();
            deliver(next);
        } else if (!sendNext()) {
            return;
        }
    }
}

// Sends what is due next; false if nothing is, or if it could not be sent and is due again later.
bool CQelClient::sendNext() {
    if (m_oReply) {
        uint32_t tag = m_oLink.sendReply(WriteReplyMsgType, m_oReply->m_nStatus, m_oReply->m_sText);
        if (!expect(ERequest::writeReply, tag)) {
            return false;
        }
        m_oReply.reset();
        return true;
    }
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
    auto now = CClientClock::now();
    if (tag == 0) {
        m_tRetry = m_oLink.nextLookup(); // which then tells whether the daemon is gone or only busy
        return false;
    }
    auto patience = std::chrono::milliseconds(m_oOptions.answer_timeout_ms);
    m_eAwaited = request;
    m_nAwaitedTag = tag;
    m_tAnswerDue = now + (patience.count() ? patience : tDefaultAnswer);
    return true;
}

uint32_t CQelClient::sendAnnouncement() {
    return m_oLink.sendAnnouncement(isKnown() ? std::vector<SFeature>() : m_oTable.list(nMaxKnownPairs));
}

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

void CQelClient::take(const CQelServerMessage& message) {
    SFeature feature{message.m_nCode, message.m_nData};
    uint32_t type = message.m_oHeader.m_nType;
    if (type == nQelServerReplyMsgType) {
        m_nKnownTo = m_oLink.handle();
        if (m_eAwaited != ERequest::none && message.m_oHeader.m_nTag == m_nAwaitedTag) {
            takeAnswer(feature);
        }
    } else if (type <= nQelServerTimeoutMsgType && isKnown()) {
        takeNotification({type, feature, message.m_nExtra});
    }
}

void CQelClient::takeNotification(const SNotification& notification) {
    uint32_t code = notification.m_oFeature.m_nCode;
    if (notification.m_nType == nQelServerTimeoutMsgType) {
        for (SNotification& waiting : m_oNotifications) {
            waiting.m_bOverdue = waiting.m_bOverdue || waiting.m_oFeature.m_nCode == code;
        }
        if (m_pDelivering && m_pDelivering->m_oFeature.m_nCode == code) {
            m_pDelivering->m_bOverdue = true;
        }
        if (m_oReply && m_oReply->m_nCode == code) {
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
        m_bMonitored = true;
        break;
    case ERequest::writeReply: // carries the feature that it was credited to; nothing depends on it
    case ERequest::none:
        break;
    }
}

void CQelClient::takePage(const SFeature& feature) {
    std::erase_if(m_oNotifications, [&](const SNotification& waiting) {
        return waiting.m_oFeature.m_nCode == feature.m_nCode && waiting.m_nType != nQelServerTimeoutMsgType;
    });
    if (m_oTable.see(feature) && offer({std::nullopt, feature}, true) != QEL_OK) {
        m_oTable.refuse(feature);
    }
}

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

void CQelClient::reportFetched() {
    for (const auto& change : m_oTable.takeChanges()) {
        offer({change.m_oOld, change.m_oNew}, true);
    }
    for (const SFeature& feature : m_oTable.gone()) {
        offer({feature, std::nullopt}, true);
        m_oTable.remove(feature);
    }
}

void CQelClient::deliver(SNotification notification) {
    if (notification.m_nType == nQelServerTimeoutMsgType) {
        const SFeature& feature = notification.m_oFeature;
        call({QEL_OVERDUE, feature.m_nCode, feature.m_nData, 0, 0}, nullptr);
        return;
    }
    std::string text;
    SDifference difference = compare(notification);
    m_pDelivering = &notification;
    m_oTable.forgetSetAside(notification.m_oFeature.m_nCode);
    bool changes = difference.m_oOld != difference.m_oNew;
    int result = changes ? offer(difference, false, &text) : repeat(notification, text);
    m_oLink.receive(std::chrono::milliseconds(0)); // the answer may have become overdue meanwhile
    takeMessages();
    m_pDelivering = nullptr;
    if (result != QEL_NO_REPLY && !notification.m_bOverdue) {
        m_oReply = {notification.m_oFeature.m_nCode, result == QEL_OK ? nReplyOk : 0, text};
    }
}

// Nothing old and nothing new: a withdrawal of what is not held. Old and new alike: an enable of what is.
CQelClient::SDifference CQelClient::compare(const SNotification& notification) const {
    const SFeature& feature = notification.m_oFeature;
    if (notification.m_nType == nQelServerDisableMsgType) {
        return {m_oTable.findHeld(feature), std::nullopt};
    }
    bool modifies = notification.m_nType == nQelServerModifyMsgType;
    SFeature target{feature.m_nCode, modifies ? notification.m_nNewData : feature.m_nData};
    if (m_oTable.holds(target)) {
        return {target, target};
    }
    return {m_oTable.findHeld(feature), target};
}

// Tells the component of a difference; the table follows if it agrees.
int CQelClient::offer(const SDifference& difference, bool fetched, std::string* text) {
    const auto& [before, after] = difference;
    const SFeature& feature = before ? *before : *after;
    int kind = !after ? QEL_DISABLE : before ? QEL_MODIFY : QEL_ENABLE;
    uint32_t newData = kind == QEL_MODIFY ? after->m_nData : 0;
    int result = call({kind, feature.m_nCode, feature.m_nData, newData, fetched}, text);
    if (result == QEL_OK) {
        if (before) {
            m_oTable.remove(*before);
        }
        if (after) {
            m_oTable.add(*after);
        }
    }
    return result;
}

// The daemon said what is so already: it answers itself, unless the component wants to hear it.
int CQelClient::repeat(const SNotification& notification, std::string& text) {
    bool disables = notification.m_nType == nQelServerDisableMsgType;
    bool modifies = notification.m_nType == nQelServerModifyMsgType;
    SFeature feature = notification.m_oFeature;
    feature.m_nData = modifies ? notification.m_nNewData : feature.m_nData;
    if (!disables) {
        m_oTable.add(feature); // seen, if a fetch is under way
    }
    if (!m_oOptions.notify_unchanged) {
        return QEL_OK;
    }
    return call({disables ? QEL_DISABLE : QEL_ENABLE, feature.m_nCode, feature.m_nData, 0, 0}, &text);
}

int CQelClient::call(const qel_notification& notification, std::string* text) {
    char buffer[QEL_TEXT_SIZE] = {};
    m_nHandled += m_nHandled < INT_MAX;
    if (!m_oOptions.notify) {
        return QEL_OK;
    }
    int result = m_oOptions.notify(m_oOptions.user, &notification, buffer);
    if (text) {
        text->assign(buffer, strnlen(buffer, sizeof buffer - 1));
    }
    return result;
}
