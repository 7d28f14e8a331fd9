#include "source/CHandOverPlan.h"

#include "features/CComponent.h"
#include "features/CFeatureMerge.h"
#include "features/CQelControl.h"
#include "server/log/log.h"
#include "source/events.h"

#include <algorithm>
#include <string_view>

namespace {

bool contains(const CNames& names, std::string_view name) {
    return std::find(names.begin(), names.end(), name) != names.end();
}

// Those of `names` that are not among `others`. Quadratic, but a feature has 256 names at most.
CNames missingFrom(const CNames& others, const CNames& names) {
    CNames missing;
    std::copy_if(names.begin(), names.end(), std::back_inserter(missing),
                 [&others](const char* name) { return !contains(others, name); });
    return missing;
}

void removeNames(CFeatureEntry& entry, const CNames& names) {
    std::erase_if(entry.m_vCompNames, [&names](const char* name) { return contains(names, name); });
}

} // namespace

CHandOverPlan::CHandOverPlan(CQelControl& control, CFreshList& list) : m_oControl(control) {
    indexList(list);
    indexTable();
    for (SFreshFeature& fresh : list) {
        decide(fresh);
    }
    makeRoom(list.size());
}

void CHandOverPlan::indexList(CFreshList& list) {
    for (const SFreshFeature& fresh : list) {
        SCode& code = m_oCodes[fresh.m_pEntry->m_nCode];
        ++code.m_nFeatures;
        code.m_nData = fresh.m_pEntry->m_nData;
    }
}

// try_emplace keeps the first entry, as the merge does.
void CHandOverPlan::indexTable() {
    for (CFeatureEntry* entry : m_oControl.features().m_vItems) {
        if (entry == nullptr) {
            continue;
        }
        if (entry->isLeaving()) {
            m_oLeavingByCode[entry->m_nCode].push_back(entry);
        } else {
            m_oByPair.try_emplace(settledId(*entry), entry);
            m_oFirstByCode.try_emplace(entry->m_nCode, entry);
        }
    }
}

// A modification is committed first if the list takes it back, or if it is in the way because the list has
// the code several times. Components that have not heard of it yet do no worse: they go by the code, whatever
// old data a message names.
bool CHandOverPlan::isSettledFirst(const CFeatureEntry& entry) const {
    if (entry.m_eStatus != CFeatureEntry::fsModify) {
        return false;
    }
    const auto code = m_oCodes.find(entry.m_nCode);
    return code != m_oCodes.end() && (code->second.m_nFeatures > 1 || code->second.m_nData == entry.m_nData);
}

// The pair that the entry stands for when the merge runs.
SFeature CHandOverPlan::settledId(const CFeatureEntry& entry) const {
    return isSettledFirst(entry) && entry.m_nNewData != 0 ? SFeature{entry.m_nCode, entry.m_nNewData}
                                                          : entry.id();
}

void CHandOverPlan::decide(SFreshFeature& fresh) {
    const CFeatureEntry& wanted = *fresh.m_pEntry;
    const bool isSingle = m_oCodes.at(wanted.m_nCode).m_nFeatures == 1;
    CFeatureEntry* entry = entryFor(wanted, isSingle);
    m_bRestart = m_bRestart || (CFeatureMerge::needsRestart(wanted.m_nCode) &&
                                (entry == nullptr || settledId(*entry) != wanted.id()));
    if (entry == nullptr) {
        bringIn(fresh);
    } else {
        m_vMerged.push_back(&fresh);
        keep(fresh, *entry);
    }
}

// The entry that the merge will pick: the one with the same pair, else the first with the code. The latter
// only if the list has the code once. With several, the merge would turn one pair into another that the list
// has as well. Nor may the entry come to stand for a pair that some of its components are
// still being told to disable.
CFeatureEntry* CHandOverPlan::entryFor(const CFeatureEntry& wanted, bool isSingle) const {
    if (const auto same = m_oByPair.find(wanted.id()); same != m_oByPair.end()) {
        return same->second;
    }
    const auto first = m_oFirstByCode.find(wanted.m_nCode);
    return isSingle && first != m_oFirstByCode.end() && leavingNames(*first->second).empty() ? first->second
                                                                                             : nullptr;
}

// A new feature. The merge brings in what is plain. It would bring in a sourced feature without its flag, and
// it would turn pairs of one code into each other; those are placed.
void CHandOverPlan::bringIn(SFreshFeature& fresh) {
    const uint32_t code = fresh.m_pEntry->m_nCode;
    const bool isPlain =
        !fresh.m_bSourced && m_oCodes.at(code).m_nFeatures == 1 && !m_oFirstByCode.contains(code);
    (isPlain ? m_vMerged : m_vPlaced).push_back(&fresh);
    if (CNames names = leavingNames(*fresh.m_pEntry); !names.empty()) {
        m_vAdditions.push_back({fresh.m_pEntry.get(), std::move(names)});
    }
}

// Those whom the entry names and who are still being told to disable a feature of its code.
CNames CHandOverPlan::leavingNames(const CFeatureEntry& entry) const {
    CNames names;
    if (const auto leaving = m_oLeavingByCode.find(entry.m_nCode); leaving != m_oLeavingByCode.end()) {
        std::copy_if(entry.m_vCompNames.begin(), entry.m_vCompNames.end(), std::back_inserter(names),
                     [&](const char* name) {
                         return std::any_of(
                             leaving->second.begin(), leaving->second.end(),
                             [name](const auto* one) { return contains(one->m_vCompNames, name); });
                     });
    }
    return names;
}

void CHandOverPlan::keep(const SFreshFeature& fresh, CFeatureEntry& entry) {
    const CFeatureEntry& wanted = *fresh.m_pEntry;
    CNames dropped = missingFrom(wanted.m_vCompNames, entry.m_vCompNames);
    const bool untouched = isUntouched(fresh, entry, dropped);
    auto leaver = makeLeaver(entry, dropped);
    if (leaver != nullptr) {
        m_oHeirs.emplace(&entry, leaver.get());
    }
    m_vKept.push_back({&entry, untouched, fresh.m_bSourced, std::move(dropped), std::move(leaver)});
    if (CNames added = missingFrom(entry.m_vCompNames, wanted.m_vCompNames); !added.empty()) {
        m_vAdditions.push_back({&entry, std::move(added)});
    }
}

// A modification to 0 cannot be told, and lists that ask for one are refused. But the loader compares with
// the list that it accepted last, which may never have been handed over, so it can happen here. Then the
// feature is sent as new.
bool CHandOverPlan::isUntouched(const SFreshFeature& fresh, const CFeatureEntry& entry,
                                const CNames& dropped) {
    if (fresh.m_pEntry->id() == settledId(entry)) {
        return fresh.m_bSourced;
    }
    return fresh.m_bSourced && entry.m_bSourced == 1 && fresh.m_pEntry->m_nData != 0 &&
           isKnownToAll(entry, dropped);
}

// Whether every component that the feature concerns has a record in it. One without would join in the middle
// of the modification, which CHandOver::addComponents() explains.
bool CHandOverPlan::isKnownToAll(const CFeatureEntry& entry, const CNames& dropped) {
    const auto& components = m_oControl.components().m_vItems;
    for (size_t i = 0; i < components.size(); ++i) {
        if (components[i] != nullptr && entry.findCompByPtr(components[i]) == nullptr && concerns(entry, i) &&
            !contains(dropped, components[i]->m_szName)) {
            return false;
        }
    }
    return true;
}

// Through an index, since entries may have hundreds of names.
bool CHandOverPlan::concerns(const CFeatureEntry& entry, size_t component) {
    if (!m_oIndex) {
        m_oIndex.emplace(m_oControl.features(), m_oControl.components());
    }
    if (!m_oIndex->isBuilt()) {
        return entry.findCompName(m_oControl.components().m_vItems[component]->m_szName) != 0;
    }
    return m_oIndex->concerns(m_oIndex->positionOf(&entry), component);
}

// With room for every record that dropComponents() gives it. A component that takes part in every feature
// cannot be dropped. One that has no record was never told, and has nothing to disable.
std::unique_ptr<CFeatureEntry> CHandOverPlan::makeLeaver(const CFeatureEntry& entry,
                                                         const CNames& dropped) const {
    CNames names = dropped;
    std::erase_if(names, [](std::string_view name) {
        return std::ranges::find(CFeatureEntry::aAlwaysConcerned, name) !=
               std::end(CFeatureEntry::aAlwaysConcerned);
    });
    const auto records = std::ranges::count_if(entry.m_vCompStatus, [&names](const CCompStatus* record) {
        return contains(names, record->m_pComponent->m_szName);
    });
    if (records == 0) {
        return nullptr;
    }
    auto leaver = std::make_unique<CFeatureEntry>(&m_oControl);
    leaver->m_nCode = entry.m_nCode;
    leaver->m_nData = settledId(entry).m_nData;
    leaver->m_sName = entry.m_sName;
    leaver->m_eStatus = CFeatureEntry::fsDeleted;
    leaver->m_bSourced = 1;
    leaver->m_vCompNames = std::move(names);
    leaver->m_vCompStatus.reserve(static_cast<size_t>(records));
    return leaver;
}

void CHandOverPlan::makeRoom(size_t features) {
    size_t leaving = m_oHeirs.size();
    for (const auto& [code, entries] : m_oLeavingByCode) {
        leaving += entries.size();
    }
    m_vLeaving.reserve(leaving);
    m_aMerged.m_vItems.reserve(features);
    m_oControl.reserveFeatures(features + leaving);
}

void CHandOverPlan::settle() {
    for (CFeatureEntry* entry : m_oControl.features().m_vItems) {
        if (entry != nullptr && isSettledFirst(*entry)) {
            entry->commitNewData();
        }
    }
}

void CHandOverPlan::dropComponents() {
    m_oControl.takeFeatures([](const CFeatureEntry& entry) { return entry.isLeaving(); }, m_vLeaving);
    for (SKept& kept : m_vKept) {
        if (kept.m_pLeaver != nullptr) {
            for (const char* name : kept.m_pLeaver->m_vCompNames) {
                logEvent(svInfo, evWithdrawn, "feature %u %u withdrawn from %s", kept.m_pLeaver->m_nCode,
                         kept.m_pLeaver->m_nData, name);
            }
            kept.m_pEntry->passOn(*kept.m_pLeaver);
            m_vLeaving.push_back(kept.m_pLeaver.release());
        }
        removeNames(*kept.m_pEntry, kept.m_vDropped);
    }
    for (CComponent* comp : m_oControl.components().m_vItems) {
        if (comp != nullptr && !m_oHeirs.empty()) {
            followHeirs(*comp);
        }
    }
}

// In the component's array the heirs take the places of the entries that it has left.
void CHandOverPlan::followHeirs(CComponent& comp) const {
    for (CFeatureEntry*& slot : comp.m_aFeatures.m_vItems) {
        const auto heir = m_oHeirs.find(slot);
        if (heir != m_oHeirs.end() && heir->second->findCompByPtr(&comp) != nullptr) {
            slot = heir->second;
        }
    }
}

// The merge withdraws every entry that is not flagged, and brings back, as new, those that the list has. So
// exactly the entries that must not be withdrawn are flagged: a flag left over would let an entry that this
// list drops claim the list's entry of another with its code, and stay. Nor does the merge modify an entry
// that it still knows as unchanged from the last time, hence fsActive.
void CHandOverPlan::flag() {
    for (CFeatureEntry* entry : m_oControl.features().m_vItems) {
        if (entry != nullptr) {
            entry->m_bSourced = 0;
        }
    }
    for (const SKept& kept : m_vKept) {
        if (kept.m_bUntouched) {
            kept.m_pEntry->m_bSourced = 1;
            if (kept.m_pEntry->m_eStatus == CFeatureEntry::fsExisting) {
                kept.m_pEntry->m_eStatus = CFeatureEntry::fsActive;
            }
        }
    }
}

CArray<CFeatureEntry*>& CHandOverPlan::merged() {
    for (const SAddition& addition : m_vAdditions) {
        removeNames(*addition.m_pEntry, addition.m_vNames); // of a fresh entry; others do not have them
    }
    for (SFreshFeature* fresh : m_vMerged) {
        m_aMerged.m_vItems.push_back(fresh->m_pEntry.release());
    }
    return m_aMerged;
}

// At the end of the table: those who stay are told first.
void CHandOverPlan::putLeavingBack() {
    for (CFeatureEntry* entry : m_vLeaving) {
        static_cast<void>(m_oControl.addFeature(entry)); // there is room
    }
    m_vLeaving.clear();
}

void CHandOverPlan::complete() {
    for (const SKept& kept : m_vKept) {
        CFeatureEntry& entry = *kept.m_pEntry;
        entry.m_bSourced = kept.m_bSourced ? 1 : 0;
        if (entry.m_eStatus != CFeatureEntry::fsModify) {
            entry.m_nNewData = 0; // the merge has ended that modification
        }
    }
}
