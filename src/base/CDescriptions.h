// Reads the feature description file: a name for each feature code, for people.
#ifndef QEL_BASE_CDESCRIPTIONS_H
#define QEL_BASE_CDESCRIPTIONS_H

#include <cstddef>
#include <cstdint>
#include <string_view>

// The daemon and qelctl both read the file with this class, so both give a feature the same name. The format:
//
// - Each line names one feature, as "code,name". Every '\r' and every '\n' ends a line, so the line ends of
//   all systems work.
// - Empty fields are dropped, so ",,12,,Paging" reads as "12,Paging". Fields after the second are ignored.
// - A line with fewer than two fields is skipped.
// - A first field that is not a number counts as 0.
// - If several lines have the same code, the last one gives the name. Callers therefore read to the end.
//
// Walks over the caller's text, which must outlive the object and the names taken from it. Allocates nothing
// and reports no faults: a malformed line costs a name, never a feature.
class CDescriptions {
public:
    // The text ends at its first NUL, if it has one.
    explicit CDescriptions(std::string_view text);

    // Moves to the next line that names a feature; call it before the first one. False: there are no more.
    bool next();

    // Of the current line.
    uint32_t code() const { return m_nCode; }
    // Exactly as written, with its blanks; never empty.
    std::string_view name() const { return m_sNames.substr(0, m_sNames.find(',')); }

    // Reads leading blanks (' ' only), an optional sign and decimal digits; what follows them is ignored. 0
    // where there is no number. Values beyond 32 bits wrap, so -1 and 4294967295 are the same code.
    static uint32_t readNumber(std::string_view text);

private:
    std::string_view m_sText;
    size_t m_nAt = 0;   // begin of the next line
    size_t m_nLineFeed; // the next one from some place at or before m_nAt on
    size_t m_nReturn;   // likewise
    uint32_t m_nCode = 0;
    std::string_view m_sNames; // the name, and the fields behind it
};

#endif
