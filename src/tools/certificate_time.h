// Moments as certificates write them.
//
// The library's own conversions take a time_t. On a 32-bit host it may have been built with a shorter one
// than the daemon, so none of them is used: moments go to the library as text.
#ifndef QEL_TOOLS_CERTIFICATE_TIME_H
#define QEL_TOOLS_CERTIFICATE_TIME_H

#include "tools/handles.h"

#include <cstdint>

// Seconds since the epoch, up to the year 9999; null beyond, and where there is no memory.
[[nodiscard]] CTimeHandle certificateTime(int64_t seconds);

// Both are false for a malformed time, and for a null `now`.
[[nodiscard]] bool isAtOrBefore(const ASN1_TIME* time, const ASN1_TIME* now);
[[nodiscard]] bool isAfter(const ASN1_TIME* time, const ASN1_TIME* now);

#endif
