// The merge of a complete new feature list into the control's table.
#ifndef QEL_FEATURES_CFEATUREMERGE_H
#define QEL_FEATURES_CFEATUREMERGE_H

#include "base/CArray.h"
#include "features/CEntryFinder.h"

#include <cstdint>

class CFeatureEntry;

// One merge, made and used once. The table and the list are the caller's; slots of the list whose entry is
// adopted into the table or deleted become null. Does not throw; an entry for which the table has no room stays in
// the list, and the log tells.
class CFeatureMerge {
public:
    enum EResult {
        rsNothing = 0,
        rsRestart = 1,  // a feature that needs a restart of the appliance was added or modified
        rsWithdrawn = 2 // a feature was withdrawn, or its data lowered
    };

    CFeatureMerge(CArray<CFeatureEntry*>& table, CArray<CFeatureEntry*>& list);
    EResult run();

    // True for a feature whose addition or modification takes effect with the next restart of the appliance.
    static bool needsRestart(uint32_t code);

private:
    void withdrawGone();
    void markExisting();
    void bringIn();

    bool isMatched(const CFeatureEntry& entry);
    bool take(CFeatureEntry* fresh);
    static void reuse(CFeatureEntry& entry);
    void modify(CFeatureEntry& entry, const CFeatureEntry& fresh);
    void reuseDisabled(CFeatureEntry& entry, const CFeatureEntry& fresh);
    bool adopt(CFeatureEntry* fresh);
    void setData(CFeatureEntry& entry, uint32_t data);
    void testReboot(uint32_t code, uint32_t data);

    CArray<CFeatureEntry*>& m_aTable;
    CArray<CFeatureEntry*>& m_aList;
    CEntryFinder m_oTable;
    CEntryFinder m_oList;
    EResult m_eResult = rsNothing;
};

#endif
