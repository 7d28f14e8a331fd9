#include "source/list/list_text.h"

#include <fmt/core.h>

#include <algorithm>
#include <numeric>
#include <vector>

namespace {

constexpr size_t nSuggestionDistance = 2; // a word further off is no typing mistake

bool isContinuation(char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) == 0x80;
}

// Which second bytes may follow: what a lead byte leaves out is overlong, a surrogate or beyond U+10FFFF.
bool isSecond(unsigned char lead, unsigned char second) {
    const unsigned char lowest = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
    const unsigned char highest = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
    return second >= lowest && second <= highest;
}

// Bytes of the character that the text begins with; 0: it begins with none.
size_t characterLength(std::string_view text) {
    const auto lead = static_cast<unsigned char>(text[0]);
    if (lead < 0x80) {
        return lead != 0 ? 1 : 0;
    }
    const size_t length = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0xC2 || lead > 0xF4 || text.size() < length ||
        !isSecond(lead, static_cast<unsigned char>(text[1]))) {
        return 0;
    }
    const std::string_view rest = text.substr(2, length - 2);
    return std::all_of(rest.begin(), rest.end(), isContinuation) ? length : 0;
}

// Single-character edits from one word to the other.
size_t editDistance(std::string_view from, std::string_view to) {
    std::vector<size_t> row(to.size() + 1);
    std::iota(row.begin(), row.end(), size_t{0});
    for (size_t i = 0; i < from.size(); ++i) {
        size_t diagonal = row[0];
        row[0] = i + 1;
        for (size_t j = 0; j < to.size(); ++j) {
            const size_t replaced = diagonal + (from[i] == to[j] ? 0 : 1);
            diagonal = row[j + 1];
            row[j + 1] = std::min({replaced, diagonal + 1, row[j] + 1});
        }
    }
    return row.back();
}

} // namespace

std::optional<SBadByte> findBadByte(std::string_view text) {
    size_t at = 0;
    while (at < text.size()) {
        const size_t length = characterLength(text.substr(at));
        if (length == 0) {
            break;
        }
        at += length;
    }
    if (at == text.size()) {
        return std::nullopt;
    }
    const std::string_view before = text.substr(0, at);
    const std::string_view line = before.substr(before.rfind('\n') + 1);
    const auto lines = std::count(before.begin(), before.end(), '\n');
    const auto columns = std::count_if(line.begin(), line.end(), [](char c) { return !isContinuation(c); });
    return SBadByte{static_cast<uint32_t>(lines + 1), static_cast<uint32_t>(columns + 1),
                    static_cast<uint8_t>(text[at])};
}

bool isControl(char c) {
    return static_cast<unsigned char>(c) < ' ' || c == '\x7f';
}

std::string shown(std::string_view text, size_t limit) {
    size_t length = std::min(text.size(), limit);
    while (length > 0 && length < text.size() && isContinuation(text[length])) {
        --length; // no half characters
    }
    std::string result(text.substr(0, length));
    std::replace_if(result.begin(), result.end(), isControl, '?');
    return length < text.size() ? result + "..." : result;
}

std::string suggestion(std::string_view word, std::span<const std::string_view> known) {
    const auto nearest = std::min_element(known.begin(), known.end(), [word](auto one, auto other) {
        return editDistance(word, one) < editDistance(word, other);
    });
    return editDistance(word, *nearest) <= nSuggestionDistance ? fmt::format(": did you mean '{}'?", *nearest)
                                                               : "";
}
