// The demonstration's own copy of the example list.
#ifndef QEL_DEMO_CDEMOLIST_H
#define QEL_DEMO_CDEMOLIST_H

#include "source/list/feature_list.h"

#include <set>
#include <string>
#include <utility>
#include <vector>

class CDemoList {
public:
    using CPair = std::pair<uint32_t, uint32_t>; // code, data

    // Throws std::runtime_error where the file is no good list.
    static CDemoList read(const std::string& path);
    // Renames over the file, so that nobody sees half of it. Throws std::runtime_error.
    void write(const std::string& path) const;

    // The one feature with that code; throws std::runtime_error where there is none or another one.
    SFeatureRecord& find(uint32_t code);
    // Throws std::runtime_error where the code is there already.
    void insert(bool atFront, SFeatureRecord feature);
    void remove(uint32_t code);

    std::set<CPair> concerning(const std::string& component) const;
    // What the operator's list shows: all but the features that are kept from list to list.
    std::set<CPair> shown() const;
    size_t size() const { return m_vFeatures.size(); }

private:
    std::vector<SFeatureRecord> m_vFeatures;
};

// As it stands in a list file.
std::string printFeature(const SFeatureRecord& feature);

#endif
