#include "source/CHandOver.h"

#include "features/CComponent.h"
#include "features/CPassIndex.h"
#include "features/CQelControl.h"
#include "server/log/log.h"
#include "source/events.h"

#include <algorithm>
#include <new>
#include <unordered_map>

namespace {

// Entries that the merge adopted or deleted have become null; what is left in the list
// is unchanged and not needed.
int runMerge(CQelControl& control, CArray<CFeatureEntry*>& merged) {
    const int result = control.addFeatureList(merged);
    for (CFeatureEntry* unchanged : merged.m_vItems) {
        delete unchanged;
    }
    merged.m_vItems.clear();
    return result;
}

std::optional<CHandOverPlan> makePlan(CQelControl& control, CFreshList& list) try {
    return std::optional<CHandOverPlan>(std::in_place, control, list);
} catch (const std::bad_alloc&) {
    return std::nullopt;
}

} // namespace

// The order matters: what the merge cannot tell is flagged before it, and what it must not see comes into the
// table after it.
std::optional<CHandOver::SResult> CHandOver::apply(CFreshList& list) {
    std::optional<CHandOverPlan> plan = makePlan(m_oControl, list);
    if (!plan) {
        return std::nullopt;
    }
    plan->settle();
    plan->dropComponents();
    plan->flag();
    const int result = runMerge(m_oControl, plan->merged());
    plan->complete();
    plan->putLeavingBack();
    settleUntold();
    // Placed only now: the merge withdraws entries of the table that it does not find in its own list.
    for (SFreshFeature* fresh : plan->placed()) {
        place(*fresh);
    }
    m_vAdditions = std::move(plan->additions());
    addComponents();
    return SResult{result, plan->isRestartNeeded()};
}

// A component that a withdrawn entry concerns and that does not know of it would be told of it by the audit,
// and nobody would ever tell it to disable the feature again. Taken in now it has a record: at a withdrawn
// feature that starts as disabled, and the component is sent nothing.
void CHandOver::settleUntold() {
    const auto& entries = m_oControl.features().m_vItems;
    const auto& components = m_oControl.components().m_vItems;
    std::optional<CPassIndex> index;
    m_bSettled = true;
    for (size_t i = 0; i < entries.size(); ++i) {
        if (entries[i] == nullptr || entries[i]->m_eStatus != CFeatureEntry::fsDeleted) {
            continue;
        }
        if (!index) {
            index.emplace(m_oControl.features(), m_oControl.components());
        }
        for (size_t j = 0; j < components.size(); ++j) {
            if (components[j] != nullptr && index->concerns(i, j) &&
                !takeIn(*entries[i], *components[j], index->holds(j, i))) {
                m_bSettled = false;
            }
        }
    }
}

bool CHandOver::takeIn(CFeatureEntry& entry, CComponent& comp, bool isHeld) {
    return (isHeld || comp.addFeatureEntry(&entry) != 0) &&
           (entry.findCompByPtr(&comp) != nullptr || entry.addComponent(CFeatureEntry::opAdd, &comp) != 0);
}

void CHandOver::carryOn() {
    if (!m_bSettled) {
        settleUntold();
    }
    addComponents();
}

// Called with every note of the source's thread, about once a second while something waits. Where memory is
// exhausted, who is not added yet is added then.
//
// A component that joins in the middle of a modification is told the old data first. If it fails to answer
// that, nobody would tell it the new data, and the modification would never end. And one that is still being
// told to disable the code would be told both side by side. So both join afterwards: the audit finds a
// component without a record and tells it.
void CHandOver::addComponents() try {
    std::unordered_multimap<uint32_t, const CFeatureEntry*> leaving;
    for (const CFeatureEntry* entry : m_oControl.features().m_vItems) {
        if (entry != nullptr && entry->isLeaving()) {
            leaving.emplace(entry->m_nCode, entry);
        }
    }
    const auto mayJoin = [&leaving](const CFeatureEntry& entry, std::string_view name) {
        const auto [begin, end] = leaving.equal_range(entry.m_nCode);
        return std::none_of(begin, end, [name](const auto& one) {
            const CNames& names = one.second->m_vCompNames;
            return std::find(names.begin(), names.end(), name) != names.end();
        });
    };
    for (SAddition& addition : m_vAdditions) {
        CFeatureEntry& entry = *addition.m_pEntry;
        for (auto name = addition.m_vNames.begin(); name != addition.m_vNames.end();) {
            if (entry.m_eStatus == CFeatureEntry::fsModify || !mayJoin(entry, *name)) {
                ++name;
                continue;
            }
            entry.addCompName(*name);
            name = addition.m_vNames.erase(name);
        }
    }
    std::erase_if(m_vAdditions, [](const SAddition& addition) { return addition.m_vNames.empty(); });
} catch (const std::bad_alloc&) {
    logEvent(svError, 31124, "failed to new obj");
}

// The next audit finds that no component has a record of the entry, and tells them. There is room for it: the
// plan has made it.
void CHandOver::place(SFreshFeature& fresh) {
    CFeatureEntry* entry = fresh.m_pEntry.release();
    entry->m_bSourced = fresh.m_bSourced ? 1 : 0;
    static_cast<void>(m_oControl.addFeature(entry));
    logEvent(svInfo, evPlaced, "feature %u %u placed", entry->m_nCode, entry->m_nData);
}
