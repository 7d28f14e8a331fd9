// What one pass over features and components looks up, built for that pass.
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

// Answers two questions about each pair of a feature and a component, given by their positions in the tables:
// does the feature concern the component, and does the component's array hold the feature. A search of the
// arrays would make a pass over n features look through n features for each of them. Where there is no memory
// for the index, it searches all the same, with the same answers.
//
// It takes two bits for each pair, and a map entry for each feature: 1.6 MB of bits for 100,000 features and
// 64 components. It is a snapshot: it must not outlive the pass, and what happens to the tables, the names
// and the arrays after its construction does not show in it.
class CPassIndex {
public:
    CPassIndex(const CArray<CFeatureEntry*>& features, const CArray<CComponent*>& components) noexcept;

    // False where there was no memory; concerns() and holds() work nevertheless.
    bool isBuilt() const { return m_bBuilt; }

    // What CFeatureEntry::findCompName() says of the component's name. Neither slot may be null.
    bool concerns(size_t feature, size_t component) const;
    // What CComponent::findFeatureEntry() says. Neither slot may be null.
    bool holds(size_t component, size_t feature) const;
    // The feature's position in the table; SIZE_MAX if it was not there. Only if isBuilt(). The pointer is
    // compared and not followed.
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
    // Positions of components by name; several, where a component took over another's name.
    std::unordered_map<std::string_view, std::vector<size_t>> m_oByName;
    std::vector<bool> m_vConcerned; // one for each pair, at bit()
    std::vector<bool> m_vHeld;      // likewise
};

#endif
