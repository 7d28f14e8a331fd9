// Brings a new feature list into the control's table.
#ifndef QEL_SOURCE_CHANDOVER_H
#define QEL_SOURCE_CHANDOVER_H

#include "source/fresh_list.h"

#include <cstddef>

class CQelControl;

// The control's merge looks at code and data alone, and pairs entries of one code with each other as they
// come. What it cannot tell is prepared before it and completed after it, so that the table comes to stand
// exactly for the list:
//
// - A sourced feature is kept as it is, or modified where its data changed; any other is told to its
// components again.
// - The flag of an entry follows the list. One that becomes sourced is kept, or, with other data, told as
// new.
// - A modification under way that the new list takes back is taken as done first, so that it can be modified
// back.
// - Components that were added are put on the entry in force, once no modification of it is under way; the
// next audit
//   tells them. Where one was dropped, all are told to disable the feature, and it waits until that is done.
// - Where one code stands with several data values nothing is modified: pairs go and come one by one.
//
// Used on the main loop's thread only.
class CHandOver {
public:
    explicit CHandOver(CQelControl& control) : m_oControl(control) {}

    // Makes `list` the one in force, in time linear in list and table. What still waits of an earlier list is
    // forgotten. The result is the merge's, 1 also where a feature brought in beside it needs a restart.
    int apply(CFreshList list);

    // Brings in what waits and need not any longer. 1 if a feature of it needs a restart, else 0.
    int carryOn();

    // How many features wait, as a whole or with components added.
    size_t waiting() const { return m_vHeldBack.size() + m_vAdditions.size(); }

    struct SAddition {
        CFeatureEntry* m_pEntry; // in force until the next list at least
        std::vector<const char*> m_vNames;
    };

private:
    void settleUntold();
    int placeHeldBack();
    void addComponents();
    int place(SFreshFeature& fresh);

    CQelControl& m_oControl;
    CFreshList m_vHeldBack;              // until the entries of their code that are withdrawn are gone
    std::vector<SAddition> m_vAdditions; // until the modification of their entry has ended
};

#endif
