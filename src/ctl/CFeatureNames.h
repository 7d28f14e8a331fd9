// The names of the features, from the description file.
#ifndef QEL_CTL_CFEATURENAMES_H
#define QEL_CTL_CFEATURENAMES_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

// Reads the file as the daemon does, through CDescriptions: if several lines have one code, the last one
// gives the name.
class CFeatureNames {
public:
    // From the file that QEL_DESCRIPTION names in the environment, else from the one compiled in. Without
    // either, or if it cannot be read, there are no names: a list without names is better than no list. The
    // latter is told on stderr.
    static CFeatureNames load();
    static CFeatureNames parse(std::string_view text);

    // The name, as it stands in the file; empty if the feature has none. Valid as long as this object.
    std::string_view find(uint32_t code) const;
    size_t size() const { return m_oNames.size(); }

private:
    std::unordered_map<uint32_t, std::string> m_oNames;
};

#endif
