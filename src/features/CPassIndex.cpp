#include "features/CPassIndex.h"

#include "features/CComponent.h"
#include "features/CFeatureEntry.h"

#include <new>

CPassIndex::CPassIndex(const CArray<CFeatureEntry*>& features, const CArray<CComponent*>& components) noexcept
    : m_aFeatures(features), m_aComponents(components) {
    try {
        build();
        m_bBuilt = true;
    } catch (const std::bad_alloc&) {
        m_bBuilt = false; // the pass goes on, and searches
    }
}

// The keys of m_oByName point at the components' own names, which no message can change while a pass runs.
// Components come first: markConcerned() looks into m_oByName. Positions come before markHeld(), which needs
// them all.
void CPassIndex::build() {
    const auto& features = m_aFeatures.m_vItems;
    const auto& components = m_aComponents.m_vItems;
    m_vConcerned.resize(features.size() * components.size());
    m_vHeld.resize(features.size() * components.size());
    m_oPositions.reserve(features.size());
    for (size_t i = 0; i < components.size(); ++i) {
        if (components[i] != nullptr) {
            m_oByName[components[i]->m_szName].push_back(i);
        }
    }
    for (size_t i = 0; i < features.size(); ++i) {
        if (features[i] != nullptr) {
            m_oPositions.emplace(features[i], i);
            markConcerned(i);
        }
    }
    for (size_t i = 0; i < components.size(); ++i) {
        if (components[i] != nullptr) {
            markHeld(i);
        }
    }
}

// Costs one look-up for each name of the feature, however many components there are. All components of one
// name are marked.
void CPassIndex::markConcerned(size_t feature) {
    const auto mark = [&](std::string_view name) {
        if (const auto found = m_oByName.find(name); found != m_oByName.end()) {
            for (const size_t component : found->second) {
                m_vConcerned[bit(feature, component)] = true;
            }
        }
    };
    for (const char* always : CFeatureEntry::aAlwaysConcerned) {
        mark(always);
    }
    for (const char* name : m_aFeatures.m_vItems[feature]->m_vCompNames) {
        if (name != nullptr) {
            mark(name);
        }
    }
}

// Entries of a component's array that are not in the table have no position, and no pass asks about them.
void CPassIndex::markHeld(size_t component) {
    for (const CFeatureEntry* entry : m_aComponents.m_vItems[component]->m_aFeatures.m_vItems) {
        if (const size_t feature = positionOf(entry); feature != SIZE_MAX) {
            m_vHeld[bit(feature, component)] = true;
        }
    }
}

bool CPassIndex::concerns(size_t feature, size_t component) const {
    return m_bBuilt
               ? bool{m_vConcerned[bit(feature, component)]}
               : m_aFeatures.m_vItems[feature]->findCompName(m_aComponents.m_vItems[component]->m_szName) !=
                     0;
}

bool CPassIndex::holds(size_t component, size_t feature) const {
    return m_bBuilt ? bool{m_vHeld[bit(feature, component)]}
                    : m_aComponents.m_vItems[component]->findFeatureEntry(m_aFeatures.m_vItems[feature]) != 0;
}
