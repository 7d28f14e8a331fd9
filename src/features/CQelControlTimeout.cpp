// The timeout pass: features that all have answered are settled, withdrawn ones are removed once all have
// answered, and overdue replies are told to the components that owe them.
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

// Each overdue record moves on, to timed out or failed, so that nobody waits for it any longer, and the
// component gets message 4: it must not answer the feature any more. Enables are sent again by later audits.
void sendOverdueAgain(CFeatureEntry& entry) {
    for (CCompStatus* record = entry.findFirstTimeout(); record != nullptr && record->m_pComponent != nullptr;
         record = entry.findNextTimeout()) {
        record->m_pComponent->tell(dvOverdue, entry, *record);
    }
}

// Settles a feature that all monitoring components have answered, accepted or not: a component that refuses
// or hangs must not hold the feature up for the others. True if it is withdrawn and therefore to be removed.
//
// A modification needs answers to the modification itself. One is missing where a component joined meanwhile
// and let the notification of the old data go overdue: no audit pushes to it in state 4, so the feature stays
// as it is, with a line at every pass, until a new list, a fetch of the feature or the component's return
// ends that.
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

// The entries that a pass removes. They leave the table and the components' arrays together when the pass is
// over, since erasing them one by one would move everything behind each. The log tells of each in its turn
// nevertheless, as if it had gone at once.
//
// Without memory for the index, entries are removed at once instead. Once the index is built nothing in here
// can fail, so no entry goes at once after another was deferred, and the positions stay true.
class CRemovals {
public:
    CRemovals(CArray<CFeatureEntry*>& features, const CArray<CComponent*>& components)
        : m_aFeatures(features), m_aComponents(components) {}

    // Marks the entry at this position. False if there is no memory for that: the caller removes it at once.
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

    // The arrays first, then the table, which deletes: at no time does either point at a deleted entry.
    // Entries are recognised by their addresses alone, and what is left keeps its order.
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

// The plain way, for when there is no memory: linear in the table for each entry. Arrays first, as above.
void CQelControl::removeNow(CFeatureEntry* entry) {
    for (CComponent* comp : m_aComponents.m_vItems) {
        if (comp != nullptr) {
            comp->delFeatureEntry(entry);
        }
    }
    delFeature(entry);
    delete entry;
}

// The slot behind a removed entry is not settled in this pass, only looked at for overdue replies; its turn
// comes with the next pass. That holds for both ways of removal, so a shortage of memory
// does not change the result.
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
