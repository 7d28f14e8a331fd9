#include "server/status/holdings.h"

#include "features/CComponent.h"
#include "features/CFeatureEntry.h"
#include "features/CQelControl.h"
#include "features/delivery.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>

namespace {

// Entries that a page looks at. Where an entry has many names or records, each four of them count as one
// more.
constexpr size_t nMaxVisits = 16384;

constexpr uint32_t nLeavingMark = 1U << 31; // of a cursor's first word: the entry there is a leaving one

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
    : m_rQuestion(question), m_rControl(control), m_pComponent(findComponent(control, question)) {
    if (m_pComponent != nullptr) {
        m_oSum.m_nHandle = m_pComponent->m_oHeader.m_nHandle;
        m_oSum.m_nProcessId = m_pComponent->m_nProcessId;
        m_oSum.m_nGone = isGone(*m_pComponent);
        m_oSum.m_nMonitors = m_pComponent->m_bMonitor;
    }
    const uint32_t position = question.m_oCursor.m_aWords[0];
    const SFeature pair{question.m_oCursor.m_aWords[1], question.m_oCursor.m_aWords[2]};
    const auto& entries = control.features().m_vItems;
    const auto isAt = [&](size_t at) {
        const CFeatureEntry* entry = entries[at];
        return entry != nullptr && entry->id() == pair &&
               entry->isLeaving() == ((position & nLeavingMark) != 0);
    };
    m_nNext = std::min<size_t>(position & ~nLeavingMark, entries.size());
    while (m_nNext > 0 && !isAt(m_nNext - 1)) {
        --m_nNext;
    }
    m_bLost = m_nNext == 0 && position != 0;
}

bool CHoldingsWalk::next(CStatusHeld& held) {
    const auto& entries = m_rControl.features().m_vItems;
    while (m_pComponent != nullptr && m_nNext < entries.size() && m_nVisits < nMaxVisits) {
        const CFeatureEntry* entry = entries[m_nNext++];
        if (entry != nullptr && judge(*entry, held)) {
            return true;
        }
    }
    return false;
}

// Only where a page is filled with pairs, whose sum nobody asks for.
void CHoldingsWalk::untell() {
    --m_nNext;
}

bool CHoldingsWalk::hasMore() const {
    return m_pComponent != nullptr && m_nNext < m_rControl.features().m_vItems.size();
}

// Before any entry, or behind a null slot, the asker's own cursor would do as well; tables have no null slots
// but within a merge.
CStatusCursor CHoldingsWalk::cursor() const {
    const CFeatureEntry* entry = m_nNext > 0 ? m_rControl.features().m_vItems[m_nNext - 1] : nullptr;
    if (entry == nullptr) {
        return m_rQuestion.m_oCursor;
    }
    const uint32_t mark = entry->isLeaving() ? nLeavingMark : 0;
    return {{static_cast<uint32_t>(m_nNext) | mark, entry->m_nCode, entry->m_nData, 0}};
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
