#include "features/CFeatureEntry.h"

#include "features/CComponent.h"
#include "features/delivery.h"
#include "features/description.h"
#include "server/log/log.h"

#include <algorithm>
#include <cstring>
#include <iterator>
#include <memory>
#include <new>

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

// A component that has a record is taken in anew with the record that it has, which then stands in two slots:
// the one that it had, and the last. Null where memory is exhausted.
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

// The last answer to a modification ends it.
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
    deliver(dvRemove, *this, record);
    std::erase(m_vCompStatus, &record);
    delete &record;
    return 1;
}

int CFeatureEntry::isReplied(EFStatus status) const {
    return std::all_of(m_vCompStatus.begin(), m_vCompStatus.end(), [status](const CCompStatus* record) {
        if (record == nullptr || record->m_pComponent == nullptr || record->m_pComponent->m_bMonitor != 1) {
            return true;
        }
        return status == fsModify ? isModificationAnswered(record->m_eStatus) : isAnswered(record->m_eStatus);
    });
}

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
        if (record != nullptr) {
            deliver(dvForget, *this, *record);
        }
        delete record;
    }
    m_vCompStatus.clear();
}
