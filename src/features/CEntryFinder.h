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

// Looks into hash maps where a walk would look through all entries; where there is no memory for the maps, it walks.
// The entries are the caller's, who tells of every change. Does not throw.
class CEntryFinder {
public:
    explicit CEntryFinder(const CArray<CFeatureEntry*>& entries) noexcept;

    // The first entry of this code and data, in the order of the array; null if none.
    CFeatureEntry* find(const SFeature& feature) const;
    // The first of the code that has another status than `status`. No entry that has it may leave it.
    CFeatureEntry* findOfCode(uint32_t code, CFeatureEntry::EFStatus butNot);

    // The entry was appended to the array.
    void appended(CFeatureEntry* entry) noexcept;
    // The entry's data were `before`; no other entry has the code and data that it has now.
    void changed(CFeatureEntry* entry, uint32_t before) noexcept;

private:
    struct SOfCode {
        std::vector<CFeatureEntry*> m_vEntries;
        size_t m_nNext = 0; // those before it have the status that is not looked for
    };

    struct SIndex {
        void append(CFeatureEntry* entry);

        std::unordered_map<SFeature, std::vector<CFeatureEntry*>> m_oByFeature; // in the array's order, both
        std::unordered_map<uint32_t, SOfCode> m_oByCode;
    };

    template <typename Change>
    void update(Change change) noexcept;

    const CArray<CFeatureEntry*>& m_aEntries;
    std::optional<SIndex> m_oIndex; // none: there was no memory
};

#endif
