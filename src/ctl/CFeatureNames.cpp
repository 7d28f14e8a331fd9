#include "ctl/CFeatureNames.h"

#include "base/CString.h"

#include <cstdlib>
#include <fstream>
#include <sstream>

namespace {

// Leading blanks, a sign, decimal digits; modulo 2^32, as codes are compared bit for bit.
uint32_t readCode(const char* text) {
    while (*text == ' ') {
        ++text;
    }
    bool negative = *text == '-';
    text += *text == '-' || *text == '+';
    uint32_t code = 0;
    for (; *text >= '0' && *text <= '9'; ++text) {
        code = code * 10 + static_cast<uint32_t>(*text - '0');
    }
    return negative ? 0 - code : code;
}

} // namespace

CFeatureNames CFeatureNames::load() {
    const char* path = std::getenv("QEL_DESCRIPTION");
    std::ifstream file(path ? path : QEL_DESCRIPTION_FILE, std::ios::binary);
    std::ostringstream text;
    text << file.rdbuf(); // nothing, where there is no such file or it cannot be read
    return parse(text.str());
}

CFeatureNames CFeatureNames::parse(const std::string& text) {
    CFeatureNames names;
    for (const CString& line : CString(text.c_str()).tokenize("\r\n", CString::eSkipDelimiters)) {
        auto fields = line.tokenize(",", CString::eSkipDelimiters);
        if (fields.size() >= 2) {
            names.m_oNames[readCode(fields[0].c_str())] = fields[1].c_str();
        }
    }
    return names;
}

std::string_view CFeatureNames::find(uint32_t code) const {
    auto it = m_oNames.find(code);
    return it == m_oNames.end() ? std::string_view() : it->second;
}
