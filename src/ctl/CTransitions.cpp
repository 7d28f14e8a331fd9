#include "ctl/CTransitions.h"

EAsked CTransitions::read(CStatusQuery& query) {
    CStatusQuestion question = makeQuestion(sqTransitions);
    setNumber(question.m_oCursor.m_aWords, m_nLast);
    SStatusPage page;
    if (const EAsked asked = query.askPage(question, page); asked != EAsked::answered) {
        return asked;
    }
    m_vPage.clear();
    for (const SStatusRecord& record : page.m_vRecords) {
        m_vPage.push_back({readRecord<CStatusTransition>(record), std::string(record.m_sText)});
    }
    const uint64_t cursor = number(page.m_oHead.m_oCursor.m_aWords);
    const uint64_t first = m_vPage.empty() ? cursor + 1 : number(m_vPage.front().m_aNumber);
    m_bRestarted = first <= m_nLast;
    m_nLost = first - 1 - (m_bRestarted ? 0 : m_nLast);
    m_bMore = page.m_oHead.m_nMore != 0 && !m_vPage.empty();
    m_nLast = cursor;
    return EAsked::answered;
}
