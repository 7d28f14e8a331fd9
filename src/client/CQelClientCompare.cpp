// Asking the daemon what it believes that the component has, and putting right what differs.
#include "client/CQelClient.h"

#include <algorithm>

namespace {

constexpr std::chrono::seconds tCompare{60};
constexpr std::chrono::seconds tAgain{5};   // while something is under way
constexpr std::chrono::seconds tAnswer{30}; // for an answer that can wait
constexpr std::chrono::seconds tInForce{4}; // for one that a reply waits for, which is due after 10
constexpr int nPolite = 50;                 // as many times as long as the daemon took to answer, at least

} // namespace

void CQelClient::doubt(CClientClock::duration delay) {
    m_tCompare = std::min(m_tCompare, CClientClock::now() + delay);
}

// Nothing is under way on this side, so a digest says something.
bool CQelClient::isIdle() const {
    return m_bMonitored && m_eAwaited == ERequest::none && !m_oReply && m_oNotifications.empty() &&
           !m_bCannotAsk;
}

// Another value of a code that is held: a change, or one more.
bool CQelClient::mustAsk(const SNotification& notification) const {
    const SFeature& feature = notification.m_oFeature;
    if (notification.m_bAsked || m_bCannotAsk || notification.m_nType == nQelServerTimeoutMsgType ||
        m_oTable.holds(feature)) {
        return false;
    }
    const bool isThere = notification.m_nType == nQelServerModifyMsgType &&
                         m_oTable.holds({feature.m_nCode, notification.m_nNewData});
    return !isThere && m_oTable.findHeld(feature);
}

// A question about a request that is under way goes out behind it, so its answer shows whether that was lost.
void CQelClient::askWhatIsDue() {
    const auto now = CClientClock::now();
    if (m_oAsking.what() != CAsking::nothing) {
        if (now >= m_oAsking.due()) {
            giveUpQuestion();
        }
    } else if (m_eAwaited != ERequest::none && !m_bCannotAsk && now >= m_tProbe) {
        m_tProbe = now + tAnswer;
        ask(CAsking::holdings);
    } else if (isIdle() && now >= m_tCompare) {
        ask(CAsking::holdings);
    }
}

// A comparison that gives way to a more urgent question is made up for soon.
void CQelClient::ask(CAsking::EWhat what, uint32_t code) {
    const auto now = CClientClock::now();
    if (m_oAsking.what() != CAsking::nothing) {
        m_tCompare = now + tAgain;
    }
    m_oAsking.begin(what, code);
    m_nProbed = m_eAwaited != ERequest::none ? m_nRequest : 0;
    m_nAskedAt = m_nEvents;
    m_tAsked = now;
    if (!sendQuestion()) {
        giveUpQuestion();
    }
}

bool CQelClient::sendQuestion() {
    const uint32_t tag = m_oLink.sendQuestion(m_oAsking.question());
    const bool isUrgent = m_oAsking.what() == CAsking::heldOfCode;
    m_oAsking.sent(tag, CClientClock::now() + (isUrgent ? tInForce : tAnswer));
    return tag != 0;
}

// Without an answer nothing is dropped for a notification; a comparison sorts it out.
void CQelClient::giveUpQuestion() {
    if (m_oAsking.what() == CAsking::heldOfCode && !m_oNotifications.empty()) {
        m_oNotifications.front().m_bAsked = true;
    }
    m_oAsking.end();
    m_bReconciled = false;
    m_tCompare = m_bMonitored ? CClientClock::now() + tAgain : CClientClock::time_point::max();
}

void CQelClient::takeAnswerToQuestion() {
    switch (m_oAsking.take(m_oLink.takeAnswer())) {
    case CAsking::stranger:
        return;
    case CAsking::impossible:
        m_bCannotAsk = true;
        m_oAsking.end();
        return;
    case CAsking::changed:
        m_oAsking.begin(m_oAsking.what(), m_oAsking.code());
        [[fallthrough]];
    case CAsking::more:
        if (!sendQuestion()) {
            giveUpQuestion();
        }
        return;
    case CAsking::complete:
        break;
    }
    const CAsking::EWhat what = m_oAsking.what();
    m_oAsking.end();
    if (what == CAsking::heldOfCode) {
        takeInForce();
    } else if (what == CAsking::holdings) {
        takeHoldings(m_oAsking.sum());
    } else {
        reconcile();
    }
}

void CQelClient::takeInForce() {
    if (m_oNotifications.empty() || m_oNotifications.front().m_oFeature.m_nCode != m_oAsking.code()) {
        return; // a page has settled it
    }
    SNotification& waiting = m_oNotifications.front();
    waiting.m_bAsked = true;
    waiting.m_oInForce.emplace();
    for (const auto& pair : m_oAsking.pairs()) {
        waiting.m_oInForce->insert(pair.m_oPair);
    }
}

// Before the daemon has answered an announcement, the name may well be another's still.
void CQelClient::takeHoldings(const CStatusHoldings& sum) {
    const bool isOurs = sum.m_nHandle == m_oLink.ownHandle();
    const bool isTaken = sum.m_nHandle != 0 && !isOurs && sum.m_nGone == 0;
    if (isTaken && isKnown()) {
        startOver();
        m_oNotifications.clear();
        m_bReplaced = true;
    } else if (m_eAwaited != ERequest::none) {
        if (m_nProbed == m_nRequest) {
            startOver();
        }
    } else if (!isOurs || (m_bMonitored && sum.m_nMonitors == 0)) {
        startOver();
    } else {
        compareDigests(sum);
    }
}

// Where answers take long because many ask, all ask less often.
void CQelClient::compareDigests(const CStatusHoldings& sum) {
    const auto now = CClientClock::now();
    if (!isIdle() || m_nEvents != m_nAskedAt || sum.m_nUnderWay != 0) {
        m_bReconciled = false;
        m_tCompare = now + tAgain;
        return;
    }
    const std::pair digests(number(sum.m_aDigest), m_oTable.digest());
    if (std::exchange(m_bReconciled, false)) {
        m_oSettled = digests;
    }
    if (digests.first != digests.second && m_oSettled != digests) {
        ask(CAsking::held);
        return;
    }
    m_tCompare = m_tAsked + std::max<CClientClock::duration>(tCompare, nPolite * (now - m_tAsked));
}

// As a fetch of the whole list in one go. Afterwards the digests are compared once more: what still differs
// then is not for this side to change.
void CQelClient::reconcile() {
    const auto& pairs = m_oAsking.pairs();
    const auto isUnderWay = [](const CAsking::SPair& pair) { return pair.m_bUnderWay; };
    if (!isIdle() || m_nEvents != m_nAskedAt || std::any_of(pairs.begin(), pairs.end(), isUnderWay)) {
        m_tCompare = CClientClock::now() + tAgain;
        return;
    }
    std::set<SFeature> inForce;
    m_oTable.beginFetch(false);
    for (const auto& pair : pairs) {
        inForce.insert(pair.m_oPair);
        if (m_oTable.see(pair.m_oPair)) {
            m_oCallback.offer({std::nullopt, pair.m_oPair}, true);
        }
    }
    reportFetched();
    m_oTable.forgetRefusals(inForce);
    m_bReconciled = true;
    m_tCompare = CClientClock::now();
}
