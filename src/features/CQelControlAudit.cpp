// The audits: telling components what they have not been told yet.
#include "features/CQelControl.h"

#include "features/CComponent.h"
#include "features/CFeatureEntry.h"
#include "features/CPassIndex.h"
#include "features/delivery.h"
#include "messaging/wire/wire.h"
#include "server/log/log.h"

namespace {

// All have answered, so the timeout pass will remove the feature; auditing it could only take components into
// it again. The argument fsExisting asks for the answers of all phases.
bool isWithdrawnEverywhere(const CFeatureEntry& entry) {
    return entry.m_eStatus == CFeatureEntry::fsDeleted && entry.isReplied(CFeatureEntry::fsExisting) != 0;
}

// What differs in the log between the audit of the table and that of one component.
struct SRepairEvents {
    uint32_t m_nNotInFeature;
    const char* m_szOpen; // what stands around the component's name
    const char* m_szClose;
    uint32_t m_nNotInComponent;
};

constexpr SRepairEvents oAuditEvents{31107, "", "", 31108};
constexpr SRepairEvents oAuditCompEvents{31112, "(", ")", 31113};

// A feature and a component that it concerns must know each other: the feature by a record, the component by
// its array. The usual case of one that does not is a feature that is newer than the component: this is how
// new features go out. Others are a name added to a feature, a component renamed, and memory that ran out.
// What is missing is supplied and the component is notified, whether or not it monitors. True if so.
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

// Every feature is asked and takes the component in if that is concerned, withdrawn ones included: there the
// record begins as disabled, so nothing is sent and nobody waits for it.
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
            logEvent(svError, 31124, "failed to new obj"); // repair() finds the feature missing there
        }
    }
    return result;
}

// True if any component was told. repair() returns true where the record is null, so tell() gets a real one.
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

// Ends at the first feature that anybody had to be told of: a long new list reaches the components over many
// passes and does not burst over all of them at once. Components that answer need not wait for that, since
// each write reply fetches the next notification (CComponent::auditFeature()).
//
// The index is built anew for each pass. What it costs is linear too, and an index that lived on would have
// to follow every change of names, arrays and tables.
void CQelControl::audit() {
    const CPassIndex index(m_aFeatures, m_aComponents);
    for (size_t i = 0; i < m_aFeatures.m_vItems.size(); ++i) {
        const CFeatureEntry* entry = m_aFeatures.m_vItems[i];
        if (entry != nullptr && !isWithdrawnEverywhere(*entry) && auditFeature(i, index)) {
            return;
        }
    }
}

// Searches instead of building an index: it concerns one component, and ends at the first message. Withdrawn
// features are skipped, so this audit never sends a disable.
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
