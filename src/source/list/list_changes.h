// What makes a list another one, and which changes the daemon refuses or warns of.
#ifndef QEL_SOURCE_LIST_CHANGES_H
#define QEL_SOURCE_LIST_CHANGES_H

#include "source/list/feature_list.h"

#include <cstddef>
#include <unordered_map>
#include <vector>

using CFeatureRecords = std::vector<SFeatureRecord>;

// Which feature of the list before each of a new one stands for, by the rules of the hand-over: the one with
// the same pair; else, if the new list has the code once, the first with the code. Both lists must outlive
// the object. Throws std::bad_alloc.
class CFeatureMatching {
public:
    CFeatureMatching(const CFeatureRecords& before, const CFeatureRecords& after);
    // Null: a new feature. No two of the new list have the same.
    const SFeatureRecord* find(const SFeatureRecord& after) const;

private:
    std::unordered_map<uint64_t, const SFeatureRecord*> m_oByPair;
    std::unordered_map<uint32_t, const SFeatureRecord*> m_oFirstOfCode;
    std::unordered_map<uint32_t, size_t> m_oUses; // of a code in the new list
};

// Whether the daemon makes no difference between the two. Order counts: features are told in it.
bool isSameList(const CFeatureRecords& before, const CFeatureRecords& after);

// Adds an error to `after` for each change that cannot be delivered. Throws std::bad_alloc.
void findUndeliverable(const CFeatureRecords& before, SFeatureList& after);

// Features of `before` that are gone. Throws std::bad_alloc.
size_t countWithdrawn(const CFeatureRecords& before, const CFeatureRecords& after);

// More than a fifth: most likely a list that was cut off, or another appliance's.
constexpr bool isMuch(size_t withdrawn, size_t before) {
    return withdrawn > before / 5;
}

#endif
