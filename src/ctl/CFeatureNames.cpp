#include "ctl/CFeatureNames.h"

#include "base/CDescriptions.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

CFeatureNames CFeatureNames::load() {
    const char* path = std::getenv("QEL_DESCRIPTION");
    std::ifstream file(path ? path : QEL_DESCRIPTION_FILE, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf(); // nothing, where there is no such file or it cannot be read
    return parse(text.str());
}

// Assignment, not insertion: a later line with the same code takes over.
CFeatureNames CFeatureNames::parse(std::string_view text) {
    CFeatureNames names;
    for (CDescriptions lines(text); lines.next();) {
        names.m_oNames[lines.code()] = lines.name();
    }
    return names;
}

std::string_view CFeatureNames::find(uint32_t code) const {
    auto it = m_oNames.find(code);
    return it == m_oNames.end() ? std::string_view() : it->second;
}
