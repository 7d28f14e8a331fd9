// The string value type at interfaces, and the tokenizer.
#ifndef QEL_BASE_CSTRING_H
#define QEL_BASE_CSTRING_H

#include <string>
#include <vector>

// One text of single-byte characters, up to its first NUL.
class CString {
public:
    enum EReturnTokensFlag { eSkipDelimiters = 0, eReturnDelimiters = 1 };

    CString() = default;
    CString(const char* text) : m_sText(text != nullptr ? text : "") {}

    const char* c_str() const { return m_sText.c_str(); }
    bool empty() const { return m_sText.empty(); }

    // First position whose byte equals `c`; the terminating NUL for 0; null if none, or if `c` is no byte.
    static const char* strchr(const char* text, int c);

    // Loose on purpose: compares only as many characters as the shorter text has, so that a prefix equals the
    // whole and an empty text equals everything. Otherwise the difference of the first unequal bytes, in
    // their own case.
    int compareIgnoreCase(const char* other) const;
    int compareIgnoreCase(const CString& other) const;

    // Writes the decimal form of each byte into `out`, one after the other. The caller provides three
    // characters a byte and one for the NUL.
    static void convert2Digits(const unsigned char* bytes, int count, char* out);

    // Splits at each character of `delimiters`. Empty tokens are dropped. With eReturnDelimiters every
    // delimiter also yields a token that runs from it to the end of the text.
    std::vector<CString> tokenize(const char* delimiters, EReturnTokensFlag flag) const;

private:
    std::string m_sText;
};

#endif
