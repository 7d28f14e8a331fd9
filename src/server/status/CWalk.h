// Where a page of an answer begins and ends, in a table that may change from one page to the next.
#ifndef QEL_SERVER_STATUS_CWALK_H
#define QEL_SERVER_STATUS_CWALK_H

#include "base/CArray.h"
#include "base/SFeature.h"
#include "features/counters.h"
#include "messaging/wire/status.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <utility>
#include <vector>

inline constexpr uint32_t nWhole = UINT32_MAX; // as the last word of a cursor: nothing of the entry is left

// A pair may stand twice: in force, and for those who leave it (CFeatureEntry::isLeaving()).
struct SIdentity {
    SFeature m_oWords;
    bool m_bLeaving;

    bool operator==(const SIdentity&) const = default;
};

class CFeatureEntry;
SIdentity identityOf(const CFeatureEntry& entry);

inline constexpr uint32_t nLeavingMark = 1U << 31;
inline constexpr uint32_t nOrderShift = 24;
inline constexpr uint32_t nPositions = (1U << nOrderShift) - 1; // far more than any table has

// A list puts the entries that leave behind the others, and a component that goes takes its records along.
inline uint32_t orderOfTables() {
    return nTableMoves << nOrderShift & ~(nLeavingMark | nPositions);
}

// A walk over a table that may change from one page to the next. The cursor names the entry that was told
// last, by its position and what it is. Entries keep their order, and new ones come at the end, until the
// order of the tables is another; so that entry is found at its position or before it, and what follows it
// has not been told yet.
//
// Words of the cursor: position + 1 (0: begin), two of identity, and how many parts of the entry were told.
// The top bit of the position is identity, too, and the seven below it are the order of the tables.
template <typename T>
class CWalk {
public:
    using Identity = SIdentity (*)(const T& entry);

    CWalk(const CArray<T*>& table, const CStatusCursor& cursor, Identity identity)
        : m_vEntries(table.m_vItems), m_fnIdentity(identity), m_oCursor(cursor) {
        if (cursor.m_aWords[0] == 0) {
            return;
        }
        m_nNext = std::min<size_t>(cursor.m_aWords[0] & nPositions, m_vEntries.size());
        if ((cursor.m_aWords[0] & ~(nLeavingMark | nPositions)) != orderOfTables()) {
            m_nNext = 0;
        }
        while (m_nNext > 0 && !isAt(m_nNext - 1)) {
            --m_nNext;
        }
        m_bLost = m_nNext == 0;
        if (!m_bLost && cursor.m_aWords[3] != nWhole) {
            --m_nNext;
            m_nPart = cursor.m_aWords[3];
        }
    }

    bool isLost() const { return m_bLost; }

    // The next entry, null at the end. part() of it were told before.
    T* next() {
        while (m_nNext < m_vEntries.size()) {
            if (T* entry = m_vEntries[m_nNext++]) {
                return entry;
            }
        }
        return nullptr;
    }
    size_t part() { return std::exchange(m_nPart, 0); }

    // Of the entry that next() returned last, so many parts have been told; nWhole: all.
    void told(const T& entry, uint32_t parts) {
        const auto [words, isLeaving] = m_fnIdentity(entry);
        const uint32_t mark = orderOfTables() | (isLeaving ? nLeavingMark : 0);
        m_oCursor = {{static_cast<uint32_t>(m_nNext) | mark, words.m_nCode, words.m_nData, parts}};
    }

    const CStatusCursor& cursor() const { return m_oCursor; }

private:
    bool isAt(size_t position) const {
        const T* entry = m_vEntries[position];
        return entry != nullptr &&
               m_fnIdentity(*entry) == SIdentity{{m_oCursor.m_aWords[1], m_oCursor.m_aWords[2]},
                                                 (m_oCursor.m_aWords[0] & nLeavingMark) != 0};
    }

    const std::vector<T*>& m_vEntries;
    Identity m_fnIdentity;
    CStatusCursor m_oCursor;
    size_t m_nNext = 0;
    size_t m_nPart = 0;
    bool m_bLost = false;
};

#endif
