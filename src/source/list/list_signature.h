// The signature that a list carries as its own last line, a comment to TOML:
//
//     #qel-signature 1 KEYID BASE64
//
// It is over all bytes before it. KEYID only says which key to look for. Here is the line alone; what signs
// and verifies is in the module of the signing tools (tools/sign_module.h).
#ifndef QEL_SOURCE_LIST_SIGNATURE_H
#define QEL_SOURCE_LIST_SIGNATURE_H

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

inline constexpr size_t nListKeyId = 16;          // lower-case hexadecimal digits
inline constexpr size_t nMaxListSignature = 1024; // bytes: an RSA key of 8192 bits
inline constexpr char sSignatureStart[] = "#qel-signature";

struct SListSignature {
    std::string_view m_sBody; // what it is over; a part of the text
    std::string m_sKeyId;
    std::string m_sBytes;
    std::string
        m_sFault; // not empty: why there is no signature to verify, in one line; the rest is then empty
};

// There is one way to write a signature, and any other is a fault: no blank and no padding more or less, the
// line feed at its end included. A second line of that kind is one, too,
// wherever it stands. Throws std::bad_alloc.
[[nodiscard]] SListSignature readSignature(std::string_view text);

// The line, with its line feed. The key's id and the bytes as in SListSignature.
std::string writeSignature(std::string_view keyId, std::string_view bytes);

// The text without its last lines that begin like a signature.
std::string_view withoutSignature(std::string_view text);

#endif
