#include "source/list/list_changes.h"

#include "source/list/list_fields.h"

#include <fmt/core.h>

#include <algorithm>

namespace {

uint64_t pairOf(const SFeatureRecord& record) {
    return uint64_t{record.m_nCode} << 32 | record.m_nData;
}

// By code, the record that is the only one with it; null where several records have the code.
std::unordered_map<uint32_t, const SFeatureRecord*> singleRecords(const CFeatureRecords& records) {
    std::unordered_map<uint32_t, const SFeatureRecord*> singles;
    singles.reserve(records.size());
    for (const SFeatureRecord& record : records) {
        const auto [place, isNew] = singles.try_emplace(record.m_nCode, &record);
        if (!isNew) {
            place->second = nullptr;
        }
    }
    return singles;
}

} // namespace

// emplace keeps the first record of a code, as the hand-over does.
CFeatureMatching::CFeatureMatching(const CFeatureRecords& before, const CFeatureRecords& after) {
    for (const SFeatureRecord& record : before) {
        m_oByPair.emplace(pairOf(record), &record);
        m_oFirstOfCode.emplace(record.m_nCode, &record);
    }
    for (const SFeatureRecord& record : after) {
        ++m_oUses[record.m_nCode];
    }
}

const SFeatureRecord* CFeatureMatching::find(const SFeatureRecord& after) const {
    if (const auto same = m_oByPair.find(pairOf(after)); same != m_oByPair.end()) {
        return same->second;
    }
    const auto first = m_oFirstOfCode.find(after.m_nCode);
    return first != m_oFirstOfCode.end() && m_oUses.at(after.m_nCode) == 1 ? first->second : nullptr;
}

bool isSameList(const CFeatureRecords& before, const CFeatureRecords& after) {
    return std::equal(before.begin(), before.end(), after.begin(), after.end(), isSameFeature);
}

// A modification to 0 cannot be told, because pending data of 0 means that none is pending. Only a sourced
// feature is modified, and only if its code stands once before and after. Any other change of data is a
// withdrawal and a new feature, for which 0 is as good as any value.
void findUndeliverable(const CFeatureRecords& before, SFeatureList& after) {
    const auto old = singleRecords(before);
    const auto fresh = singleRecords(after.m_vFeatures);
    for (const SFeatureRecord& record : after.m_vFeatures) {
        const auto place = old.find(record.m_nCode);
        if (!record.m_bSourced || record.m_nData != 0 || fresh.at(record.m_nCode) == nullptr ||
            place == old.end() || place->second == nullptr) {
            continue;
        }
        if (place->second->m_bSourced && place->second->m_nData != 0) {
            after.add(
                {record.m_nLine, fmt::format("the data of sourced feature {} cannot change from {} to 0: "
                                             "withdraw it with one list, bring it back with the next",
                                             record.m_nCode, place->second->m_nData)});
        }
    }
}

size_t countWithdrawn(const CFeatureRecords& before, const CFeatureRecords& after) {
    const CFeatureMatching matching(before, after);
    const auto staying =
        std::ranges::count_if(after, [&](const auto& record) { return matching.find(record) != nullptr; });
    return before.size() - static_cast<size_t>(staying);
}
