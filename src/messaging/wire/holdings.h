// What the daemon believes that a component has: two more questions of the language for looking (status.h),
// by which a component finds out whether it and the daemon agree. Both take the component's name
// (sfComponent, m_szComponent); sqHeld also a code (sfCode).
//
// In force for a component is each feature of the table that concerns it by name and is not withdrawn,
// sourced or not, once for each entry. Its data is what the list says: while a modification is under way, the
// new one. Entries that are being withdrawn, those that stand for leaving components only
// (CStatusFeature::m_nLeaving) included, are not in force, but may be under way.
//
// Of what is in force, the component holds what it has accepted or fetched (states 2 and 10 of a delivery),
// and has refused what it refused or gave no answer about (3 and 11). All else is neither.
//
// Under way is a delivery whose answer is awaited (1, 5, 9), one of which an audit is going to tell the
// component, and a feature in force that has no record of it yet. While anything is under way the digest says
// little: ask again later.
#ifndef QEL_MESSAGING_HOLDINGS_H
#define QEL_MESSAGING_HOLDINGS_H

#include "base/SFeature.h"
#include "messaging/wire/status.h"

inline constexpr auto sqHoldings = EStatusQuestion{16}; // one CStatusHoldings in each page, to be added up
inline constexpr auto sqHeld = EStatusQuestion{17};     // a CStatusHeld for each pair in force

enum EHeld : uint32_t { heNeither = 0, heHeld = 1, heRefused = 2 };

// Of the pages, counts and digests are added up (modulo 2^64), and the rest is that of the last one.
struct CStatusHoldings {
    CStatusRecord m_oRecord;
    CBigEndian32 m_nHandle;    // registered under the name; 0: the name is not registered, and all else is 0
    CBigEndian32 m_nProcessId; // as announced
    CBigEndian32 m_nGone;      // 1: that process has ended
    CBigEndian32 m_nMonitors;  // 1: is told of changes
    CBigEndian32 m_nInForce;   // pairs
    CBigEndian32 m_nUnderWay;  // deliveries
    CBigEndian32 m_aDigest[2]; // sum of digestOf() over the pairs in force
};
static_assert(sizeof(CStatusHoldings) == 40);

struct CStatusHeld {
    CStatusRecord m_oRecord;
    CBigEndian32 m_nCode;
    CBigEndian32 m_nData;
    CBigEndian32 m_nHeld;     // EHeld
    CBigEndian32 m_nUnderWay; // 1: something is, for this pair
};
static_assert(sizeof(CStatusHeld) == 24);

// One pair's part of the digest, which does not depend on their order. Code and data as one number, code
// first, are mixed with the kind; each step is a bijection of 64 bits. A pair that is neither held nor refused
// has its part, too: otherwise a difference would look the same before and after the pair was withdrawn.
inline uint64_t digestOf(const SFeature& pair, EHeld held) {
    uint64_t mixed = (uint64_t{pair.m_nCode} << 32 | pair.m_nData) + held * 0x9E3779B97F4A7C15;
    mixed = (mixed ^ (mixed >> 30)) * 0xBF58476D1CE4E5B9;
    mixed = (mixed ^ (mixed >> 27)) * 0x94D049BB133111EB;
    return mixed ^ (mixed >> 31);
}

#endif
