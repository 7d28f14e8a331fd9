#include "features/CFeatureEntry.h"

#include "features/CComponent.h"
#include "features/counters.h"
#include "features/delivery.h"
#include "features/description.h"
#include "server/log/log.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>

CFeatureEntry::CFeatureEntry(CMediator* mediator) : CParty(mediator) {
    // The first entry fixes the path of the description file; all take their names from there.
    static const bool bRunOnce = descriptionPath() != nullptr;
    static_cast<void>(bRunOnce);
}

CFeatureEntry::~CFeatureEntry() {
    clear();
}

void CFeatureEntry::addCompName(const char* name) {
    m_vCompNames.push_back(name);
}

// A plain walk. The audit, which asks this of every pair, has an index instead (CPassIndex).
int CFeatureEntry::findCompName(const char* name) const {
    if (name == nullptr) {
        return 0;
    }
    const auto isName = [name](const char* own) { return own != nullptr && std::strcmp(own, name) == 0; };
    return std::any_of(std::begin(aAlwaysConcerned), std::end(aAlwaysConcerned), isName) ||
           std::any_of(m_vCompNames.begin(), m_vCompNames.end(), isName);
}

CCompStatus* CFeatureEntry::findCompByPtr(const CComponent* comp) const {
    if (comp == nullptr) {
        return nullptr;
    }
    const auto found =
        std::find_if(m_vCompStatus.begin(), m_vCompStatus.end(), [comp](const CCompStatus* record) {
            return record != nullptr && record->m_pComponent == comp;
        });
    return found != m_vCompStatus.end() ? *found : nullptr;
}

// opAdd comes before the look-up of the record: it is the one event that may create one. Everything else
// about a component without a record is refused with a line of its own.
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
        return deliver(dvNotify, *this, *record) != ocRefused;
    case opReply:
        return reply(*record);
    case opRemove:
        return remove(*record);
    case opConfirm:
        return deliver(dvConfirm, *this, *record) != ocRefused;
    case opAdd:
        break;
    }
    return 0;
}

// Logs why an event was refused, and returns 0: the component has no record here, or the number is no event.
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

// Refuses without a line a component that is not concerned: each set-up asks this of every feature.
int CFeatureEntry::add(CComponent* comp) {
    if (findCompName(comp->m_szName) == 0) {
        return 0;
    }
    CCompStatus* record = takeSlot(comp);
    if (record == nullptr) {
        logEvent(svError, 31124, "failed to new obj");
        return 0;
    }
    deliver(dvTakeIn, *this, *record);
    return 1;
}

// The slot of a component that is taken in: the last one, in the order of taking in. A component that has a
// record keeps it, and keeps its old slot too, which is the one that walks come to first. Slots between the
// two are erased: however often a component comes back, it never has more than two.
//
// Null where memory is exhausted; nothing has changed then. The new record is released only once a slot
// points at it, so a failing push_back() frees it.
CCompStatus* CFeatureEntry::takeSlot(CComponent* comp) try {
    CCompStatus* record = findCompByPtr(comp);
    if (record == nullptr) {
        auto made = std::make_unique<CCompStatus>(CCompStatus{comp});
        m_vCompStatus.push_back(made.get());
        return made.release();
    }
    m_vCompStatus.push_back(record);
    const auto last = m_vCompStatus.end() - 1;
    const auto first = std::find(m_vCompStatus.begin(), last, record);
    m_vCompStatus.erase(std::remove(first + 1, last, record), last);
    return record;
} catch (const std::bad_alloc&) {
    return nullptr;
}

// The last answer to a modification ends it at once, without waiting for the timeout pass: the new data is in
// force before the answer to the reply goes out. Components that do not monitor are not waited for.
int CFeatureEntry::reply(CCompStatus& record) {
    const bool isAccepted = record.m_pComponent->m_nReplyStatus == nReplyOk;
    if (deliver(isAccepted ? dvAccept : dvRefuse, *this, record) == ocRefused) {
        return 0;
    }
    if (isModificationAnswered(record.m_eStatus) && isReplied(fsModify) != 0) {
        endModification();
    }
    return 1;
}

// The line is written when nothing is pending any more, so its number is always 0.
void CFeatureEntry::endModification() {
    commitNewData();
    m_eStatus = fsActive;
    logEvent(svInfo, 31131, "feature (%d): moded FeatureData update (%d)", m_nCode, m_nNewData);
}

// A record may stand in two slots here, and passes on once.
void CFeatureEntry::passOn(CFeatureEntry& heir) {
    const auto isHeirs = [&heir](const CCompStatus* record) {
        const auto& names = heir.m_vCompNames;
        return std::find(names.begin(), names.end(), std::string_view(record->m_pComponent->m_szName)) !=
               names.end();
    };
    for (CCompStatus* record : m_vCompStatus) {
        if (isHeirs(record) && heir.findCompByPtr(record->m_pComponent) == nullptr) {
            heir.m_vCompStatus.push_back(record);
        }
    }
    std::erase_if(m_vCompStatus, isHeirs);
    heir.setCompStatus(CCompStatus::csIdle);
}

// Without pending data the data in force stays: 0 stands for "none", so there is no modification to 0.
void CFeatureEntry::commitNewData() {
    if (m_nNewData != 0) {
        m_nData = m_nNewData;
        m_nNewData = 0;
    }
}

// All slots of the record go, not only the first: a second one would point at freed memory.
int CFeatureEntry::remove(CCompStatus& record) {
    deliver(dvRemove, *this, record);
    ++nTableMoves;
    std::erase(m_vCompStatus, &record);
    delete &record;
    return 1;
}

// A component that does not monitor is not told of changes, so waiting for it could keep a feature from ever
// being settled.
int CFeatureEntry::isReplied(EFStatus status) const {
    return std::all_of(m_vCompStatus.begin(), m_vCompStatus.end(), [status](const CCompStatus* record) {
        if (record == nullptr || record->m_pComponent == nullptr || record->m_pComponent->m_bMonitor != 1) {
            return true;
        }
        return status == fsModify ? isModificationAnswered(record->m_eStatus) : isAnswered(record->m_eStatus);
    });
}

// A record that stands in two slots is set twice, which makes no difference to it.
int CFeatureEntry::setCompStatus(CCompStatus::ECStatus status) {
    int changed = 0;
    for (CCompStatus* record : m_vCompStatus) {
        if (record != nullptr) {
            resetDelivery(*this, *record, status);
            changed = 1;
        }
    }
    return changed;
}

CCompStatus* CFeatureEntry::findFirstTimeout() {
    return findTimeout(0);
}

CCompStatus* CFeatureEntry::findNextTimeout() {
    return findTimeout(static_cast<size_t>(m_nTimeoutIndex) + 1);
}

// A record that stands in two slots is returned once, since the caller's dvOverdue takes it out of its
// waiting state.
CCompStatus* CFeatureEntry::findTimeout(size_t from) {
    for (size_t i = from; i < m_vCompStatus.size(); ++i) {
        CCompStatus* record = m_vCompStatus[i];
        if (record != nullptr && isOverdue(*record)) {
            m_nTimeoutIndex = static_cast<int32_t>(i);
            return record;
        }
    }
    m_nTimeoutIndex = 0;
    return nullptr;
}

// Name, component names and pending data stay this entry's own. Without records nobody is waited for until an
// audit takes the components in again.
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

// A record may stand in two slots, but must be deleted once; sorting brings the two together. The order of
// the slots does not matter any more. dvForget must not look at the component, which may be gone: the control
// deletes its components first.
void CFeatureEntry::deleteRecords() {
    std::sort(m_vCompStatus.begin(), m_vCompStatus.end());
    m_vCompStatus.erase(std::unique(m_vCompStatus.begin(), m_vCompStatus.end()), m_vCompStatus.end());
    for (CCompStatus* record : m_vCompStatus) {
        if (record != nullptr) {
            deliver(dvForget, *this, *record);
        }
        delete record;
    }
    m_vCompStatus.clear();
}
