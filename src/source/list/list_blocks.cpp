#include "source/list/list_blocks.h"

#include <algorithm>

namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

// Steps over blanks.
void skipBlanks(std::string_view& line) {
    while (!line.empty() && isBlank(line.front())) {
        line.remove_prefix(1);
    }
}

bool skipWord(std::string_view& line, std::string_view word) {
    skipBlanks(line);
    if (!line.starts_with(word)) {
        return false;
    }
    line.remove_prefix(word.size());
    return true;
}

bool isFeatureHeader(std::string_view line) {
    return skipWord(line, "[[") && skipWord(line, "feature") && skipWord(line, "]]");
}

// Follows strings, brackets and dotted keys through a block, as far as needed to tell what is nested how deep
// and how much there is.
class CListScanner {
public:
    // True inside a string that goes on over line ends.
    bool isInText() const { return m_sClosing.size() == 3; }
    bool isTooDeep() const { return m_nDepth > nMaxListNesting || m_nDots > nMaxListNesting; }
    bool isTooLong() const { return m_nLength > nMaxBlockLength; }

    // Takes in one line, without its line end.
    void scan(std::string_view line) {
        m_nDots = 0;
        while (!line.empty() && !isTooDeep()) {
            line.remove_prefix(m_sClosing.empty() ? plain(line) : quoted(line));
        }
        if (!isInText()) {
            m_sClosing = {};
        }
    }

private:
    // Both return how many characters they dealt with.
    size_t plain(std::string_view line) {
        const char c = line.front();
        if (c == '#') {
            return line.size();
        }
        m_nLength += isBlank(c) || c == '\r' ? 0 : 1;
        switch (c) {
        case '"':
        case '\'':
            m_sClosing = line.substr(0, isTripled(line) ? 3 : 1);
            return m_sClosing.size();
        case '[':
        case '{':
            ++m_nDepth;
            break;
        case ']':
        case '}':
            m_nDepth = std::max(0, m_nDepth - 1);
            break;
        case '.':
            ++m_nDots;
            return 1;
        case ',':
        case '=':
            m_nDots = 0;
            break;
        default:
            break;
        }
        return 1;
    }

    size_t quoted(std::string_view line) {
        const size_t length = quotedLength(line);
        m_nLength += length;
        return length;
    }

    size_t quotedLength(std::string_view line) {
        if (line.front() == '\\' && m_sClosing.front() == '"') {
            return std::min<size_t>(2, line.size());
        }
        if (!line.starts_with(m_sClosing)) {
            return 1;
        }
        // Quotes right before the closing ones belong to the text.
        const size_t quotes = std::min(line.find_first_not_of(m_sClosing.front()), line.size());
        const size_t length = m_sClosing.size() == 1 ? 1 : quotes;
        m_sClosing = {};
        return length;
    }

    static bool isTripled(std::string_view line) {
        return line.size() >= 3 && line[1] == line[0] && line[2] == line[0];
    }

    std::string_view m_sClosing; // what ends the string that is open; empty: none is
    int m_nDepth = 0;            // brackets open
    int m_nDots = 0;             // in the key being read
    size_t m_nLength = 0;        // characters, without comments and blanks
};

} // namespace

std::optional<SListBlock> CListBlocks::next() {
    if (m_sRest.empty()) {
        return std::nullopt;
    }
    SListBlock block;
    block.m_nLine = m_nLine;
    CListScanner scanner;
    size_t taken = 0; // up to the start of a line
    while (taken < m_sRest.size()) {
        const size_t lineEnd = std::min(m_sRest.find('\n', taken), m_sRest.size());
        const std::string_view line = m_sRest.substr(taken, lineEnd - taken);
        if (!scanner.isInText() && isFeatureHeader(line)) {
            if (taken != 0) {
                break;
            }
            block.m_bFeature = true;
        }
        scanner.scan(line);
        if (scanner.isTooDeep() && block.m_nTooDeepLine == 0) {
            block.m_nTooDeepLine = m_nLine;
        }
        ++m_nLine;
        taken = std::min(lineEnd + 1, m_sRest.size());
    }
    block.m_bTooLong = scanner.isTooLong();
    block.m_sText = m_sRest.substr(0, taken);
    m_sRest.remove_prefix(taken);
    return block;
}
