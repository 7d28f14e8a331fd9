// Positions by key, each key's in ascending order: the look-ups of a merge, in constant time each.
#ifndef QEL_FEATURES_CCHAININDEX_H
#define QEL_FEATURES_CCHAININDEX_H

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

// An open-addressed hash table of chains through one array of positions: an allocation or two for the whole
// index, so that building and dropping it costs a merge next to nothing. Positions are appended in ascending
// order for each key, each at most once at a time. Keys are never removed, only emptied.
class CChainIndex {
public:
    static constexpr uint32_t nNone = UINT32_MAX;

    // A feature's code and data; an index by code alone leaves the data 0.
    struct SKey {
        uint32_t m_nCode = 0;
        uint32_t m_nData = 0;
        bool operator==(const SKey&) const = default;
    };

    // `keys`: how many there will be, by all that is known. More may come.
    explicit CChainIndex(size_t keys) : m_vChains(keys + keys / 2 + nBlock), m_nRoom(keys) {}

    void append(SKey key, size_t position) {
        const auto at = static_cast<uint32_t>(position);
        SChain& chain = chainOf(key);
        if (chain.m_nFirst == nNone) {
            chain.m_nFirst = at;
        } else {
            setNext(chain.m_nLast, at);
        }
        chain.m_nLast = at;
        if (at < m_vNext.size()) {
            m_vNext[at] = nNone;
        }
    }

    // The key's first position, or nNone.
    uint32_t first(SKey key) const { return m_vChains[slotOf(key)].m_nFirst; }

    // The key's first position that the test accepts, or nNone. Those before it are forgotten: all look-ups
    // of one key together cost no more than its chain is long.
    template <typename Test>
    uint32_t firstThat(SKey key, Test test) {
        SChain& chain = m_vChains[slotOf(key)];
        while (chain.m_nFirst != nNone && !test(chain.m_nFirst)) {
            chain.m_nFirst = next(chain.m_nFirst);
        }
        return chain.m_nFirst;
    }

    void remove(SKey key, uint32_t position) {
        SChain& chain = m_vChains[slotOf(key)];
        uint32_t before = nNone;
        uint32_t at = chain.m_nFirst;
        while (at != nNone && at != position) {
            before = at;
            at = next(at);
        }
        if (at == nNone) {
            return;
        }
        (before == nNone ? chain.m_nFirst : m_vNext[before]) = next(at);
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

    static constexpr size_t nBlock = 8; // keys of so many codes that follow each other stand together

    // The key's slot, or the free one where it would stand. A list is mostly in order, and then the next
    // look-up finds its slot in the cache.
    size_t slotOf(SKey key) const {
        const uint64_t block = uint64_t{key.m_nCode / nBlock} << 32 | key.m_nData / nBlock;
        const uint64_t hash = block * 0x9E3779B97F4A7C15 >> 32;
        auto slot = static_cast<size_t>(hash * (m_vChains.size() - nBlock + 1) >> 32) + key.m_nCode % nBlock;
        while (m_vChains[slot].m_nLast != nNone && m_vChains[slot].m_oKey != key) {
            slot = slot + 1 < m_vChains.size() ? slot + 1 : 0;
        }
        return slot;
    }

    // The key's chain, made if it has none.
    SChain& chainOf(SKey key) {
        SChain* chain = &m_vChains[slotOf(key)];
        if (chain->m_nLast == nNone) {
            if (m_nRoom == 0) {
                grow();
                chain = &m_vChains[slotOf(key)];
            }
            --m_nRoom;
            chain->m_oKey = key;
        }
        return *chain;
    }

    void grow() {
        const size_t keys = m_vChains.size(); // there were fewer
        CChainIndex larger(2 * keys);
        for (const SChain& chain : m_vChains) {
            if (chain.m_nLast != nNone) {
                larger.chainOf(chain.m_oKey) = chain;
            }
        }
        m_vChains = std::move(larger.m_vChains);
        m_nRoom = larger.m_nRoom;
    }

    uint32_t next(uint32_t position) const { return position < m_vNext.size() ? m_vNext[position] : nNone; }

    void setNext(uint32_t position, uint32_t next) {
        if (m_vNext.size() <= position) {
            m_vNext.resize(std::max(size_t{position} + 1, 2 * m_vNext.size()), nNone);
        }
        m_vNext[position] = next;
    }

    std::vector<SChain> m_vChains; // half as many again as there can be keys, and a block
    size_t m_nRoom;                // how many more keys can be
    std::vector<uint32_t> m_vNext; // the position after each in its chain; where none has one, it is empty
};

#endif
