// What a pass over features and components looks up, built for the one pass.
#ifndef QEL_FEATURES_CPASSINDEX_H
#define QEL_FEATURES_CPASSINDEX_H

#include "base/CArray.h"

#include <cstddef>
#include <cstdint>
#include <string_view>
#include <unordered_map>
#include <vector>

class CComponent;
class CFeatureEntry;

// Answers for each feature and component, by their positions in the tables, what the entry's names and the
// component's array would be searched for: without it a pass over n features would look through n features for
// each of them. Where there is no memory for it, it searches. Good for as long as no feature or component comes
// or goes.
class CPassIndex {
public:
    CPassIndex(const CArray<CFeatureEntry*>& features, const CArray<CComponent*>& components) noexcept;

    // False where there was no memory.
    bool isBuilt() const { return m_bBuilt; }

    // As CFeatureEntry::findCompName() says of the component's name. Neither slot may be null.
    bool concerns(size_t feature, size_t component) const;
    // As CComponent::findFeatureEntry() says. Neither slot may be null.
    bool holds(size_t component, size_t feature) const;
    // Where the feature stands in the table; SIZE_MAX if it does not. Only where the index is built.
    size_t positionOf(const CFeatureEntry* entry) const {
        const auto found = m_oPositions.find(entry);
        return found != m_oPositions.end() ? found->second : SIZE_MAX;
    }

private:
    void build();
    void markConcerned(size_t feature);
    void markHeld(size_t component);
    size_t bit(size_t feature, size_t component) const {
        return feature * m_aComponents.m_vItems.size() + component;
    }

    const CArray<CFeatureEntry*>& m_aFeatures;
    const CArray<CComponent*>& m_aComponents;
    bool m_bBuilt = false;
    std::unordered_map<const CFeatureEntry*, size_t> m_oPositions;
    std::unordered_map<std::string_view, std::vector<size_t>> m_oByName; // positions of components
    std::vector<bool> m_vConcerned;                                      // a bit a pair
    std::vector<bool> m_vHeld;
};

#endif
