// The look-ups of a walk over features and components.
#ifndef QEL_FEATURES_WALKS_H
#define QEL_FEATURES_WALKS_H

#include "base/CArray.h"
#include "features/CCompStatus.h"
#include "features/CWalkIndex.h"

#include <vector>

class CFeatureEntry;

inline const void* componentOf(const CCompStatus* record) {
    return record != nullptr ? record->m_pComponent : nullptr;
}

inline const void* entryItself(const CFeatureEntry* entry) {
    return entry;
}

using CRecordIndex = CWalkIndex<CCompStatus, componentOf>;    // a feature's records, by component
using CHoldingIndex = CWalkIndex<CFeatureEntry, entryItself>; // the features in a component's array

// One index a slot of the table; that of a null slot is empty.
std::vector<CHoldingIndex> holdingsOf(const CArray<CComponent*>& components);

#endif
