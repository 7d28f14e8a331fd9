#include "agent/CApplianceState.h"

#include "ctl/pairs.h"

namespace {

constexpr std::chrono::seconds tAnswer{5};

} // namespace

void CApplianceState::look() {
    const EAsked asked = ask();
    if (asked != EAsked::answered) {
        m_bRead = false;
    }
    // An endpoint that did not come up is tried anew.
    if (asked == EAsked::noEndpoint) {
        m_pQuery.reset();
    }
}

EAsked CApplianceState::ask() {
    if (!m_pQuery) {
        m_pQuery = std::make_unique<CStatusQuery>(tAnswer);
    }
    SSummaryView summary;
    EAsked asked = readSummary(*m_pQuery, summary);
    if (asked != EAsked::answered) {
        return asked;
    }
    if (m_bRead && !m_oSnapshot.m_oView.isOutdated(summary)) {
        return readListState(*m_pQuery, m_oSnapshot.m_oList);
    }
    asked = m_oSnapshot.read(*m_pQuery, CDaemonView::EExtent::open);
    m_bRead = asked == EAsked::answered;
    return asked;
}

void CApplianceState::put(CJson& state) const {
    state["daemon"] = {{"running", m_bRead}};
    if (!m_bRead) {
        return;
    }
    const CDaemonView& view = m_oSnapshot.m_oView;
    state["daemon"]["version"] = view.m_oSummary.m_sText;
    state["daemon"]["started"] = jsonTime(view.m_oSummary.m_tStarted);
    if (m_oSnapshot.m_oList) {
        state["list"] = toJson(*m_oSnapshot.m_oList);
    }
    state["deliveries"] = toJson(countPairs(view.m_vPairs));
    CJson problems = CJson::array();
    size_t count = 0;
    for (const SPair& pair : view.m_vPairs) {
        if (pair.is(EDeliveryWord::failed) && ++count <= nMaxProblems) {
            problems.push_back(toJson(pair));
        }
    }
    state["problem_count"] = count;
    state["problems"] = std::move(problems);
}
