// What a new feature list changes, and for whom, seen from the list before it.
#ifndef QEL_CTL_CLISTCHANGE_H
#define QEL_CTL_CLISTCHANGE_H

#include "source/list/feature_list.h"

#include <cstddef>
#include <set>
#include <string>
#include <vector>

// One feature that is added, withdrawn or changed. At least one of the two records is there; both belong to
// the lists.
struct SFeatureChange {
    const SFeatureRecord* m_pBefore = nullptr; // null: added
    const SFeatureRecord* m_pAfter = nullptr;  // null: withdrawn

    const SFeatureRecord& record() const { return m_pAfter != nullptr ? *m_pAfter : *m_pBefore; }
    bool isOfData() const;
    // Names that only the one record has, in its order.
    std::vector<std::string> added() const;
    std::vector<std::string> dropped() const;
    // Whom the feature stays with.
    std::vector<std::string> kept() const;
    // Who is told of this change. The same feature told again because of the new list is not meant.
    std::vector<std::string> told() const;
};

// A feature is the same one by the rules of CFeatureMatching. The lists must outlive the object. Linear in the
// lists. Throws std::bad_alloc only.
class CListChange {
public:
    CListChange(const std::vector<SFeatureRecord>& before, const std::vector<SFeatureRecord>& after);

    // Whether the new list is no other for the daemon, which then leaves everything as it is. The order of
    // the features counts.
    bool isNothing() const { return m_bNothing; }
    const std::vector<SFeatureChange>& changes() const { return m_vChanges; } // withdrawn ones last

    size_t added() const { return m_nAdded; }
    size_t withdrawn() const { return m_nWithdrawn; }
    size_t changed() const { return m_vChanges.size() - m_nAdded - m_nWithdrawn; }
    // Features without `sourced` that stay as they are, or but for their components: every new list has them
    // told to their components once more.
    size_t toldAgain() const { return m_nToldAgain; }
    // Features that somebody is told of, and who that is, toldAgain() apart.
    size_t toldOf() const { return m_nToldOf; }
    const std::set<std::string>& told() const { return m_oTold; }

private:
    void add(SFeatureChange change);
    void compare(const SFeatureRecord& before, const SFeatureRecord& after);

    bool m_bNothing = false;
    std::vector<SFeatureChange> m_vChanges;
    size_t m_nAdded = 0;
    size_t m_nWithdrawn = 0;
    size_t m_nToldAgain = 0;
    size_t m_nToldOf = 0;
    std::set<std::string> m_oTold;
};

#endif
