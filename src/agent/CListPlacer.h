// Puts a list that came from the fleet in the place of the appliance's own.
#ifndef QEL_AGENT_CLISTPLACER_H
#define QEL_AGENT_CLISTPLACER_H

#include "source/list/feature_list.h"

#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

enum class EPlaced {
    inPlace, // it is, or was already
    refused, // the daemon would refuse it; what was in place stays
    failed   // it could not be put in place, and may be another time
};
const char* wordOf(EPlaced placed);

struct SPlacing {
    EPlaced m_ePlaced = EPlaced::inPlace;
    uint64_t m_nDigest = 0;            // of the list
    std::vector<SListError> m_vErrors; // why it was refused, the first of them
    std::string m_sTrouble;            // why it failed

    bool operator==(const SPlacing& other) const = default;
};

// Checks it as the daemon will, against the list in place too; then replaces that in one step, and keeps it
// as the latest of those before. Does nothing where the list in place has the same bytes. Fails where another
// process changes the lists just now. Throws std::bad_alloc.
SPlacing placeList(const std::string& path, std::string_view text);

#endif
