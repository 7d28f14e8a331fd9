#include "features/CConcernIndex.h"

#include "features/CComponent.h"
#include "features/CFeatureEntry.h"

#include <algorithm>

CConcernIndex::CConcernIndex(const CArray<CComponent*>& components) {
    for (size_t i = 0; i < components.m_vItems.size(); ++i) {
        const CComponent* comp = components.m_vItems[i];
        if (comp == nullptr) {
            continue;
        }
        if (CFeatureEntry::isConcernedByAll(comp->m_szName)) {
            m_vAlways.push_back(i);
        } else {
            m_oByName[comp->m_szName].push_back(i);
        }
    }
    m_vConcerned = m_vAlways;
}

// Neighbours in the table often name the same components, by the same pointers.
const std::vector<size_t>& CConcernIndex::of(const CFeatureEntry& entry) {
    if (entry.m_vCompNames == m_vLastNames) {
        return m_vConcerned;
    }
    m_vLastNames = entry.m_vCompNames;
    m_vConcerned = m_vAlways;
    for (const char* name : m_vLastNames) {
        auto found = name != nullptr ? m_oByName.find(name) : m_oByName.end();
        if (found != m_oByName.end()) {
            m_vConcerned.insert(m_vConcerned.end(), found->second.begin(), found->second.end());
        }
    }
    std::sort(m_vConcerned.begin(), m_vConcerned.end());
    m_vConcerned.erase(std::unique(m_vConcerned.begin(), m_vConcerned.end()), m_vConcerned.end());
    return m_vConcerned;
}
