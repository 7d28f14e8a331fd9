#include "features/CEntryFinder.h"

#include <algorithm>
#include <new>

namespace {

// The first entry that passes the test; null slots are skipped.
template <typename Test>
CFeatureEntry* walk(const CArray<CFeatureEntry*>& entries, Test test) {
    const auto found =
        std::find_if(entries.m_vItems.begin(), entries.m_vItems.end(),
                     [&](const CFeatureEntry* entry) { return entry != nullptr && test(*entry); });
    return found != entries.m_vItems.end() ? *found : nullptr;
}

} // namespace

// Starts from an empty index, which allocates nothing, so that whatever fails does so inside update(). Filled
// in the order of the array: the first of equal pairs stays the first of its vector.
CEntryFinder::CEntryFinder(const CArray<CFeatureEntry*>& entries) noexcept
    : m_aEntries(entries), m_oIndex(SIndex()) {
    update([&](SIndex& index) {
        index.m_oByFeature.reserve(entries.m_vItems.size());
        index.m_oByCode.reserve(entries.m_vItems.size());
        for (CFeatureEntry* entry : entries.m_vItems) {
            if (entry != nullptr) {
                index.append(entry);
            }
        }
    });
}

void CEntryFinder::SIndex::append(CFeatureEntry* entry) {
    m_oByFeature[entry->id()].push_back(entry);
    m_oByCode[entry->m_nCode].m_vEntries.push_back(entry);
}

// If a change runs out of memory halfway, the index no longer stands for the array. It is dropped as a whole,
// and every later look-up walks.
template <typename Change>
void CEntryFinder::update(Change change) noexcept {
    if (!m_oIndex) {
        return;
    }
    try {
        change(*m_oIndex);
    } catch (const std::bad_alloc&) {
        m_oIndex.reset();
    }
}

CFeatureEntry* CEntryFinder::find(const SFeature& feature) const {
    if (!m_oIndex) {
        return walk(m_aEntries, [&](const CFeatureEntry& entry) { return entry.id() == feature; });
    }
    // A vector is empty where changed() took its only entry away.
    const auto found = m_oIndex->m_oByFeature.find(feature);
    return found != m_oIndex->m_oByFeature.end() && !found->second.empty() ? found->second.front() : nullptr;
}

// Entries that have the status keep it, so they need not be looked at again. All look-ups of one code
// together thus cost no more than it has entries.
CFeatureEntry* CEntryFinder::findOfCode(uint32_t code, CFeatureEntry::EFStatus butNot) {
    if (!m_oIndex) {
        return walk(m_aEntries, [&](const CFeatureEntry& entry) {
            return entry.m_nCode == code && entry.m_eStatus != butNot;
        });
    }
    const auto found = m_oIndex->m_oByCode.find(code);
    if (found == m_oIndex->m_oByCode.end()) {
        return nullptr;
    }
    auto& [entries, next] = found->second;
    while (next < entries.size() && entries[next]->m_eStatus == butNot) {
        ++next;
    }
    return next < entries.size() ? entries[next] : nullptr;
}

void CEntryFinder::appended(CFeatureEntry* entry) noexcept {
    update([entry](SIndex& index) { index.append(entry); });
}

// Appending keeps the order of the array, since no other entry has the new pair. The code is the same as
// before, so the index by code needs no change.
void CEntryFinder::changed(CFeatureEntry* entry, uint32_t before) noexcept {
    update([=](SIndex& index) {
        std::erase(index.m_oByFeature[{entry->m_nCode, before}], entry);
        index.m_oByFeature[entry->id()].push_back(entry);
    });
}
