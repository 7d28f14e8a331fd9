// The names of the features, from the description file.
#ifndef QEL_CTL_CFEATURENAMES_H
#define QEL_CTL_CFEATURENAMES_H

#include <cstdint>
#include <string>
#include <string_view>
#include <unordered_map>

// As CDescriptions reads them: of several lines with one code the last gives the name.
class CFeatureNames {
public:
    // From the file that QEL_DESCRIPTION names in the environment, else from the one compiled in; without
    // either, or if it cannot be read, there are no names.
    static CFeatureNames load();
    static CFeatureNames parse(std::string_view text);

    // Empty for a feature without one.
    std::string_view find(uint32_t code) const;

private:
    std::unordered_map<uint32_t, std::string> m_oNames;
};

#endif
