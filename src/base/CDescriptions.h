// Reads the feature description file: a name for each feature code, for people.
#ifndef QEL_BASE_CDESCRIPTIONS_H
#define QEL_BASE_CDESCRIPTIONS_H

#include <cstddef>
#include <cstdint>
#include <string_view>

// One feature a line, "code,name"; docs/feature-list.md tells the format to operators. Every '\r' and every '\n' ends a
// line. Empty fields are dropped, what follows the second field is ignored, and a line with less than two says
// nothing. A first field that is no number counts as 0. Of several lines with one code the last gives the name.
//
// Walks through the text, which must stay; allocates nothing.
class CDescriptions {
public:
    // The text ends at its first NUL.
    explicit CDescriptions(std::string_view text) : m_sRest(text.substr(0, text.find('\0'))) {}

    // Goes on to the next line that names a feature. False: there is none.
    bool next();

    uint32_t code() const { return m_nCode; }
    std::string_view name() const { return m_sName; } // as it is written, blanks and all; never empty

    // Leading blanks (' ' only), an optional sign, decimal digits; 0 where there is no number. Beyond 32 bits it
    // wraps: codes are compared bit for bit, so that -1 and 4294967295 are one.
    static uint32_t readNumber(std::string_view text);

private:
    std::string_view m_sRest;
    uint32_t m_nCode = 0;
    std::string_view m_sName;
};

#endif
