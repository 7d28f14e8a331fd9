// The timeout pass: what all have answered is settled, what is withdrawn everywhere is removed, what is
// overdue is sent again.
#include "features/CQelControl.h"

#include "features/CComponent.h"
#include "features/CFeatureEntry.h"
#include "features/CPassIndex.h"
#include "features/delivery.h"
#include "server/log/log.h"

#include <algorithm>
#include <new>
#include <optional>
#include <utility>
#include <vector>

namespace {

constexpr uint32_t nPassEvent = 31115;

void sendOverdueAgain(CFeatureEntry& entry) {
    for (CCompStatus* record = entry.findFirstTimeout(); record != nullptr && record->m_pComponent != nullptr;
         record = entry.findNextTimeout()) {
        record->m_pComponent->tell(dvOverdue, entry, *record);
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

// The entries that a pass removes. They leave the tables together when the pass is over, so that a pass that
// removes many costs no more than one that removes one; the log tells of each in its turn.
class CRemovals {
public:
    CRemovals(CArray<CFeatureEntry*>& features, const CArray<CComponent*>& components)
        : m_aFeatures(features), m_aComponents(components) {}

    // False where there is no memory to remember it: it is to be removed at once.
    bool defer(size_t feature) try {
        if (!m_oIndex) {
            m_vLeaving.resize(m_aFeatures.m_vItems.size());
            m_oIndex.emplace(m_aFeatures, m_aComponents);
        }
        if (!m_oIndex->isBuilt()) {
            return false;
        }
        m_vLeaving[feature] = true;
        for (size_t i = 0; i < m_aComponents.m_vItems.size(); ++i) {
            const CComponent* comp = m_aComponents.m_vItems[i];
            if (comp != nullptr && m_oIndex->holds(i, feature)) {
                comp->logDeleted(*m_aFeatures.m_vItems[feature]);
            }
        }
        return true;
    } catch (const std::bad_alloc&) {
        return false;
    }

    void carryOut() {
        if (m_vLeaving.empty() || !m_oIndex->isBuilt()) {
            return;
        }
        const auto isLeaving = [this](const CFeatureEntry* entry) {
            const size_t position = m_oIndex->positionOf(entry);
            return position != SIZE_MAX && m_vLeaving[position];
        };
        for (CComponent* comp : m_aComponents.m_vItems) {
            if (comp != nullptr) {
                std::erase_if(comp->m_aFeatures.m_vItems, isLeaving);
            }
        }
        auto& entries = m_aFeatures.m_vItems;
        size_t kept = 0;
        for (size_t i = 0; i < entries.size(); ++i) {
            if (m_vLeaving[i]) {
                delete entries[i];
            } else {
                entries[kept++] = entries[i];
            }
        }
        entries.resize(kept);
    }

private:
    CArray<CFeatureEntry*>& m_aFeatures;
    const CArray<CComponent*>& m_aComponents;
    std::optional<CPassIndex> m_oIndex; // made with the first removal
    std::vector<bool> m_vLeaving;       // by position in the table
};

} // namespace

void CQelControl::removeNow(CFeatureEntry* entry) {
    for (CComponent* comp : m_aComponents.m_vItems) {
        if (comp != nullptr) {
            comp->delFeatureEntry(entry);
        }
    }
    delFeature(entry);
    delete entry;
}

// The entry that moves into the place of a removed one is looked at for overdue replies only: its turn to be
// settled comes with the next pass.
void CQelControl::timeout() {
    CRemovals removals(m_aFeatures, m_aComponents);
    bool hasMovedUp = false;
    for (size_t i = 0; i < m_aFeatures.m_vItems.size(); ++i) {
        CFeatureEntry* entry = m_aFeatures.m_vItems[i];
        const bool isSettling = !std::exchange(hasMovedUp, false);
        if (entry == nullptr) {
            continue;
        }
        if (!isSettling || !settle(*entry)) {
            sendOverdueAgain(*entry);
            continue;
        }
        hasMovedUp = true;
        if (!removals.defer(i)) {
            removeNow(entry);
            --i; // where the next one stands now
        }
    }
    removals.carryOut();
}
