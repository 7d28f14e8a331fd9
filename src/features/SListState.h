// What is known of the feature list, for whoever looks. The supplier of lists fills it, server/status reads
// it, both on the main loop's thread.
#ifndef QEL_FEATURES_SLISTSTATE_H
#define QEL_FEATURES_SLISTSTATE_H

#include "messaging/wire/status.h"

#include <cstddef>
#include <cstdint>
#include <string>

// Who made a list, and its number.
struct SListSeal {
    bool m_bVerified = false; // it is signed by a trusted key; else there is no key and no signer
    uint64_t m_nSerial = 0;   // 0: it has none
    char m_szKeyId[nKeyIdField] = {};
    char m_szSigner[nSignerField] = {}; // cut to it
};

// What became of one reading of the list file.
struct SListReading {
    EListResult m_eResult = lrNone;
    uint32_t m_tRead = 0;      // seconds since the epoch
    uint64_t m_nDigest = 0;    // listDigest() of the bytes that were read
    uint32_t m_nSize = 0;      // how many they were
    uint32_t m_nFeatures = 0;  // of a list that is good
    uint32_t m_nBefore = 0;    // features of the list taken before this one was taken; 0: there was none
    uint32_t m_nWithdrawn = 0; // how many of those it lacks
    bool m_bMuch = false;      // that is more than a fifth, which is logged as a warning
    bool m_bKept = false;      // it is the list kept from an earlier run
    SListSeal m_oSeal;         // of a list that is good
    uint32_t m_nErrors = 0;    // all there are
    std::string m_sErrors;     // the first of them, "LINE: text" each, a NUL in between
};

struct SListState {
    std::string m_sPath;        // of the operator's file
    SListReading m_oInForce;    // lrNone: no list is in force
    uint32_t m_tHandedOver = 0; // the list in force, in seconds since the epoch
    SListReading m_oLatest;     // of the operator's file
};

inline constexpr size_t nMaxErrorTexts = 4096; // bytes of m_sErrors; errors are told whole or not at all

#endif
