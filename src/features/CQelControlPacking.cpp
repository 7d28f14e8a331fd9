// The packed list of features in force, for OAM.
#include "features/CQelControl.h"

#include "features/CFeatureEntry.h"
#include "messaging/wire/wire.h"

#include <algorithm>
#include <cstring>

namespace {

// Entries that the source keeps from list to list are not OAM's.
bool isPacked(const CFeatureEntry* entry) {
    return entry != nullptr && entry->m_bSourced != 1;
}

} // namespace

int CQelControl::getPackSize() {
    const auto& entries = m_aFeatures.m_vItems;
    const auto packed = std::count_if(entries.begin(), entries.end(), isPacked);
    return static_cast<int>(sizeof(CBigEndian32) + static_cast<size_t>(packed) * sizeof(CQelFeatureRecord));
}

// The count is that of all slots, packed or not: readers go by the length of the buffer.
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
