// Brings a new feature list into the control's table.
#ifndef QEL_SOURCE_CHANDOVER_H
#define QEL_SOURCE_CHANDOVER_H

#include "source/CHandOverPlan.h"

#include <cstddef>
#include <optional>
#include <vector>

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
//   next audit tells them.
// - Components that were dropped leave the entry with their records, for a withdrawn entry of their own that
//   tells them to disable the feature. The others notice nothing. Who is named again before that is done is
//   added when it is.
// - Where one code stands with several data values, nothing is modified: pairs go and come one by one.
//
// Used on the main loop's thread only. An entry is the hand-over's until it is in the control's table, then
// the control's. Lives as long as the control.
class CHandOver {
public:
    struct SResult {
        int m_nMerge;    // CFeatureMerge::EResult
        bool m_bRestart; // a feature was added or changed that needs a restart of the appliance
    };

    explicit CHandOver(CQelControl& control) : m_oControl(control) {}

    // Makes `list` the one in force, in time linear in list and table, and forgets what still waits of an
    // earlier list. Sends nothing: the audits do. For as long as waiting() is not 0, carryOn() is to be
    // called now and then. What is left of `list` is of no use any more.
    //
    // Nothing where memory is exhausted: table and list are as they were, and it can be tried again.
    [[nodiscard]] std::optional<SResult> apply(CFreshList& list);

    // Adds the components that no longer have to wait, and makes up for what memory was short for.
    void carryOn();

    // Features whose added components wait. Never 0 while there is anything to make up for.
    size_t waiting() const { return m_vAdditions.size() + (m_bSettled ? 0 : 1); }

private:
    void settleUntold();
    bool takeIn(CFeatureEntry& entry, CComponent& comp, bool isHeld);
    void addComponents();
    void place(SFreshFeature& fresh);

    CQelControl& m_oControl;
    std::vector<SAddition> m_vAdditions; // until nothing of their entries' codes is under way
    bool m_bSettled = true;              // settleUntold() had the memory that it needs
};

#endif
