#include "ctl/CListChange.h"

#include <algorithm>
#include <unordered_map>
#include <unordered_set>
#include <utility>

namespace {

using CNames = std::vector<std::string>;

// Those of `names` that are among `others`, or those that are not. Quadratic, but a feature has 256 at most.
CNames select(const CNames& names, const CNames& others, bool isAmong) {
    CNames selected;
    std::copy_if(names.begin(), names.end(), std::back_inserter(selected), [&](const std::string& name) {
        return (std::find(others.begin(), others.end(), name) != others.end()) == isAmong;
    });
    return selected;
}

const CNames& namesOf(const SFeatureRecord* record) {
    static const CNames none;
    return record != nullptr ? record->m_vComponents : none;
}

uint64_t pairOf(const SFeatureRecord& record) {
    return uint64_t{record.m_nCode} << 32 | record.m_nData;
}

bool isSame(const SFeatureRecord& one, const SFeatureRecord& other) {
    return pairOf(one) == pairOf(other) && one.m_bSourced == other.m_bSourced &&
           one.m_vComponents == other.m_vComponents;
}

// Which record of the list before stands for each of the new one.
class CMatching {
public:
    CMatching(const std::vector<SFeatureRecord>& before, const std::vector<SFeatureRecord>& after) {
        for (const SFeatureRecord& record : before) {
            m_oByPair.emplace(pairOf(record), &record);
            m_oFirstOfCode.emplace(record.m_nCode, &record);
        }
        for (const SFeatureRecord& record : after) {
            ++m_oUses[record.m_nCode];
        }
    }
    // Null: the feature is new.
    const SFeatureRecord* find(const SFeatureRecord& after) const {
        if (const auto same = m_oByPair.find(pairOf(after)); same != m_oByPair.end()) {
            return same->second;
        }
        const auto first = m_oFirstOfCode.find(after.m_nCode);
        return m_oUses.at(after.m_nCode) == 1 && first != m_oFirstOfCode.end() ? first->second : nullptr;
    }

private:
    std::unordered_map<uint64_t, const SFeatureRecord*> m_oByPair;
    std::unordered_map<uint32_t, const SFeatureRecord*> m_oFirstOfCode;
    std::unordered_map<uint32_t, size_t> m_oUses; // of a code in the new list
};

} // namespace

bool SFeatureChange::isOfData() const {
    return m_pBefore != nullptr && m_pAfter != nullptr && m_pBefore->m_nData != m_pAfter->m_nData;
}

CNames SFeatureChange::added() const {
    return select(namesOf(m_pAfter), namesOf(m_pBefore), false);
}

CNames SFeatureChange::dropped() const {
    return select(namesOf(m_pBefore), namesOf(m_pAfter), false);
}

CNames SFeatureChange::kept() const {
    return select(namesOf(m_pAfter), namesOf(m_pBefore), true);
}

CNames SFeatureChange::told() const {
    CNames names = isOfData() ? namesOf(m_pAfter) : added();
    const CNames others = dropped();
    names.insert(names.end(), others.begin(), others.end());
    return names;
}

CListChange::CListChange(const std::vector<SFeatureRecord>& before,
                         const std::vector<SFeatureRecord>& after) {
    m_bNothing = std::equal(before.begin(), before.end(), after.begin(), after.end(), isSame);
    if (m_bNothing) {
        return;
    }
    const CMatching matching(before, after);
    std::unordered_set<const SFeatureRecord*> staying;
    for (const SFeatureRecord& record : after) {
        const SFeatureRecord* same = matching.find(record);
        if (same == nullptr) {
            ++m_nAdded;
            add({nullptr, &record});
        } else {
            staying.insert(same);
            compare(*same, record);
        }
    }
    for (const SFeatureRecord& record : before) {
        if (!staying.contains(&record)) {
            ++m_nWithdrawn;
            add({&record, nullptr});
        }
    }
}

void CListChange::compare(const SFeatureRecord& before, const SFeatureRecord& after) {
    if (!after.m_bSourced && before.m_nData == after.m_nData) {
        ++m_nToldAgain;
    }
    const SFeatureChange change{&before, &after};
    if (before.m_nData != after.m_nData || before.m_bSourced != after.m_bSourced || !change.added().empty() ||
        !change.dropped().empty()) {
        add(change);
    }
}

void CListChange::add(SFeatureChange change) {
    const CNames told = change.told();
    m_nToldOf += told.empty() ? 0 : 1;
    m_oTold.insert(told.begin(), told.end());
    m_vChanges.push_back(change);
}
