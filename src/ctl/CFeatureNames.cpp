#include "ctl/CFeatureNames.h"

#include "base/CDescriptions.h"
#include "ctl/terminal.h"
#include "source/list/feature_list.h"
#include "source/list/whole_file.h"

#include <cstdlib>

CFeatureNames CFeatureNames::load() {
    const char* configured = std::getenv("QEL_DESCRIPTION");
    const std::string path = configured != nullptr ? configured : QEL_DESCRIPTION_FILE;
    if (path.empty()) {
        return {};
    }
    const SWholeFile file = readWholeFile(path, nMaxListFileSize);
    if (!file.m_sError.empty()) {
        complain("no names: " + path + ": " + file.m_sError);
        return {};
    }
    return parse(file.m_sText);
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
