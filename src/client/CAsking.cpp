#include "client/CAsking.h"

void CAsking::begin(EWhat what, uint32_t code) {
    m_eWhat = what;
    m_nCode = code;
    m_nTag = 0;
    m_oCursor = {};
    m_oSum = {};
    m_vPairs.clear();
}

CStatusQuestion CAsking::question() const {
    CStatusQuestion question;
    question.m_nQuestion = m_eWhat == holdings ? sqHoldings : sqHeld;
    question.m_oCursor = m_oCursor;
    question.m_nFilter = sfComponent | (m_eWhat == heldOfCode ? sfCode : 0U);
    question.m_nCode = m_nCode;
    m_sName.copy(question.m_szComponent, nMaxNameLength);
    return question;
}

void CAsking::sent(uint32_t tag, CClientClock::time_point due) {
    m_nTag = tag;
    m_tDue = due;
}

CAsking::EProgress CAsking::take(std::span<const uint8_t> answer) {
    const auto head = readBody<CStatusAnswer>(answer.data(), answer.size());
    if (m_eWhat == nothing || m_nTag == 0 || head.m_nTag != m_nTag || answer.size() < sizeof head) {
        return stranger;
    }
    if (head.m_nResult != srOk) {
        return head.m_nResult == srChanged ? changed : impossible;
    }
    std::span<const uint8_t> rest = answer.subspan(sizeof head);
    for (uint32_t i = 0; i < head.m_nCount; ++i) {
        const auto record = ::takeRecord(rest);
        if (!record || !takeRecord(*record)) {
            return impossible;
        }
    }
    m_oCursor = head.m_oCursor;
    return head.m_nMore != 0 ? more : complete;
}

// False: the answer is damaged. Handle and flags are those of the last page, counts and
// digest the sum of all.
bool CAsking::takeRecord(const SStatusRecord& record) {
    if (m_eWhat == holdings) {
        auto page = readRecord<CStatusHoldings>(record);
        page.m_nInForce = page.m_nInForce + m_oSum.m_nInForce;
        page.m_nUnderWay = page.m_nUnderWay + m_oSum.m_nUnderWay;
        setNumber(page.m_aDigest, number(page.m_aDigest) + number(m_oSum.m_aDigest));
        m_oSum = page;
        return record.m_aRecord.size() >= sizeof page;
    }
    const auto pair = readRecord<CStatusHeld>(record);
    m_vPairs.push_back({{pair.m_nCode, pair.m_nData}, pair.m_nUnderWay != 0});
    return record.m_aRecord.size() >= sizeof pair;
}
