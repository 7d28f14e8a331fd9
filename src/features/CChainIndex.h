// Positions by key, each key's in ascending order: the look-ups of a merge, in constant time each.
#ifndef QEL_FEATURES_CCHAININDEX_H
#define QEL_FEATURES_CCHAININDEX_H

#include <bit>
#include <cstddef>
#include <cstdint>
#include <vector>

// An open-addressed hash table of chains through one array of positions: two allocations for the whole index,
// so that building and dropping it costs a merge next to nothing. Positions are appended in ascending order
// for each key, each at most once at a time. Keys are never removed, only emptied; no more than `capacity`
// different ones may come.
class CChainIndex {
public:
    static constexpr uint32_t nNone = UINT32_MAX;

    explicit CChainIndex(size_t capacity)
        : m_vChains(std::bit_ceil(capacity * 2 + 2)), m_nShift(64 - std::countr_zero(m_vChains.size())) {
        m_vNext.reserve(capacity);
    }

    void append(uint64_t key, size_t position) {
        const auto at = static_cast<uint32_t>(position);
        if (m_vNext.size() <= at) {
            m_vNext.resize(size_t{at} + 1, nNone);
        }
        m_vNext[at] = nNone;
        SChain& chain = m_vChains[slotOf(key)];
        chain.m_bUsed = true;
        chain.m_nKey = key;
        if (chain.m_nFirst == nNone) {
            chain.m_nFirst = at;
        } else {
            m_vNext[chain.m_nLast] = at;
        }
        chain.m_nLast = at;
    }

    // The key's first position, or nNone.
    uint32_t first(uint64_t key) const { return m_vChains[slotOf(key)].m_nFirst; }

    // The key's first position that the test accepts, or nNone. Those before it are forgotten: all look-ups
    // of one key together cost no more than its chain is long.
    template <typename Test>
    uint32_t firstThat(uint64_t key, Test test) {
        SChain& chain = m_vChains[slotOf(key)];
        while (chain.m_nFirst != nNone && !test(chain.m_nFirst)) {
            chain.m_nFirst = m_vNext[chain.m_nFirst];
        }
        return chain.m_nFirst;
    }

    void remove(uint64_t key, uint32_t position) {
        SChain& chain = m_vChains[slotOf(key)];
        uint32_t before = nNone;
        uint32_t at = chain.m_nFirst;
        while (at != nNone && at != position) {
            before = at;
            at = m_vNext[at];
        }
        if (at == nNone) {
            return;
        }
        (before == nNone ? chain.m_nFirst : m_vNext[before]) = m_vNext[at];
        if (chain.m_nLast == at) {
            chain.m_nLast = before;
        }
    }

private:
    struct SChain {
        uint64_t m_nKey = 0;
        uint32_t m_nFirst = nNone;
        uint32_t m_nLast = nNone; // meaningless while m_nFirst is nNone
        bool m_bUsed = false;
    };

    // The key's slot, or the free one where it would stand. Multiplicative hashing spreads keys that follow
    // each other.
    size_t slotOf(uint64_t key) const {
        const size_t mask = m_vChains.size() - 1;
        size_t slot = static_cast<size_t>(key * 0x9E3779B97F4A7C15 >> m_nShift) & mask;
        while (m_vChains[slot].m_bUsed && m_vChains[slot].m_nKey != key) {
            slot = (slot + 1) & mask;
        }
        return slot;
    }

    std::vector<SChain> m_vChains; // its size is a power of two, more than twice the keys
    int m_nShift;
    std::vector<uint32_t> m_vNext; // the position after each in its chain
};

#endif
