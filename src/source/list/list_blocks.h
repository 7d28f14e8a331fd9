// Cuts the text of a feature list into its [[feature]] tables.
#ifndef QEL_SOURCE_LIST_BLOCKS_H
#define QEL_SOURCE_LIST_BLOCKS_H

#include <cstdint>
#include <string_view>
#include <vector>

// A part of the text that the TOML parser can take in by itself: what stands above the first [[feature]]
// line, or such a line and all up to the next. Parsing part by part finds the syntax errors of all of them,
// not only the first one's, and keeps line numbers cheap: the parser counts them from the start of what it
// was given.
struct SListBlock {
    std::string_view m_sText;
    uint32_t m_nLine = 1;        // of the block's first line
    bool m_bFeature = false;     // begins with a [[feature]] line
    uint32_t m_nTooDeepLine = 0; // where brackets or dotted keys go too deep to be parsed; 0: nowhere
};

// The parser recurses with the nesting; the list needs three levels.
inline constexpr int nMaxListNesting = 16;

// The blocks point into `text`. A [[feature]] line inside a multi-line string is text; inside an array, which
// some line above failed to close, it still begins a feature.
std::vector<SListBlock> cutFeatureList(std::string_view text);

#endif
