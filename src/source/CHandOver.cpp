#include "source/CHandOver.h"

#include "features/CComponent.h"
#include "features/CFeatureMerge.h"
#include "features/CQelControl.h"
#include "server/log/log.h"
#include "source/events.h"

#include <algorithm>
#include <string_view>
#include <unordered_map>
#include <unordered_set>

namespace {

using CNames = std::vector<const char*>;

// Those of `names` that are not among `others`. Quadratic, but a feature has 256 names at most.
CNames missingFrom(const CNames& others, const CNames& names) {
    CNames missing;
    for (const char* name : names) {
        if (std::find(others.begin(), others.end(), std::string_view(name)) == others.end()) {
            missing.push_back(name);
        }
    }
    return missing;
}

// How a feature of the list comes into the table.
enum EWay {
    wyMerge, // by the control's merge
    wyPlace, // directly, after it
    wyHold   // later, because the entry in force has to be withdrawn first
};

// An entry in force that will stand for a feature of the list after the merge.
struct SKept {
    CFeatureEntry* m_pEntry;
    bool m_bUntouched; // the merge leaves or modifies it, instead of sending it again as new
    bool m_bSourced;   // what the list says
    CNames m_vAdded;   // components that are new
};

// What happens to each feature of one list. Everything is decided before the merge runs, and from the table
// as it stood then, except that modifications that are in the way are committed first.
class CHandOverPlan {
public:
    CHandOverPlan(CQelControl& control, const CFreshList& list) : m_oControl(control) {
        for (const SFreshFeature& fresh : list) {
            SCode& code = m_oCodes[fresh.m_pEntry->m_nCode];
            ++code.m_nFeatures;
            code.m_nData = fresh.m_pEntry->m_nData;
        }
        // An entry is settled before it is indexed, since that changes the pair that it stands for.
        // try_emplace keeps the first entry, as the merge does.
        for (CFeatureEntry* entry : control.features().m_vItems) {
            if (entry != nullptr) {
                settlePending(*entry);
                m_oByPair.try_emplace(entry->id(), entry);
                m_oFirstByCode.try_emplace(entry->m_nCode, entry);
            }
        }
        m_vWays.reserve(list.size());
        for (const SFreshFeature& fresh : list) {
            m_vWays.push_back(decide(fresh));
        }
    }

    EWay way(size_t position) const { return m_vWays[position]; }

    // The merge withdraws every entry that is not flagged, and brings back, as new, those that the list has.
    // So exactly the entries that must not be withdrawn are flagged: a flag left over would let an entry that
    // this list drops claim the list's entry of another with its code, and stay. Nor does the merge modify an
    // entry that it still knows as unchanged from the last time, hence fsActive.
    void prepare() const {
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

    // After the merge, which deletes no entry of the table: gives the entries their flags, and returns the
    // components to be added.
    std::vector<CHandOver::SAddition> complete() {
        std::vector<CHandOver::SAddition> additions;
        for (SKept& kept : m_vKept) {
            CFeatureEntry& entry = *kept.m_pEntry;
            entry.m_bSourced = kept.m_bSourced ? 1 : 0;
            if (entry.m_eStatus != CFeatureEntry::fsModify) {
                entry.m_nNewData = 0; // the merge has ended that modification
            }
            if (!kept.m_vAdded.empty()) {
                additions.push_back({&entry, std::move(kept.m_vAdded)});
            }
        }
        return additions;
    }

private:
    struct SCode {
        uint32_t m_nFeatures = 0; // of the list, with this code
        uint32_t m_nData = 0;     // of the last of them
    };

    // Commits a modification that the list takes back, or that is in the way because the list has the code
    // several times. Components that have not heard of it yet do no worse: they go by the code, whatever old
    // data a message names.
    void settlePending(CFeatureEntry& entry) const {
        if (entry.m_eStatus != CFeatureEntry::fsModify) {
            return;
        }
        const auto code = m_oCodes.find(entry.m_nCode);
        if (code != m_oCodes.end() &&
            (code->second.m_nFeatures > 1 || code->second.m_nData == entry.m_nData)) {
            entry.commitNewData();
        }
    }

    // The merge brings in what is plain: a new feature that is not sourced, or one whose entry it will pick
    // itself. It would bring in a sourced feature without its flag, and it would turn pairs of one code into
    // each other; those are placed.
    EWay decide(const SFreshFeature& fresh) {
        const CFeatureEntry& wanted = *fresh.m_pEntry;
        const bool isSingle = m_oCodes.at(wanted.m_nCode).m_nFeatures == 1;
        CFeatureEntry* entry = entryFor(wanted, isSingle);
        if (entry == nullptr) {
            return fresh.m_bSourced || !isSingle ? wyPlace : wyMerge;
        }
        // A component was dropped. A withdrawal is for all components of a feature, so the entry gets no
        // flag, is withdrawn, and the feature comes back when that is done.
        if (!missingFrom(wanted.m_vCompNames, entry->m_vCompNames).empty()) {
            return wyHold;
        }
        m_vKept.push_back({entry, isUntouched(fresh, *entry), fresh.m_bSourced,
                           missingFrom(entry->m_vCompNames, wanted.m_vCompNames)});
        return wyMerge;
    }

    // The entry that the merge will pick: the one with the same pair, else the first with the code. The
    // latter only if the list has the code once. With several, the merge would turn one pair into another
    // that the list has as well.
    CFeatureEntry* entryFor(const CFeatureEntry& wanted, bool isSingle) const {
        if (const auto same = m_oByPair.find(wanted.id()); same != m_oByPair.end()) {
            return same->second;
        }
        const auto first = m_oFirstByCode.find(wanted.m_nCode);
        return isSingle && first != m_oFirstByCode.end() ? first->second : nullptr;
    }

    // A modification to 0 cannot be told, and lists that ask for one are refused. But the loader compares
    // with the list that it accepted last, which may never have been handed over, so it can happen here. Then
    // the feature is sent as new.
    bool isUntouched(const SFreshFeature& fresh, const CFeatureEntry& entry) const {
        if (fresh.m_pEntry->id() == entry.id()) {
            return fresh.m_bSourced;
        }
        return fresh.m_bSourced && entry.m_bSourced == 1 && fresh.m_pEntry->m_nData != 0 &&
               isKnownToAll(entry);
    }

    // Whether every component that the feature concerns has a record in it. One without would join in the
    // middle of the modification, which addComponents() explains.
    bool isKnownToAll(const CFeatureEntry& entry) const {
        const auto& components = m_oControl.components().m_vItems;
        return std::all_of(components.begin(), components.end(), [&entry](const CComponent* component) {
            return component == nullptr || entry.findCompName(component->m_szName) == 0 ||
                   entry.findCompByPtr(component) != nullptr;
        });
    }

    CQelControl& m_oControl;
    std::unordered_map<uint32_t, SCode> m_oCodes;
    std::unordered_map<SFeature, CFeatureEntry*> m_oByPair;
    std::unordered_map<uint32_t, CFeatureEntry*> m_oFirstByCode;
    std::vector<EWay> m_vWays; // by position in the list
    std::vector<SKept> m_vKept;
};

// Entries that the merge adopted or deleted have become null; what is left in the list is unchanged and
// not needed.
int runMerge(CQelControl& control, CArray<CFeatureEntry*>& merged) {
    const int result = control.addFeatureList(merged);
    for (CFeatureEntry* unchanged : merged.m_vItems) {
        delete unchanged;
    }
    merged.m_vItems.clear();
    return result;
}

} // namespace

int CHandOver::apply(CFreshList list) {
    // The order matters: what the merge cannot tell is flagged before it, and what it must not see is
    // placed after it.
    CHandOverPlan plan(m_oControl, list);
    plan.prepare();
    CArray<CFeatureEntry*> merged;
    for (size_t i = 0; i < list.size(); ++i) {
        if (plan.way(i) == wyMerge) {
            merged.m_vItems.push_back(list[i].m_pEntry.release());
        }
    }
    int result = runMerge(m_oControl, merged);
    settleUntold();
    m_vAdditions = plan.complete();
    addComponents();
    m_vHeldBack.clear();
    // Placed only now: the merge withdraws entries of the table that it does not find in its own list.
    for (size_t i = 0; i < list.size(); ++i) {
        if (plan.way(i) == wyPlace) {
            result = place(list[i]) != 0 ? CFeatureMerge::rsRestart : result;
        } else if (plan.way(i) == wyHold) {
            m_vHeldBack.push_back(std::move(list[i]));
        }
    }
    return result;
}

// A component that a withdrawn entry concerns and that was never told of it would be told by the audit, which knows
// no record of it there, and nobody would ever tell it to disable the feature again. Taken in now it has a record: at a
// withdrawn feature that starts as disabled, and the component is sent nothing.
void CHandOver::settleUntold() {
    for (CFeatureEntry* entry : m_oControl.features().m_vItems) {
        if (entry == nullptr || entry->m_eStatus != CFeatureEntry::fsDeleted) {
            continue;
        }
        for (CComponent* comp : m_oControl.components().m_vItems) {
            if (comp != nullptr && entry->findCompByPtr(comp) == nullptr &&
                entry->addComponent(CFeatureEntry::opAdd, comp) != 0 && comp->findFeatureEntry(entry) == 0) {
                comp->addFeatureEntry(entry);
            }
        }
    }
}

// Called with every note of the source's thread, about once a second while something waits.
int CHandOver::carryOn() {
    addComponents();
    return placeHeldBack();
}

// A component that joins in the middle of a modification is told the old data first. If it fails to answer
// that, nobody would tell it the new data, and the modification would never end. So it joins afterwards. The
// audit finds a component without a record and tells it.
void CHandOver::addComponents() {
    std::vector<SAddition> waiting;
    for (SAddition& addition : m_vAdditions) {
        if (addition.m_pEntry->m_eStatus == CFeatureEntry::fsModify) {
            waiting.push_back(std::move(addition));
            continue;
        }
        for (const char* name : addition.m_vNames) {
            addition.m_pEntry->addCompName(name);
        }
    }
    m_vAdditions = std::move(waiting);
}

// A withdrawn entry stays in the table until all its components have confirmed or are given up; the timeout
// pass then removes it. If the feature came back before that, two entries would stand under one code, and
// components would be asked to disable and to enable it side by side.
int CHandOver::placeHeldBack() {
    std::unordered_set<uint32_t> withdrawn;
    for (const CFeatureEntry* entry : m_oControl.features().m_vItems) {
        if (entry != nullptr && entry->m_eStatus == CFeatureEntry::fsDeleted) {
            withdrawn.insert(entry->m_nCode);
        }
    }
    int result = 0;
    CFreshList waiting;
    for (SFreshFeature& fresh : m_vHeldBack) {
        if (withdrawn.count(fresh.m_pEntry->m_nCode) != 0) {
            waiting.push_back(std::move(fresh));
        } else {
            result |= place(fresh);
        }
    }
    m_vHeldBack = std::move(waiting);
    return result;
}

// The next audit finds that no component has a record of the entry, and tells them. If the table has no room,
// the control has logged it, and the feature is missing until another list brings it.
int CHandOver::place(SFreshFeature& fresh) {
    CFeatureEntry* entry = fresh.m_pEntry.release();
    entry->m_bSourced = fresh.m_bSourced ? 1 : 0;
    if (!m_oControl.addFeature(entry)) {
        delete entry;
        return 0;
    }
    logEvent(svInfo, evPlaced, "feature %u %u placed", entry->m_nCode, entry->m_nData);
    return CFeatureMerge::needsRestart(entry->m_nCode) ? 1 : 0;
}
