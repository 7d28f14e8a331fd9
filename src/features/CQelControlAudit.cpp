// The audits: telling components what they have not been told yet.
#include "features/CQelControl.h"

#include "features/CComponent.h"
#include "features/CFeatureEntry.h"
#include "features/CPassIndex.h"
#include "features/delivery.h"
#include "messaging/wire/wire.h"
#include "server/log/log.h"

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
        entry.addComponent(CFeatureEntry::opNotify, &comp);
        logEvent(svInfo, events.m_nNotInComponent, "audit feature not in comp list with (%d, %d)",
                 entry.m_nCode, entry.m_nData);
    }
    comp.sendMessage(nQelServerNotifyMsgType, entry.m_nCode, entry.m_nData);
    if (!isHeld) {
        comp.addFeatureEntry(&entry);
    }
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
        if (result != 0 && taken != nullptr && !taken->add(entry)) {
            logEvent(svError, 31124, "failed to new obj"); // the audit finds the feature missing there
        }
    }
    return result;
}

// True if anything was sent.
bool CQelControl::auditFeature(size_t feature, const CPassIndex& index) {
    CFeatureEntry& entry = *m_aFeatures.m_vItems[feature];
    bool isSent = false;
    for (size_t i = 0; i < m_aComponents.m_vItems.size(); ++i) {
        CComponent* comp = m_aComponents.m_vItems[i];
        if (comp == nullptr || !index.concerns(feature, i)) {
            continue;
        }
        CCompStatus* record = entry.findCompByPtr(comp);
        if (repair(entry, *comp, record, index.holds(i, feature), oAuditEvents) ||
            (comp->m_bMonitor == 1 && comp->tell(dvAudit, entry, *record))) {
            isSent = true;
        }
    }
    return isSent;
}

// One feature a pass: a long list reaches the components spread over many.
void CQelControl::audit() {
    const CPassIndex index(m_aFeatures, m_aComponents);
    for (size_t i = 0; i < m_aFeatures.m_vItems.size(); ++i) {
        const CFeatureEntry* entry = m_aFeatures.m_vItems[i];
        if (entry != nullptr && !isWithdrawnEverywhere(*entry) && auditFeature(i, index)) {
            return;
        }
    }
}

int CQelControl::auditComp(CComponent* comp) {
    for (CFeatureEntry* entry : m_aFeatures.m_vItems) {
        if (entry == nullptr || entry->m_eStatus == CFeatureEntry::fsDeleted ||
            entry->findCompName(comp->m_szName) == 0) {
            continue;
        }
        CCompStatus* record = entry->findCompByPtr(comp);
        const bool isHeld = comp->findFeatureEntry(entry) != 0;
        if (repair(*entry, *comp, record, isHeld, oAuditCompEvents) ||
            (comp->m_bMonitor == 1 && comp->tell(dvAuditOne, *entry, *record))) {
            return 1;
        }
    }
    return 0;
}
