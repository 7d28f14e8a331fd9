// The timeout pass: what all have answered is settled, what is withdrawn everywhere is removed, what is
// overdue is sent again.
#include "features/CQelControl.h"

#include "features/CComponent.h"
#include "features/CFeatureEntry.h"
#include "features/walks.h"
#include "messaging/wire/wire.h"
#include "server/log/log.h"

#include <algorithm>
#include <unordered_set>

namespace {

constexpr uint32_t nPassEvent = 31115;

void sendOverdueAgain(CFeatureEntry& entry) {
    for (CCompStatus* record = entry.findFirstTimeout(); record != nullptr && record->m_pComponent != nullptr;
         record = entry.findNextTimeout()) {
        CComponent& comp = *record->m_pComponent;
        logEvent(svInfo, nPassEvent, "timeout feature %d for comp %s at state %d", entry.m_nCode,
                 comp.m_szName, record->m_eStatus);
        record->m_eStatus = CFeatureEntry::overdueStatus(record->m_eStatus);
        comp.sendMessage(nQelServerTimeoutMsgType, entry.m_nCode, entry.m_nData);
    }
}

// True if the entry is withdrawn and every component has confirmed it: it is to be removed.
bool settle(CFeatureEntry& entry) {
    if (entry.isReplied(CFeatureEntry::fsExisting) == 0) {
        return false;
    }
    switch (entry.m_eStatus) {
    case CFeatureEntry::fsModify:
        if (const int replied = entry.isReplied(CFeatureEntry::fsModify)) {
            entry.commitNewData();
            entry.m_eStatus = CFeatureEntry::fsActive;
            logEvent(svInfo, nPassEvent, "modify to active feature %d %d", entry.m_nCode, entry.m_nData);
        } else {
            logEvent(svInfo, nPassEvent, "wrong modify %d %d (%d)", entry.m_nCode, entry.m_nData, replied);
        }
        return false;
    case CFeatureEntry::fsNewAdd:
    case CFeatureEntry::fsExisting:
        entry.m_eStatus = CFeatureEntry::fsActive;
        logEvent(svInfo, nPassEvent, "newadd or existing to active feature %d %d", entry.m_nCode,
                 entry.m_nData);
        return false;
    case CFeatureEntry::fsDeleted:
        logEvent(svInfo, nPassEvent, "remove deleted feature %d %d", entry.m_nCode, entry.m_nData);
        return true;
    case CFeatureEntry::fsActive:
        return false;
    }
    return false;
}

// Looking through many records keeps the processor from looking ahead to those of the next entries, so it is
// told.
void fetchRecordsAhead(const CArray<CFeatureEntry*>& entries, size_t position) {
    constexpr size_t nAhead = 2;
    constexpr size_t nMany = 16;
    if (position + nAhead >= entries.m_vItems.size()) {
        return;
    }
    const CFeatureEntry* entry = entries.m_vItems[position + nAhead];
    if (entry != nullptr && entry->m_vCompStatus.size() >= nMany) {
        entry->prefetchRecords();
    }
}

// The entries that a pass removes. They leave the tables together when the pass is over, so that a pass that
// removes many costs no more than one that removes one; the log tells of each in its turn.
class CRemovals {
public:
    CRemovals(CArray<CFeatureEntry*>& features, const CArray<CComponent*>& components)
        : m_aFeatures(features), m_aComponents(components) {}

    void add(CFeatureEntry* entry) {
        if (m_oEntries.empty()) {
            m_vHoldings = holdingsOf(m_aComponents);
        }
        m_oEntries.insert(entry);
        for (size_t i = 0; i < m_vHoldings.size(); ++i) {
            if (m_vHoldings[i].find(entry) != nullptr) {
                m_aComponents.m_vItems[i]->logDeleted(*entry);
            }
        }
    }

    void carryOut() {
        if (m_oEntries.empty()) {
            return;
        }
        const auto isRemoved = [this](CFeatureEntry* entry) { return m_oEntries.count(entry) != 0; };
        for (CComponent* comp : m_aComponents.m_vItems) {
            if (comp != nullptr) {
                std::erase_if(comp->m_aFeatures.m_vItems, isRemoved);
            }
        }
        std::erase_if(m_aFeatures.m_vItems, isRemoved);
        for (CFeatureEntry* entry : m_oEntries) {
            delete entry;
        }
    }

private:
    CArray<CFeatureEntry*>& m_aFeatures;
    const CArray<CComponent*>& m_aComponents;
    std::unordered_set<CFeatureEntry*> m_oEntries;
    std::vector<CHoldingIndex> m_vHoldings;
};

} // namespace

std::vector<CHoldingIndex> holdingsOf(const CArray<CComponent*>& components) {
    static const std::vector<CFeatureEntry*> nothing;
    std::vector<CHoldingIndex> holdings;
    holdings.reserve(components.m_vItems.size());
    for (const CComponent* comp : components.m_vItems) {
        holdings.emplace_back(comp != nullptr ? comp->m_aFeatures.m_vItems : nothing);
    }
    return holdings;
}

// The entry that moves into the place of a removed one is looked at for overdue replies only: its turn to be
// settled comes with the next pass.
void CQelControl::timeout() {
    CRemovals removals(m_aFeatures, m_aComponents);
    bool hasMovedUp = false;
    for (size_t i = 0; i < m_aFeatures.m_vItems.size(); ++i) {
        CFeatureEntry* entry = m_aFeatures.m_vItems[i];
        fetchRecordsAhead(m_aFeatures, i);
        const bool isSettling = !hasMovedUp;
        hasMovedUp = false;
        if (entry == nullptr) {
            continue;
        }
        if (isSettling && settle(*entry)) {
            removals.add(entry);
            hasMovedUp = true;
        } else {
            sendOverdueAgain(*entry);
        }
    }
    removals.carryOut();
}
