// The packed list of features in force, for OAM.
#include "features/CQelControl.h"

#include "features/CFeatureEntry.h"
#include "messaging/wire/wire.h"

#include <algorithm>
#include <cstring>

namespace {

// Sourced entries, which the source keeps from list to list, are not shown to OAM.
bool isPacked(const CFeatureEntry* entry) {
    return entry != nullptr && entry->m_bSourced != 1;
}

} // namespace

// Counts with the same test that packFeatures() writes by, on the same thread, so the size fits the records.
int CQelControl::getPackSize() {
    const auto& entries = m_aFeatures.m_vItems;
    const auto packed = std::count_if(entries.begin(), entries.end(), isPacked);
    return static_cast<int>(sizeof(CBigEndian32) + static_cast<size_t>(packed) * sizeof(CQelFeatureRecord));
}

// The first word counts all slots of the table, packed or not; readers go by the length of the buffer.
// Withdrawn features are packed as long as they stand in the table, with their status. The texts are empty at
// present. The records are copied bytewise, for the buffer has no alignment.
int CQelControl::packFeatures(char* buffer) {
    if (buffer == nullptr) {
        return 0;
    }
    const CBigEndian32 count(static_cast<uint32_t>(m_aFeatures.m_vItems.size()));
    std::memcpy(buffer, &count, sizeof count);
    buffer += sizeof count;
    for (const CFeatureEntry* entry : m_aFeatures.m_vItems) {
        if (isPacked(entry)) {
            const CQelFeatureRecord record{static_cast<uint32_t>(entry->m_eStatus), entry->m_nCode,
                                           entry->m_nData, 0};
            std::memcpy(buffer, &record, sizeof record);
            buffer += sizeof record;
        }
    }
    return 1;
}
