// The merge of a complete new feature list into the control's table.
#ifndef QEL_FEATURES_CFEATUREMERGE_H
#define QEL_FEATURES_CFEATUREMERGE_H

#include "base/CArray.h"
#include "features/CChainIndex.h"

#include <cstdint>
#include <optional>
#include <vector>

class CFeatureEntry;

// One merge, made and used once. The table and the list are the caller's; slots of the list whose entry is
// adopted into the table or deleted become null.
//
// The rules are those of a walk that looks through table and list from the start for every entry; the indexes
// only find the same entries at once. An entry of the table is in its index under the data that it has now;
// an index by code is made from the table when first asked for, and kept up from then on.
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
    uint32_t findByCodeData(const CFeatureEntry& fresh) const; // a position in the table
    CChainIndex& tableByCode();
    CChainIndex& listByCode();
    bool take(CFeatureEntry* fresh);
    void reuse(uint32_t position);
    void setIdle(CFeatureEntry& entry, uint32_t position) const;
    void modify(CFeatureEntry& entry, uint32_t position, const CFeatureEntry& fresh);
    void reuseDisabled(CFeatureEntry& entry, uint32_t position, const CFeatureEntry& fresh);
    void adopt(CFeatureEntry* fresh);
    void setData(CFeatureEntry& entry, uint32_t position, uint32_t data);
    void testReboot(uint32_t code, uint32_t data);

    CArray<CFeatureEntry*>& m_aTable;
    CArray<CFeatureEntry*>& m_aList;
    EResult m_eResult = rsNothing;
    const size_t m_nKeys;       // about as many as the table will have
    CChainIndex m_oTableByPair; // every entry
    CChainIndex m_oListByPair;
    // Made when first needed: a list that changes little needs none of them.
    std::optional<CChainIndex> m_oTableByCode; // less those found existing
    std::optional<CChainIndex> m_oListByCode;  // less those claimed
    std::vector<bool> m_vIsIdle; // by position in the table: the records of the entry were set idle
};

#endif
