#include "base/CDescriptions.h"

#include <algorithm>

namespace {

// Where the text's next `c` is, from `at` on; its size if there is none. `known` is the answer for an earlier
// place, which mostly is the answer still: so of a kind of line end that a text does not have, the whole text
// is searched once.
void seek(std::string_view text, char c, size_t at, size_t& known) {
    if (known < at) {
        known = std::min(text.find(c, at), text.size());
    }
}

void skipCommas(std::string_view& text) {
    text.remove_prefix(std::min(text.find_first_not_of(','), text.size()));
}

} // namespace

CDescriptions::CDescriptions(std::string_view text)
    : m_sText(text.substr(0, text.find('\0'))), m_nLineFeed(std::min(m_sText.find('\n'), m_sText.size())),
      m_nReturn(std::min(m_sText.find('\r'), m_sText.size())) {}

// The daemon walks the whole file for each feature that it names, hence the care: one search for the line's
// end, one for the code's, and none for the name's, which few ask for.
bool CDescriptions::next() {
    while (m_nAt < m_sText.size()) {
        seek(m_sText, '\n', m_nAt, m_nLineFeed);
        seek(m_sText, '\r', m_nAt, m_nReturn);
        const size_t end = std::min(m_nLineFeed, m_nReturn);
        std::string_view line = m_sText.substr(m_nAt, end - m_nAt);
        m_nAt = end + 1;
        skipCommas(line);
        const std::string_view code = line.substr(0, line.find(','));
        m_sNames = line.substr(code.size());
        skipCommas(m_sNames);
        if (!m_sNames.empty()) {
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
