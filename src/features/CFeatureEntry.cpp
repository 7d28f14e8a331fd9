#include "features/CFeatureEntry.h"

#include "base/CSlotPool.h"
#include "base/clock.h"
#include "base/prefetch.h"
#include "base/sanitizer.h"
#include "features/CComponent.h"
#include "features/description.h"
#include "features/phases.h"
#include "server/log/log.h"

#include <algorithm>
#include <cstring>
#include <span>

using enum CCompStatus::ECStatus;

namespace {

constinit CSlotPool oEntryPool(sizeof(CFeatureEntry));

// AddressSanitizer sees the use of a deleted entry where the memory is the heap's.
constexpr bool isPooled(size_t size) {
    return size == sizeof(CFeatureEntry) && !bAddressSanitizer;
}

} // namespace

void* CFeatureEntry::operator new(size_t size) {
    return isPooled(size) ? oEntryPool.take() : ::operator new(size);
}

void CFeatureEntry::operator delete(void* memory, size_t size) {
    if (isPooled(size)) {
        oEntryPool.give(memory);
    } else {
        ::operator delete(memory);
    }
}

CFeatureEntry::CFeatureEntry(CMediator* mediator) : CParty(mediator) {
    static const bool bRunOnce = descriptionPath() != nullptr; // the environment is read before it can change
    static_cast<void>(bRunOnce);
}

CFeatureEntry::~CFeatureEntry() {
    clear();
}

void CFeatureEntry::addCompName(const char* name) {
    m_vCompNames.push_back(name);
}

bool CFeatureEntry::isConcernedByAll(std::string_view name) {
    return name == "ALL" || name == "Anchor";
}

int CFeatureEntry::findCompName(const char* name) const {
    if (name == nullptr) {
        return 0;
    }
    if (isConcernedByAll(name)) {
        return 1;
    }
    return std::any_of(m_vCompNames.begin(), m_vCompNames.end(),
                       [name](const char* own) { return own != nullptr && std::strcmp(own, name) == 0; });
}

// A component's walk through its features finds it in the same slot of nearly every one, wherever that is:
// the slot of the latest find is tried first, in the pool and in the sequence.
CCompStatus* CFeatureEntry::findCompByPtr(const CComponent* comp) const {
    static constinit size_t nLatest = 0;
    if (comp == nullptr) {
        return nullptr;
    }
    if (CCompStatus* record = m_oRecords.recordAt(nLatest, comp)) {
        return record;
    }
    const auto isRecord = [comp](const CCompStatus* record) {
        return record != nullptr && record->m_pComponent == comp;
    };
    if (nLatest < m_vCompStatus.size() && isRecord(m_vCompStatus[nLatest])) {
        return m_vCompStatus[nLatest];
    }
    const auto found = std::find_if(m_vCompStatus.begin(), m_vCompStatus.end(), isRecord);
    if (found == m_vCompStatus.end()) {
        return nullptr;
    }
    nLatest = static_cast<size_t>(found - m_vCompStatus.begin());
    return *found;
}

int CFeatureEntry::addComponent(EOperator op, CComponent* comp) {
    if (comp == nullptr) {
        return 0;
    }
    if (op == opAdd) {
        return add(comp);
    }
    CCompStatus* record = findCompByPtr(comp);
    if (record == nullptr || op > opConfirm) {
        return refuse(op, *comp);
    }
    switch (op) {
    case opNotify:
        return notify(*record);
    case opReply:
        return reply(*record);
    case opRemove:
        return remove(*record);
    case opConfirm:
        return confirm(*record);
    case opAdd:
        break;
    }
    return 0;
}

// The line that tells why an event was not taken: there is no record to apply it to, or it is no event.
int CFeatureEntry::refuse(EOperator op, const CComponent& comp) const {
    const char* name = comp.m_szName;
    switch (op) {
    case opNotify:
        logEvent(svInfo, 31128, "failed to notify comps");
        return 0;
    case opReply:
        logEvent(svInfo, 31134, "feature (%d): failed to find the comp (%s)", m_nCode, name);
        return 0;
    case opRemove:
        logEvent(svInfo, 31136, "failed to remove compstatus.");
        return 0;
    case opConfirm:
        logEvent(svInfo, 31139, "feature (%d): failed to find comp (%s) %d", m_nCode, name, 0);
        return 0;
    case opAdd:
        break;
    }
    logEvent(svInfo, 31140, "feature (%d): unknow op to comp (%s) %d", m_nCode, name, 0);
    return 0;
}

// A component that has a record is taken in anew with the record that it has, which then stands in two slots:
// the one that it had, and the last.
int CFeatureEntry::add(CComponent* comp) {
    if (findCompName(comp->m_szName) == 0) {
        return 0;
    }
    CCompStatus* record = findCompByPtr(comp);
    if (record != nullptr) {
        auto first = std::find(m_vCompStatus.begin(), m_vCompStatus.end(), record);
        m_vCompStatus.erase(std::remove(first + 1, m_vCompStatus.end(), record), m_vCompStatus.end());
    } else {
        record = makeRecord();
    }
    if (record == nullptr) {
        logEvent(svError, 31124, "failed to new obj");
        return 0;
    }
    logEvent(svInfo, 31125, "adding new compstatus %s %d at feature %d %d", comp->m_szName, record->m_eStatus,
             m_nCode, m_nData);
    m_vCompStatus.push_back(record);
    *record = CCompStatus{comp, nowSeconds(), m_eStatus == fsDeleted ? csDisabled : csIdle, 0, 0, 0};
    return 1;
}

// A feature mostly comes to hold one record for each of its names, in two slots after the component's
// restart. Slots that had to grow then would lie elsewhere, and what comes into their place between the
// records.
CCompStatus* CFeatureEntry::makeRecord() {
    if (m_vCompStatus.capacity() == 0) {
        m_vCompStatus.reserve(2 * m_vCompNames.size());
    }
    return m_oRecords.make(m_vCompNames.size());
}

int CFeatureEntry::notify(CCompStatus& record) {
    const SState* state = stateOf(record.m_eStatus);
    if (state != nullptr && state->isSettled()) {
        return 0;
    }
    const SPhase& phase = state != nullptr ? state->phase() : enablePhase();
    const char* name = record.m_pComponent->m_szName;
    uint8_t& tries = record.*phase.m_pTries;
    if (++tries > nMaxTries) {
        tries = 0;
        record.m_eStatus = phase.m_eFailure;
        record.m_tStamp = nowSeconds();
        logEvent(svInfo, 31126, "feature: %s comp %s %d at feature %d %d", phase.m_szGivenUp, name,
                 record.m_eStatus, m_nCode, m_nData);
        return 0;
    }
    if (state == nullptr) {
        logEvent(svInfo, 31126, "feature: change state %s %d at feature %d %d", name, record.m_eStatus,
                 m_nCode, m_nData);
    }
    record.m_eStatus = phase.m_eWaiting;
    logEvent(svInfo, 31126, "feature: check comp %s %d at feature %d %d", name, record.m_eStatus, m_nCode,
             m_nData);
    record.m_tStamp = nowSeconds();
    return 1;
}

int CFeatureEntry::reply(CCompStatus& record) {
    record.m_tStamp = nowSeconds();
    const char* name = record.m_pComponent->m_szName;
    const SState* state = stateOf(record.m_eStatus);
    if (state == nullptr || !state->isWaiting()) {
        logEvent(svInfo, 31133, "feature (%d): comp (%s) in wrong state %d", m_nCode, name, record.m_eStatus);
        return 0;
    }
    const SPhase& phase = state->phase();
    const bool ok = record.m_pComponent->m_nReplyStatus == nReplyOk;
    record.*phase.m_pTries = 0;
    record.m_eStatus = ok ? phase.m_eSuccess : phase.m_eFailure;
    logEvent(svInfo, ok ? phase.m_nOkEvent : phase.m_nFailedEvent, "feature (%d): got reply %s comp (%s) %d",
             m_nCode, ok ? phase.m_szOk : phase.m_szFailed, name, record.m_eStatus);
    if (phase.m_eWaiting == csModifying && isReplied(fsModify) != 0) {
        endModification();
    }
    return 1;
}

// The line tells the pending data after it has taken effect, so its number is always 0.
void CFeatureEntry::endModification() {
    commitNewData();
    m_eStatus = fsActive;
    logEvent(svInfo, 31131, "feature (%d): moded FeatureData update (%d)", m_nCode, m_nNewData);
}

void CFeatureEntry::commitNewData() {
    if (m_nNewData != 0) {
        m_nData = m_nNewData;
        m_nNewData = 0;
    }
}

int CFeatureEntry::remove(CCompStatus& record) {
    logEvent(svInfo, 31135, "feature: remove comp %s (%d)", record.m_pComponent->m_szName, record.m_eStatus);
    std::erase(m_vCompStatus, &record);
    m_oRecords.drop(&record);
    return 1;
}

int CFeatureEntry::confirm(CCompStatus& record) {
    const char* name = record.m_pComponent->m_szName;
    if (record.m_eStatus != csEnabled) {
        logEvent(svInfo, 31138, "feature (%d): wrong state comp (%s) %d", m_nCode, name, record.m_eStatus);
        return 0;
    }
    logEvent(svInfo, 31137, "feature (%d): replied comp (%s) %d", m_nCode, name, record.m_eStatus);
    record.m_tStamp = nowSeconds();
    return 1;
}

int CFeatureEntry::isReplied(EFStatus status) const {
    return std::all_of(m_vCompStatus.begin(), m_vCompStatus.end(), [status](const CCompStatus* record) {
        if (record == nullptr || record->m_pComponent == nullptr || record->m_pComponent->m_bMonitor != 1) {
            return true;
        }
        const SState* state = stateOf(record->m_eStatus);
        const bool answered = state != nullptr && state->isAnswered();
        return answered && (status != fsModify || state->phase().m_eWaiting == csModifying);
    });
}

int CFeatureEntry::setCompStatus(CCompStatus::ECStatus status) {
    int changed = 0;
    for (CCompStatus* record : m_vCompStatus) {
        if (record != nullptr) {
            record->m_eStatus = status;
            changed = 1;
        }
    }
    return changed;
}

void CFeatureEntry::prefetchRecords() const {
    const auto slots = std::as_bytes(std::span(m_vCompStatus));
    prefetch(slots.data(), slots.size());
    m_oRecords.prefetchAll();
}

CCompStatus* CFeatureEntry::findFirstTimeout() {
    return findTimeout(0);
}

CCompStatus* CFeatureEntry::findNextTimeout() {
    return findTimeout(static_cast<size_t>(m_nTimeoutIndex) + 1);
}

CCompStatus* CFeatureEntry::findTimeout(size_t from) {
    for (size_t i = from; i < m_vCompStatus.size(); ++i) {
        CCompStatus* record = m_vCompStatus[i];
        const SState* state = record != nullptr ? stateOf(record->m_eStatus) : nullptr;
        if (state != nullptr && state->isWaiting() && nowSeconds() > record->m_tStamp + nReplyTimeout) {
            m_nTimeoutIndex = static_cast<int32_t>(i);
            return record;
        }
    }
    m_nTimeoutIndex = 0;
    return nullptr;
}

CCompStatus::ECStatus CFeatureEntry::overdueStatus(CCompStatus::ECStatus status) {
    const SState* state = stateOf(status);
    return state != nullptr && state->isWaiting() ? state->phase().m_eOverdue : status;
}

void CFeatureEntry::modifyByPtr(const CFeatureEntry* other) {
    if (other == nullptr) {
        logEvent(svInfo, 31144, "modifyByPtr NULL pointer");
        return;
    }
    m_nCode = other->m_nCode;
    m_nData = other->m_nData;
    deleteRecords();
    m_nTimeoutIndex = 0;
    m_eStatus = fsModify;
}

void CFeatureEntry::clear() {
    deleteRecords();
    m_vCompNames.clear();
}

// A record may stand in two slots, and is deleted once.
void CFeatureEntry::deleteRecords() {
    std::sort(m_vCompStatus.begin(), m_vCompStatus.end());
    m_vCompStatus.erase(std::unique(m_vCompStatus.begin(), m_vCompStatus.end()), m_vCompStatus.end());
    for (CCompStatus* record : m_vCompStatus) {
        m_oRecords.drop(record);
    }
    m_vCompStatus.clear();
}
