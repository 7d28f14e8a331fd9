// A list with all that decides whether it may be taken here.
#ifndef QEL_SOURCE_SEALED_LIST_H
#define QEL_SOURCE_SEALED_LIST_H

#include "source/list/feature_list.h"
#include "source/list/whole_file.h"
#include "source/trust/CListTrust.h"

#include <cstdint>
#include <optional>
#include <string>

// Of the list that is in force: no lower one takes its place, nor another of the same number.
struct SSerialFloor {
    uint64_t m_nSerial = 0; // 0: any list may come
    uint64_t m_nDigest = 0; // listDigest() of what was signed; a list that is signed anew is the same one
};

struct SSealedList {
    SFeatureList m_oList;     // what is wrong with signature, serial or scope is an error of the list
    bool m_bVerified = false; // trust is on, and all is well
    SListProof m_oProof;      // where trust is on
    SSerialFloor m_oFloor;    // what this list sets, once it is in force; of a verified one
};

// Judges the bytes that were read. Where trust is on, no byte is parsed before the signature over it is
// verified. Where it is off, the list is checked as ever. Throws std::bad_alloc.
[[nodiscard]] SSealedList judgeList(const SWholeFile& file, CListTrust& trust, CListTrust::EWhen when);

// Refuses a verified list that is below the floor.
void checkSerial(SSealedList& sealed, const SSerialFloor& floor);

// The floor that the list of an earlier run sets. None where trust is off, where there is no such list, or it
// does not verify, which nobody but who may write there can bring about. Nothing where that cannot be told
// now: then no other list may be taken. Throws std::bad_alloc.
[[nodiscard]] std::optional<SSerialFloor> floorOf(const std::string& path, CListTrust& trust);

#endif
