// Cuts the text of a feature list into its [[feature]] tables.
#ifndef QEL_SOURCE_LIST_BLOCKS_H
#define QEL_SOURCE_LIST_BLOCKS_H

#include <cstdint>
#include <string_view>
#include <vector>

// A part of the text that the TOML parser can read by itself: what stands above the first [[feature]] line,
// or such a line and everything up to the next. Parsing part by part finds the syntax errors of all parts,
// not only the first. It also keeps time linear: for each value's line number the parser counts line ends
// from the start of its text.
struct SListBlock {
    std::string_view m_sText;
    uint32_t m_nLine = 1;        // of the block's first line
    bool m_bFeature = false;     // begins with a [[feature]] line
    uint32_t m_nTooDeepLine = 0; // where brackets or dotted keys go too deep for the parser; 0: nowhere
};

// The parser recurses with the nesting, so a file of brackets could exhaust the stack. The list needs
// three levels.
inline constexpr int nMaxListNesting = 16;

// There is always a first block, which may be empty. The blocks point into `text`, which must outlive them. A
// [[feature]] line inside a multi-line string is text; inside an array that was not closed above it still
// begins a feature.
std::vector<SListBlock> cutFeatureList(std::string_view text);

#endif
