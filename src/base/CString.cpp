#include "base/CString.h"

#include <algorithm>
#include <cctype>
#include <new>

// Compares before it looks for the end, so that the NUL itself can be found.
const char* CString::strchr(const char* text, int c) {
    for (;; ++text) {
        if (static_cast<unsigned char>(*text) == c) {
            return text;
        }
        if (*text == '\0') {
            return nullptr;
        }
    }
}

int CString::compareIgnoreCase(const char* other) const {
    const char* mine = c_str();
    for (; *mine != '\0' && *other != '\0'; ++mine, ++other) {
        // As unsigned bytes: tolower(3) is undefined for negative values other than EOF.
        const auto a = static_cast<unsigned char>(*mine);
        const auto b = static_cast<unsigned char>(*other);
        if (a != b && std::tolower(a) != std::tolower(b)) {
            return a - b;
        }
    }
    return 0;
}

int CString::compareIgnoreCase(const CString& other) const {
    return compareIgnoreCase(other.c_str());
}

void CString::convert2Digits(const unsigned char* bytes, int count, char* out) {
    for (int i = 0; i < count; ++i) {
        const std::string digits = std::to_string(bytes[i]);
        out = std::copy(digits.begin(), digits.end(), out);
    }
    *out = '\0';
}

std::vector<CString> CString::tokenize(const char* delimiters, EReturnTokensFlag flag) const try {
    std::vector<CString> tokens;
    if (empty() || delimiters == nullptr) {
        return tokens;
    }
    std::string token;
    for (const char* at = c_str(); *at != '\0'; ++at) {
        if (!strchr(delimiters, static_cast<unsigned char>(*at))) {
            token += *at;
            continue;
        }
        if (!token.empty()) {
            tokens.emplace_back(token.c_str());
            token.clear();
        }
        // From the delimiter to the end, as the header says, not the delimiter alone.
        if (flag != eSkipDelimiters) {
            tokens.emplace_back(at);
        }
    }
    if (!token.empty()) {
        tokens.emplace_back(token.c_str());
    }
    return tokens;
} catch (const std::bad_alloc&) {
    return {};
}
