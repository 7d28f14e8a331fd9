// Gives the entries of a new list their display names.
#ifndef QEL_SOURCE_CENTRYNAMES_H
#define QEL_SOURCE_CENTRYNAMES_H

#include "base/CString.h"
#include "base/SFeature.h"
#include "source/SFingerprint.h"
#include "source/fresh_list.h"

#include <unordered_map>

// An entry reads the whole description file for its name, so naming a long list takes a good part of a
// second. Hence a feature that was in the list before keeps its name, and only the others read. When the
// description file has changed in between, all of them read; but no change of it makes a new list, so a
// corrected name appears with the next change of the feature list.
//
// Names are for people: what goes wrong here, memory that runs out included, costs a name or a second
// reading, never the list. Used by one thread at a time.
class CEntryNames {
public:
    // Names all entries, and logs in one line how many had to go without because of a failure.
    void giveTo(CFreshList& list) noexcept;

private:
    using CNames = std::unordered_map<SFeature, CString>;

    bool giveTo(CFeatureEntry& entry) const;

    CNames m_oNames;           // of the list before; may be incomplete
    SFingerprint m_oNamesFile; // the file that they are from
};

#endif
