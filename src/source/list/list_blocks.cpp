#include "source/list/list_blocks.h"

#include <algorithm>

namespace {

bool isBlank(char c) {
    return c == ' ' || c == '\t';
}

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

// TOML allows blanks inside the brackets. A header in another spelling, say with the key in quotes, is not
// seen here; it stays in the block before, where the parser finds the table all the same.
bool isFeatureHeader(std::string_view line) {
    return skipWord(line, "[[") && skipWord(line, "feature") && skipWord(line, "]]");
}

// Follows strings, comments, brackets and dotted keys through the text, as far as that is needed to know what
// is inside a string and how deep the nesting goes. Judges nothing: errors are for the parser to find.
class CListScanner {
public:
    // True inside a string that goes on over line ends.
    bool isInText() const { return m_sClosing.size() == 3; }
    // Reading stops there, so neither number can overflow.
    bool isTooDeep() const { return m_nDepth > nMaxListNesting || m_nDots > nMaxListNesting; }
    // A bracket that a faulty feature leaves open must not spoil the features behind it. An open multi-line
    // string does: it hides their headers, and the parser reports the string.
    void startBlock() { *this = CListScanner(); }

    // Takes in one line, without its line end. A string that is not multi-line ends with its line at the
    // latest: if it is still open, that is an error of this line, and must not hide the next ones.
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
    // Both return how many characters they have dealt with, at least one.
    size_t plain(std::string_view line) {
        switch (line.front()) {
        case '#':
            return line.size();
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
            // Too many closing brackets are for the parser to report.
            m_nDepth = std::max(0, m_nDepth - 1);
            break;
        case '.':
            // The parser recurses with a dotted key. The dots of numbers count too, but no number has many.
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
        // Only basic strings have escapes; literal ones take the backslash as it is (TOML 1.0, "String").
        if (line.front() == '\\' && m_sClosing.front() == '"') {
            return std::min<size_t>(2, line.size());
        }
        if (!line.starts_with(m_sClosing)) {
            return 1;
        }
        // TOML allows one or two quotation marks right before the closing three; they belong to the text.
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
};

} // namespace

// One walk over the text. A block ends where the next header's line begins, so comments above a feature
// belong to the block before, where they do no harm.
std::vector<SListBlock> cutFeatureList(std::string_view text) {
    std::vector<SListBlock> blocks(1);
    CListScanner scanner;
    size_t blockStart = 0;
    size_t lineStart = 0;
    for (uint32_t number = 1; lineStart < text.size(); ++number) {
        const size_t lineEnd = std::min(text.find('\n', lineStart), text.size());
        const std::string_view line = text.substr(lineStart, lineEnd - lineStart);
        if (!scanner.isInText() && isFeatureHeader(line)) {
            blocks.back().m_sText = text.substr(blockStart, lineStart - blockStart);
            blocks.push_back({{}, number, true, 0});
            blockStart = lineStart;
            scanner.startBlock();
        }
        scanner.scan(line);
        // Marked, so that nobody gives this block to the parser.
        if (scanner.isTooDeep() && blocks.back().m_nTooDeepLine == 0) {
            blocks.back().m_nTooDeepLine = number;
        }
        lineStart = lineEnd + 1;
    }
    blocks.back().m_sText = text.substr(std::min(blockStart, text.size()));
    return blocks;
}
