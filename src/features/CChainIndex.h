// Positions by key, each key's in ascending order: the look-ups of a merge, in constant time each.
#ifndef QEL_FEATURES_CCHAININDEX_H
#define QEL_FEATURES_CCHAININDEX_H

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

    // A feature's code and data; an index by code alone leaves the data 0.
    struct SKey {
        uint32_t m_nCode = 0;
        uint32_t m_nData = 0;
        bool operator==(const SKey&) const = default;
    };

    explicit CChainIndex(size_t capacity) : m_vChains(capacity + capacity / 2 + 8) {
        m_vNext.reserve(capacity);
    }

    void append(SKey key, size_t position) {
        const auto at = static_cast<uint32_t>(position);
        if (m_vNext.size() <= at) {
            m_vNext.resize(size_t{at} + 1, nNone);
        }
        m_vNext[at] = nNone;
        SChain& chain = m_vChains[slotOf(key)];
        chain.m_oKey = key;
        if (chain.m_nFirst == nNone) {
            chain.m_nFirst = at;
        } else {
            m_vNext[chain.m_nLast] = at;
        }
        chain.m_nLast = at;
    }

    // The key's first position, or nNone.
    uint32_t first(SKey key) const { return m_vChains[slotOf(key)].m_nFirst; }

    // The key's first position that the test accepts, or nNone. Those before it are forgotten: all look-ups
    // of one key together cost no more than its chain is long.
    template <typename Test>
    uint32_t firstThat(SKey key, Test test) {
        SChain& chain = m_vChains[slotOf(key)];
        while (chain.m_nFirst != nNone && !test(chain.m_nFirst)) {
            chain.m_nFirst = m_vNext[chain.m_nFirst];
        }
        return chain.m_nFirst;
    }

    void remove(SKey key, uint32_t position) {
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
        if (chain.m_nLast == at && before != nNone) {
            chain.m_nLast = before;
        }
    }

private:
    struct SChain {
        SKey m_oKey;
        uint32_t m_nFirst = nNone; // nNone: the chain is empty
        uint32_t m_nLast = nNone;  // nNone: the slot was never used
    };

    // The key's slot, or the free one where it would stand. Keys of eight codes that follow each other stand
    // together: a list is mostly in order, and then the next look-up finds its slot in the cache.
    size_t slotOf(SKey key) const {
        const uint64_t block = uint64_t{key.m_nCode >> 3} << 32 | key.m_nData >> 3;
        const uint64_t hash = block * 0x9E3779B97F4A7C15 >> 32;
        auto slot = static_cast<size_t>(hash * (m_vChains.size() - 7) >> 32) + (key.m_nCode & 7);
        while (m_vChains[slot].m_nLast != nNone && m_vChains[slot].m_oKey != key) {
            slot = slot + 1 < m_vChains.size() ? slot + 1 : 0;
        }
        return slot;
    }

    std::vector<SChain> m_vChains; // half as many again as there can be keys, and a block
    std::vector<uint32_t> m_vNext; // the position after each in its chain
};

#endif
