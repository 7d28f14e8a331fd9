#include "base/CDescriptions.h"

#include <algorithm>

namespace {

// Removes the next non-empty part from the front of the text and returns it; empty if there is none. The
// separator behind it stays and is skipped by the next call, which is how empty lines and fields vanish.
std::string_view cut(std::string_view& text, std::string_view separators) {
    text.remove_prefix(std::min(text.find_first_not_of(separators), text.size()));
    const std::string_view part = text.substr(0, text.find_first_of(separators));
    text.remove_prefix(part.size());
    return part;
}

} // namespace

bool CDescriptions::next() {
    while (!m_sRest.empty()) {
        // At the end of the text both fields come out empty, and the loop ends.
        std::string_view line = cut(m_sRest, "\r\n");
        const std::string_view code = cut(line, ",");
        m_sName = cut(line, ",");
        if (!m_sName.empty()) {
            m_nCode = readNumber(code);
            return true;
        }
    }
    return false;
}

uint32_t CDescriptions::readNumber(std::string_view text) {
    text.remove_prefix(std::min(text.find_first_not_of(' '), text.size()));
    const bool isNegative = text.starts_with('-');
    if (isNegative || text.starts_with('+')) {
        text.remove_prefix(1);
    }
    // Unsigned arithmetic wraps where signed overflow would be undefined; strtol() would saturate instead.
    uint32_t number = 0;
    for (const char c : text) {
        if (c < '0' || c > '9') {
            break;
        }
        number = number * 10 + static_cast<uint32_t>(c - '0');
    }
    return isNegative ? 0 - number : number;
}
