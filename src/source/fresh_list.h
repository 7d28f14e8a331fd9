// A new feature list on its way from the source's thread to the main loop's.
#ifndef QEL_SOURCE_FRESH_LIST_H
#define QEL_SOURCE_FRESH_LIST_H

#include "features/CFeatureEntry.h"

#include <memory>
#include <vector>

// The entry is as constructed except for code, data, component names and display name, and nobody else knows
// it yet. So the source's thread may build it, although entries are otherwise the main loop's.
struct SFreshFeature {
    std::unique_ptr<CFeatureEntry> m_pEntry;
    bool m_bSourced = false; // what the entry's own flag is to become once it is in force
};

using CFreshList = std::vector<SFreshFeature>; // in the file's order; no pair twice

#endif
