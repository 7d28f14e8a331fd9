#include "server/status/holdings.h"

#include "features/CComponent.h"
#include "features/CFeatureEntry.h"
#include "features/CQelControl.h"
#include "features/delivery.h"

#include <cerrno>
#include <csignal>

namespace {

// Entries that a page looks at. Where an entry has many names or records, each four of
// them count as one more.
constexpr size_t nMaxVisits = 16384;

const CComponent* findComponent(const CQelControl& control, const CStatusQuestion& question) {
    char name[nNameFieldSize + 1] = {};
    fieldText(question.m_szComponent).copy(name, nNameFieldSize);
    return *name != '\0' ? control.findCompByName(name) : nullptr;
}

bool isGone(const CComponent& comp) {
    return comp.m_nProcessId != 0 && kill(static_cast<pid_t>(comp.m_nProcessId), 0) != 0 && errno == ESRCH;
}

EHeld heldOf(const CCompStatus* record) {
    if (record == nullptr) {
        return heNeither;
    }
    switch (record->m_eStatus) {
    case CCompStatus::csEnabled:
    case CCompStatus::csModified:
        return heHeld;
    case CCompStatus::csEnableFailed:
    case CCompStatus::csModifyFailed:
        return heRefused;
    default: // waiting, timed out, disabled, or no state at all
        return heNeither;
    }
}

} // namespace

CHoldingsWalk::CHoldingsWalk(const CStatusQuestion& question, const CQelControl& control)
    : m_rQuestion(question), m_pComponent(findComponent(control, question)),
      m_oWalk(control.features(), question.m_oCursor, identityOf), m_bDone(m_pComponent == nullptr) {
    if (m_pComponent != nullptr) {
        m_oSum.m_nHandle = m_pComponent->m_oHeader.m_nHandle;
        m_oSum.m_nProcessId = m_pComponent->m_nProcessId;
        m_oSum.m_nGone = isGone(*m_pComponent);
        m_oSum.m_nMonitors = m_pComponent->m_bMonitor;
    }
}

bool CHoldingsWalk::next(CStatusHeld& held) {
    while (!m_bDone && m_nVisits < nMaxVisits) {
        m_pEntry = m_oWalk.next();
        m_bDone = m_pEntry == nullptr;
        if (m_pEntry != nullptr && judge(*m_pEntry, held)) {
            return true;
        }
        if (m_pEntry != nullptr) {
            told();
        }
    }
    return false;
}

// True: the pair is in force for the component, and meant.
bool CHoldingsWalk::judge(const CFeatureEntry& entry, CStatusHeld& held) {
    m_nVisits += 1 + (entry.m_vCompNames.size() + entry.m_vCompStatus.size()) / 4;
    if ((m_rQuestion.m_nFilter & sfCode) != 0 && entry.m_nCode != m_rQuestion.m_nCode) {
        return false;
    }
    const CCompStatus* record = entry.findCompByPtr(m_pComponent);
    const bool isInForce =
        entry.m_eStatus != CFeatureEntry::fsDeleted && entry.findCompName(m_pComponent->m_szName) != 0;
    const bool isUnderWay =
        record == nullptr
            ? isInForce
            : isWaiting(record->m_eStatus) || (m_pComponent->m_bMonitor != 0 && isPending(entry, *record));
    m_oSum.m_nUnderWay = m_oSum.m_nUnderWay + (isUnderWay ? 1 : 0);
    if (!isInForce) {
        return false;
    }
    const bool isModified = entry.m_eStatus == CFeatureEntry::fsModify && entry.m_nNewData != 0;
    const SFeature pair{entry.m_nCode, isModified ? entry.m_nNewData : entry.m_nData};
    const EHeld kind = heldOf(record);
    m_oSum.m_nInForce = m_oSum.m_nInForce + 1;
    setNumber(m_oSum.m_aDigest, number(m_oSum.m_aDigest) + digestOf(pair, kind));
    held.m_nCode = pair.m_nCode;
    held.m_nData = pair.m_nData;
    held.m_nHeld = kind;
    held.m_nUnderWay = isUnderWay;
    return true;
}
