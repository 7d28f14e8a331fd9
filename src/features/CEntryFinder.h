// Finds entries by code and data, for the time of one merge.
#ifndef QEL_FEATURES_CENTRYFINDER_H
#define QEL_FEATURES_CENTRYFINDER_H

#include "base/CArray.h"
#include "base/SFeature.h"
#include "features/CFeatureEntry.h"

#include <cstddef>
#include <cstdint>
#include <optional>
#include <unordered_map>
#include <vector>

// Looks entries up in hash maps, which makes a merge linear in the number of features: a walk for each
// feature would make it quadratic. Where there is no memory for the maps it walks, with the same results.
//
// The array and the entries are the caller's, and both must outlive the finder. The caller reports every
// change by appended() or changed(), and removes nothing as long as it still asks. Null slots are skipped.
// Does not throw.
class CEntryFinder {
public:
    explicit CEntryFinder(const CArray<CFeatureEntry*>& entries) noexcept;

    // The first entry with this code and data, in the order of the array; null if there is none.
    CFeatureEntry* find(const SFeature& feature) const;
    // The first entry with this code whose status is not `butNot`. From the first call on, `butNot` is the
    // same in every call, and no entry that has reached that status leaves it; entries that were passed over
    // are not looked at again.
    CFeatureEntry* findOfCode(uint32_t code, CFeatureEntry::EFStatus butNot);

    // The entry has just been appended to the array.
    void appended(CFeatureEntry* entry) noexcept;
    // The entry's data was `before` and is different now. No other entry has the code and data that it has
    // now, or find() might prefer the wrong one of the two.
    void changed(CFeatureEntry* entry, uint32_t before) noexcept;

private:
    struct SOfCode {
        std::vector<CFeatureEntry*> m_vEntries;
        size_t m_nNext = 0; // all before it have the status that findOfCode() passes over
    };

    struct SIndex {
        void append(CFeatureEntry* entry);

        // Vectors, because pairs and codes may repeat; in the array's order. They may have become empty.
        std::unordered_map<SFeature, std::vector<CFeatureEntry*>> m_oByFeature;
        std::unordered_map<uint32_t, SOfCode> m_oByCode;
    };

    template <typename Change>
    void update(Change change) noexcept;

    const CArray<CFeatureEntry*>& m_aEntries;
    std::optional<SIndex> m_oIndex; // none: there was no memory
};

#endif
