// Cuts the text of a feature list into its [[feature]] tables.
#ifndef QEL_SOURCE_LIST_BLOCKS_H
#define QEL_SOURCE_LIST_BLOCKS_H

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string_view>

// A part of the text that the TOML parser can take in by itself: what stands above the first [[feature]]
// line, or such a line and all up to the next. The parser ends at the first syntax error; part by part, it
// finds those of all features.
struct SListBlock {
    std::string_view m_sText;
    uint32_t m_nLine = 1;        // of the block's first line
    bool m_bFeature = false;     // begins with a [[feature]] line
    uint32_t m_nTooDeepLine = 0; // where brackets or dotted keys go too deep to be parsed; 0: nowhere
    bool m_bTooLong = false;     // to be parsed
};

// The parser, and whoever destroys what it made, recurse with the nesting; the list needs three levels.
inline constexpr int nMaxListNesting = 16;

// Of one block, comments and blanks aside. A value takes the parser some 40 times its length in memory, and
// tables of many names take it quadratic time: this bounds both, so that a file takes linear time however it
// is made. The longest good feature has 256 names of 16 characters; written as \U00000041 each of those takes
// ten, 42,000 in all.
inline constexpr size_t nMaxBlockLength = 65536;

// Hands out the blocks of a text, in its order; they point into it. A [[feature]] line inside a multi-line
// string is text; inside an array, which some line above failed to close, it still begins a feature.
class CListBlocks {
public:
    explicit CListBlocks(std::string_view text) : m_sRest(text) {}

    std::optional<SListBlock> next();

private:
    std::string_view m_sRest;
    uint32_t m_nLine = 1; // of what is left
};

#endif
