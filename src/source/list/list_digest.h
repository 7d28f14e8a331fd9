// Tells one text of a feature list from another.
#ifndef QEL_SOURCE_LIST_DIGEST_H
#define QEL_SOURCE_LIST_DIGEST_H

#include <cstdint>
#include <string>
#include <string_view>

// FNV-1a of 64 bits, over all bytes of the file. Two lists that differ by accident have the same one in 2^64
// cases once. It is no protection against forgery: it is easy to write another list with a given digest.
constexpr uint64_t listDigest(std::string_view text) {
    uint64_t digest = 0xcbf29ce484222325;
    for (const char byte : text) {
        digest = (digest ^ static_cast<uint8_t>(byte)) * 0x100000001b3;
    }
    return digest;
}

// As people see it everywhere: 16 digits, lower case.
std::string printListDigest(uint64_t digest);

#endif
