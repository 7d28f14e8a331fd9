// The merge of a complete new feature list into the control's table.
#ifndef QEL_FEATURES_CFEATUREMERGE_H
#define QEL_FEATURES_CFEATUREMERGE_H

#include "base/CArray.h"
#include "features/CEntryFinder.h"

#include <cstdint>

class CFeatureEntry;

// One merge, constructed for one pair of table and list, and run once. It only marks entries (fsNewAdd,
// fsModify, fsDeleted, fsExisting) and sets their records to idle: the audits do the telling, and the timeout
// pass settles and removes.
//
// Three passes, in this order:
//
// 1. Entries of the table that the list lacks are withdrawn. So are all that are not sourced, even if the
//    list has them, so that their components are told again.
// 2. Entries that the first pass left and that the list has are marked as existing.
// 3. The list is brought in.
//
// A feature of the list meets one of these cases in the third pass:
//
// - An entry with the same code and data is in force: it stays unchanged.
// - An entry with the same code and data is withdrawn: it is taken back as new.
// - No entry has the pair, but one has the code and is not existing. If it is in force, it is modified; if
//   it is withdrawn, it is taken back with the new data. The first such entry in table order counts.
// - Otherwise the feature's own entry is adopted into the table.
//
// Ownership: the table and the list are the caller's. An entry that is adopted into the table, or deleted
// because one in force stands for it, leaves a null slot in the list. What is left is the caller's to delete:
// unchanged features, and any for which the table had no room. The latter are logged (31124) and are not in
// force until the next list.
//
// Does not throw. Takes time linear in entries and their records, unless memory is short (CEntryFinder).
class CFeatureMerge {
public:
    // What the operator should know. Each event below overwrites the result of those before, so the last one
    // counts. A feature that is withdrawn only to be taken back counts as withdrawn.
    enum EResult {
        rsNothing = 0,
        rsRestart = 1,  // a feature that needs a restart of the appliance was added or modified
        rsWithdrawn = 2 // a feature was withdrawn, or its data lowered
    };

    CFeatureMerge(CArray<CFeatureEntry*>& table, CArray<CFeatureEntry*>& list);
    EResult run();

    // Whether the addition or modification of this feature takes effect with the
    // next restart of the appliance.
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
