#include "ctl/CListChange.h"

#include "source/list/list_changes.h"

#include <algorithm>
#include <unordered_set>

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
    m_bNothing = isSameList(before, after);
    if (m_bNothing) {
        return;
    }
    const CFeatureMatching matching(before, after);
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
