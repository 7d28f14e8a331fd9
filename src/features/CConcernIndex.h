// Which components a feature concerns, for a walk over many features.
#ifndef QEL_FEATURES_CCONCERNINDEX_H
#define QEL_FEATURES_CCONCERNINDEX_H

#include "base/CArray.h"

#include <cstddef>
#include <string_view>
#include <unordered_map>
#include <vector>

class CComponent;
class CFeatureEntry;

// Answers as CFeatureEntry::findCompName() does for each component of the table, in table order, in time
// linear in the feature's own names. Good for as long as no component comes, goes or is renamed.
class CConcernIndex {
public:
    explicit CConcernIndex(const CArray<CComponent*>& components);

    // Table positions of the components concerned, ascending; valid until the next call.
    const std::vector<size_t>& of(const CFeatureEntry& entry);

private:
    std::unordered_map<std::string_view, std::vector<size_t>> m_oByName;
    std::vector<size_t> m_vAlways; // components that every feature concerns
    std::vector<const char*> m_vLastNames;
    std::vector<size_t> m_vConcerned; // of the feature with m_vLastNames
};

#endif
