// The string value type at interfaces, and the tokenizer.
#ifndef QEL_BASE_CSTRING_H
#define QEL_BASE_CSTRING_H

#include <string>
#include <vector>

// One text of single-byte characters, without NULs. Passed by value where a text goes to another object. A
// copy may throw std::bad_alloc; the operations below do not, unless they say so.
class CString {
public:
    enum EReturnTokensFlag { eSkipDelimiters = 0, eReturnDelimiters = 1 };

    CString() = default;
    // Copies the text up to its NUL; null counts as empty.
    CString(const char* text) : m_sText(text != nullptr ? text : "") {}

    const char* c_str() const { return m_sText.c_str(); }
    bool empty() const { return m_sText.empty(); }

    // First position whose byte equals `c`, from 0 to 255. For 0 that is the terminating NUL. Null if there
    // is none or `c` is outside the range: unlike strchr(3), it does not convert `c` to a char first.
    static const char* strchr(const char* text, int c);

    // Matches abbreviations: only as many characters are compared as the shorter text has, so a prefix equals
    // the whole word and an empty text equals everything. Hence it is no test of identity, and no order to
    // sort by. 0 if the texts match; otherwise the difference of the first unequal bytes, with their case as
    // it is.
    int compareIgnoreCase(const char* other) const;
    int compareIgnoreCase(const CString& other) const;

    // Writes the bytes as decimal numbers of one to three digits, without separators, then a NUL. `out` must
    // have room for three characters a byte and one more.
    static void convert2Digits(const unsigned char* bytes, int count, char* out);

    // Splits the text at each character of `delimiters` and drops empty tokens. With eReturnDelimiters, every
    // delimiter also yields a token that runs from it to the end of the text. No tokens where memory is
    // exhausted: all or nothing, so a caller never works on half of a text.
    std::vector<CString> tokenize(const char* delimiters, EReturnTokensFlag flag) const;

private:
    std::string m_sText;
};

#endif
