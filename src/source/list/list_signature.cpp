#include "source/list/list_signature.h"

#include <fmt/core.h>

#include <algorithm>
#include <cstdint>

namespace {

constexpr std::string_view sLead = "#qel-signature 1 ";
constexpr std::string_view sDigits = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
constexpr size_t nMaxEncoded = (nMaxListSignature + 2) / 3 * 4;

// Base64 of RFC 4648.
std::string encode(std::string_view bytes) {
    std::string text;
    for (size_t at = 0; at < bytes.size(); at += 3) {
        const std::string_view group = bytes.substr(at, 3);
        uint32_t bits = 0;
        for (size_t i = 0; i < 3; ++i) {
            bits = bits << 8 | (i < group.size() ? static_cast<uint8_t>(group[i]) : 0U);
        }
        for (size_t i = 0; i < 4; ++i) {
            text += i <= group.size() ? sDigits[bits >> (18 - 6 * i) & 63U] : '=';
        }
    }
    return text;
}

// Only what encode() makes of the same bytes: other ways to write them, such as bits set behind the last
// byte, are none.
std::optional<std::string> decode(std::string_view text) {
    const size_t length = std::min(text.find('='), text.size());
    std::string bytes;
    uint32_t bits = 0;
    for (size_t i = 0; i < length; ++i) {
        const size_t digit = sDigits.find(text[i]);
        if (digit == sDigits.npos) {
            return std::nullopt;
        }
        bits = bits << 6 | static_cast<uint32_t>(digit);
        if (i % 4 != 0) {
            bytes += static_cast<char>(bits >> (6 - 2 * (i % 4)) & 0xFFU);
        }
    }
    return encode(bytes) == text ? std::optional(std::move(bytes)) : std::nullopt;
}

bool isKeyId(std::string_view text) {
    return text.size() == nListKeyId && text.find_first_not_of("0123456789abcdef") == text.npos;
}

SListSignature fault(std::string text) {
    SListSignature signature;
    signature.m_sFault = std::move(text);
    return signature;
}

// Where the last line begins. Its own line feed does not count.
size_t lastLine(std::string_view text) {
    const size_t before = text.empty() ? text.npos : text.substr(0, text.size() - 1).rfind('\n');
    return before == text.npos ? 0 : before + 1;
}

// From 1; 0: no line begins so.
size_t lineOfSignature(std::string_view text) {
    size_t number = 1;
    while (!text.starts_with(sSignatureStart)) {
        const size_t end = text.find('\n');
        if (end == text.npos) {
            return 0;
        }
        text.remove_prefix(end + 1);
        ++number;
    }
    return number;
}

} // namespace

SListSignature readSignature(std::string_view text) {
    const size_t start = lastLine(text);
    std::string_view line = text.substr(start);
    if (!line.starts_with(sSignatureStart)) {
        return fault("is not signed, or was cut off: its last line is no #qel-signature");
    }
    if (const size_t other = lineOfSignature(text.substr(0, start)); other != 0) {
        return fault(fmt::format("has a second #qel-signature, in line {}: sign it anew", other));
    }
    constexpr char sMalformed[] = "has a signature that is malformed, or was cut off: sign it anew";
    if (!line.starts_with(sLead) || line.back() != '\n') {
        return fault(sMalformed);
    }
    line = line.substr(sLead.size(), line.size() - sLead.size() - 1);
    const std::string_view encoded = line.substr(std::min(line.size(), nListKeyId + 1));
    if (line.size() <= nListKeyId || !isKeyId(line.substr(0, nListKeyId)) || line[nListKeyId] != ' ' ||
        encoded.empty() || encoded.size() > nMaxEncoded) {
        return fault(sMalformed);
    }
    std::optional<std::string> bytes = decode(encoded);
    if (!bytes || bytes->size() > nMaxListSignature) {
        return fault(sMalformed);
    }
    return {text.substr(0, start), std::string(line.substr(0, nListKeyId)), std::move(*bytes), ""};
}

std::string writeSignature(std::string_view keyId, std::string_view bytes) {
    return fmt::format("{}{} {}\n", sLead, keyId, encode(bytes));
}

std::string_view withoutSignature(std::string_view text) {
    while (text.substr(lastLine(text)).starts_with(sSignatureStart)) {
        text = text.substr(0, lastLine(text));
    }
    return text;
}
