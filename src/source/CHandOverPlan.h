// What becomes of each feature of a new list, decided before anything is changed.
#ifndef QEL_SOURCE_CHANDOVERPLAN_H
#define QEL_SOURCE_CHANDOVERPLAN_H

#include "base/CArray.h"
#include "features/CPassIndex.h"
#include "source/fresh_list.h"

#include <cstddef>
#include <memory>
#include <optional>
#include <unordered_map>
#include <vector>

class CComponent;
class CQelControl;

using CNames = std::vector<const char*>; // the strings belong to the source's pool

// Components that are to be put on an entry as soon as they may be told of it.
struct SAddition {
    CFeatureEntry* m_pEntry; // the control's; stays in the table until the next list at least
    CNames m_vNames;
};

// Made for one list and one table, and carried out at once. Making it is all that needs memory.
class CHandOverPlan {
public:
    // Throws std::bad_alloc; nothing has changed then. The list must stay where it is.
    CHandOverPlan(CQelControl& control, CFreshList& list);

    // The steps, in this order. None of them needs memory or fails.

    // Commits the modifications that are in the way.
    void settle();
    // Takes the leaving entries of earlier lists out of the table, which the merge must not see, and makes
    // those of this list: the components dropped from an entry leave it with their records. All are the
    // caller's, and go back into the table with putLeavingBack().
    void dropComponents();
    // Marks the entries that the merge is to leave or modify.
    void flag();
    // The features that the merge brings in, for the merge to take. What it leaves is the caller's.
    CArray<CFeatureEntry*>& merged();
    void putLeavingBack();
    // Gives the entries their flags as the list has them, after the merge.
    void complete();

    // The features to be placed beside the merge; their entries are the caller's to take.
    std::vector<SFreshFeature*>& placed() { return m_vPlaced; }
    // The components to be added later.
    std::vector<SAddition>& additions() { return m_vAdditions; }
    // Whether a feature that takes effect with a restart of the appliance only is new, or its data another.
    bool isRestartNeeded() const { return m_bRestart; }

private:
    struct SCode {
        uint32_t m_nFeatures = 0; // of the list, with this code
        uint32_t m_nData = 0;     // of the last of them
    };

    // An entry in force that will stand for a feature of the list after the merge.
    struct SKept {
        CFeatureEntry* m_pEntry;
        bool m_bUntouched; // the merge leaves or modifies it, and does not send it anew
        bool m_bSourced;   // what the list says
        CNames m_vDropped; // whom it concerns no longer
        std::unique_ptr<CFeatureEntry> m_pLeaver; // for those of them that have a record; null: none has
    };

    void indexList(CFreshList& list);
    void indexTable();
    void decide(SFreshFeature& fresh);
    void bringIn(SFreshFeature& fresh);
    void keep(const SFreshFeature& fresh, CFeatureEntry& entry);
    void makeRoom(size_t features);
    void followHeirs(CComponent& comp) const;

    bool isSettledFirst(const CFeatureEntry& entry) const;
    SFeature settledId(const CFeatureEntry& entry) const;
    CFeatureEntry* entryFor(const CFeatureEntry& wanted, bool isSingle) const;
    bool isUntouched(const SFreshFeature& fresh, const CFeatureEntry& entry, const CNames& dropped);
    bool isKnownToAll(const CFeatureEntry& entry, const CNames& dropped);
    bool concerns(const CFeatureEntry& entry, size_t component);
    CNames leavingNames(const CFeatureEntry& entry) const;
    std::unique_ptr<CFeatureEntry> makeLeaver(const CFeatureEntry& entry, const CNames& dropped) const;

    CQelControl& m_oControl;
    std::unordered_map<uint32_t, SCode> m_oCodes;
    std::unordered_map<SFeature, CFeatureEntry*> m_oByPair;
    std::unordered_map<uint32_t, CFeatureEntry*> m_oFirstByCode;
    std::unordered_map<uint32_t, std::vector<const CFeatureEntry*>> m_oLeavingByCode;
    std::unordered_map<const CFeatureEntry*, CFeatureEntry*> m_oHeirs; // the leavers of this list's entries
    std::optional<CPassIndex> m_oIndex; // made when it is asked for the first time

    std::vector<SKept> m_vKept;
    std::vector<SFreshFeature*> m_vMerged;
    std::vector<SFreshFeature*> m_vPlaced;
    std::vector<SAddition> m_vAdditions;
    std::vector<CFeatureEntry*> m_vLeaving; // while they are out of the table
    CArray<CFeatureEntry*> m_aMerged;
    bool m_bRestart = false;
};

#endif
