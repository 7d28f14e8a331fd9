// The audits: telling components what they have not been told yet.
#include "features/CQelControl.h"

#include "features/CComponent.h"
#include "features/CConcernIndex.h"
#include "features/CFeatureEntry.h"
#include "features/walks.h"
#include "messaging/wire/wire.h"
#include "server/log/log.h"

using enum CCompStatus::ECStatus;

namespace {

bool isWithdrawnEverywhere(const CFeatureEntry& entry) {
    return entry.m_eStatus == CFeatureEntry::fsDeleted && entry.isReplied(CFeatureEntry::fsExisting) != 0;
}

// The events of the two repairs; the audit of one component has its own.
struct SRepairEvents {
    uint32_t m_nNotInFeature;
    const char* m_szOpen; // around the component's name
    const char* m_szClose;
    uint32_t m_nNotInComponent;
};

constexpr SRepairEvents oAuditEvents{31107, "", "", 31108};
constexpr SRepairEvents oAuditCompEvents{31112, "(", ")", 31113};

// Feature and component must know each other. True if they did not: the component has been told of the
// feature.
bool repair(CFeatureEntry& entry, CComponent& comp, CCompStatus* record, bool isHeld,
            const SRepairEvents& events) {
    if (record != nullptr && isHeld) {
        return false;
    }
    if (record == nullptr) {
        entry.addComponent(CFeatureEntry::opAdd, &comp);
        entry.addComponent(CFeatureEntry::opNotify, &comp);
        logEvent(svInfo, events.m_nNotInFeature, "audit comp %s%s%s not in feature list with (%d, %d)",
                 events.m_szOpen, comp.m_szName, events.m_szClose, entry.m_nCode, entry.m_nData);
    } else {
        entry.notify(*record);
        logEvent(svInfo, events.m_nNotInComponent, "audit feature not in comp list with (%d, %d)",
                 entry.m_nCode, entry.m_nData);
    }
    comp.sendMessage(nQelServerNotifyMsgType, entry.m_nCode, entry.m_nData);
    if (!isHeld) {
        comp.addFeatureEntry(&entry);
    }
    return true;
}

// As CComponent::pushChange(), but who owes the answer to a modification, or to what came before it, is told
// of the modification again as far as its sends go.
bool pushAgain(CFeatureEntry& entry, CComponent& comp, CCompStatus& record) {
    if (entry.m_eStatus != CFeatureEntry::fsModify) {
        return comp.pushChange(entry, record);
    }
    if (comp.pushModification(entry, record, "modfiying")) {
        return true;
    }
    if (entry.notify(record) == 0) {
        return false;
    }
    logEvent(svInfo, 31109, "audit modify feature (%d, %d) at comp %s", entry.m_nCode, entry.m_nData,
             comp.m_szName);
    comp.sendMessage(nQelServerModifyMsgType, entry.m_nCode, entry.m_nData);
    return true;
}

} // namespace

void CQelControl::notifyComponents(CString text) {
    for (CComponent* comp : m_aComponents.m_vItems) {
        if (comp != nullptr) {
            comp->recv(text);
        }
    }
}

int CQelControl::notifyFeatures(void* list, void* component) {
    auto* taken = static_cast<CArray<CFeatureEntry*>*>(list);
    auto* comp = static_cast<CComponent*>(component);
    int result = 0;
    for (CFeatureEntry* entry : m_aFeatures.m_vItems) {
        if (entry == nullptr) {
            continue;
        }
        result = entry->addComponent(CFeatureEntry::opAdd, comp);
        if (result != 0 && taken != nullptr) {
            taken->m_vItems.push_back(entry);
        }
    }
    return result;
}

void CQelControl::audit() {
    CConcernIndex concerns(m_aComponents);
    std::vector<CHoldingIndex> holdings = holdingsOf(m_aComponents);
    for (CFeatureEntry* entry : m_aFeatures.m_vItems) {
        if (entry == nullptr || isWithdrawnEverywhere(*entry)) {
            continue;
        }
        CRecordIndex records(entry->m_vCompStatus);
        bool isSent = false;
        for (const size_t position : concerns.of(*entry)) {
            CComponent& comp = *m_aComponents.m_vItems[position];
            CCompStatus* record = records.find(&comp);
            const bool isHeld = holdings[position].find(entry) != nullptr;
            if (repair(*entry, comp, record, isHeld, oAuditEvents) ||
                (comp.m_bMonitor == 1 && comp.pushChange(*entry, *record))) {
                isSent = true;
            }
        }
        if (isSent) {
            return; // one feature a pass: a long merge reaches the components spread over many
        }
    }
}

int CQelControl::auditComp(CComponent* comp) {
    CHoldingIndex holding(comp->m_aFeatures.m_vItems);
    for (CFeatureEntry* entry : m_aFeatures.m_vItems) {
        if (entry == nullptr || entry->m_eStatus == CFeatureEntry::fsDeleted ||
            entry->findCompName(comp->m_szName) == 0) {
            continue;
        }
        CCompStatus* record = entry->findCompByPtr(comp);
        const bool isHeld = holding.find(entry) != nullptr;
        if (repair(*entry, *comp, record, isHeld, oAuditCompEvents) ||
            (comp->m_bMonitor == 1 && pushAgain(*entry, *comp, *record))) {
            return 1;
        }
    }
    return 0;
}
