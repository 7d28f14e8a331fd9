// The two clocks that the daemon reads, behind one point where a test can set a clock of its own.
#ifndef QEL_BASE_CLOCK_H
#define QEL_BASE_CLOCK_H

#include <cstdint>
#include <sys/time.h>

struct SClock {
    uint32_t (*m_fnSeconds)();  // seconds since the epoch, unsigned: good until 2106
    timeval (*m_fnTimeOfDay)(); // the same moment, to the microsecond
};

extern const SClock oSystemClock; // time(2) and gettimeofday(2)

uint32_t nowSeconds();
timeval nowTimeOfDay();

// Not for use while other threads read the clock. The clock is not copied: it must outlive its use.
void useClock(const SClock& clock);

#endif
