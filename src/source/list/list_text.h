// What the list's checker asks of plain text, before and beside the TOML parser.
#ifndef QEL_SOURCE_LIST_TEXT_H
#define QEL_SOURCE_LIST_TEXT_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

struct SBadByte {
    uint32_t m_nLine = 1;
    uint32_t m_nColumn = 1; // in characters, from 1
    uint8_t m_nByte = 0;
};

// The first byte that is NUL or begins nothing that is UTF-8.
std::optional<SBadByte> findBadByte(std::string_view text);

bool isControl(char c);

// What the operator or the parser wrote comes back in errors: as it is, but on one
// line and of bearable length.
std::string shown(std::string_view text, size_t limit = 40);

// ": did you mean 'count'?" where one of the known words is near; else empty.
std::string suggestion(std::string_view word, std::span<const std::string_view> known);

#endif
