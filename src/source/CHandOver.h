// Brings a new feature list into the control's table.
#ifndef QEL_SOURCE_CHANDOVER_H
#define QEL_SOURCE_CHANDOVER_H

#include "source/fresh_list.h"

#include <cstddef>

class CQelControl;

// The control's merge looks at code and data alone, and pairs entries of one code with each other as they
// come. What it cannot tell is prepared before it and completed after it, so that in the end the table stands
// for exactly what the list says:
//
// - A sourced feature is left alone, or modified if its data changed. Any other feature is sent to its
//   components again.
// - The flag of an entry follows the list. A feature that becomes sourced is left alone or, with other data,
//   sent as a new one.
// - A modification under way that the new list takes back is committed first, so that the feature can be
//   modified back.
// - Components that were added are put on the entry in force once no modification of it is under way; the
//   next audit tells them. If a component was dropped, all are told to disable the feature, and it waits here
//   until that is done.
// - Where one code stands with several data values, nothing is modified: pairs go and come one by one.
//
// Used on the main loop's thread only. An entry is the hand-over's until it is in the control's table, then
// the control's. Lives as long as the control.
class CHandOver {
public:
    explicit CHandOver(CQelControl& control) : m_oControl(control) {}

    // Makes `list` the one in force, in time linear in list and table, and forgets what still waits of an
    // earlier list. Returns the merge's result (CFeatureMerge::EResult), or rsRestart if a feature that was
    // placed beside it needs a restart. Sends nothing: the audits do. For as long as waiting() is not 0,
    // carryOn() is to be called now and then.
    int apply(CFreshList list);

    // Brings in what no longer has to wait. Returns 1 if a feature of it needs a restart of the
    // appliance, else 0.
    int carryOn();

    // Features that wait as a whole, plus features whose added components wait.
    size_t waiting() const { return m_vHeldBack.size() + m_vAdditions.size(); }

    struct SAddition {
        CFeatureEntry* m_pEntry; // the control's; stays in the table until the next list at least
        std::vector<const char*> m_vNames;
    };

private:
    void settleUntold();
    int placeHeldBack();
    void addComponents();
    int place(SFreshFeature& fresh);

    CQelControl& m_oControl;
    CFreshList m_vHeldBack;              // until all withdrawn entries of their code have left the table
    std::vector<SAddition> m_vAdditions; // until the modification of their entry has ended
};

#endif
