// Moments as certificates write them.
//
// libcrypto's own conversions take a time_t. On a 32-bit host libcrypto may have been built with a 32-bit
// time_t and the daemon with a 64-bit one, so none of them is used: moments are passed
// to the library as text.
#ifndef QEL_TOOLS_CERTIFICATE_TIME_H
#define QEL_TOOLS_CERTIFICATE_TIME_H

#include "tools/handles.h"

#include <cstdint>

// The moment `seconds` after the epoch, up to the year 9999. Null beyond that, or if memory is exhausted.
[[nodiscard]] CTimeHandle certificateTime(int64_t seconds);

// Compare a certificate's time with `now`. Both are false if the time is malformed or `now` is null, so a
// certificate with a broken date is never valid, whichever end it stands at.
[[nodiscard]] bool isAtOrBefore(const ASN1_TIME* time, const ASN1_TIME* now);
[[nodiscard]] bool isAfter(const ASN1_TIME* time, const ASN1_TIME* now);

#endif
