// The time of day, to the second and to the microsecond, behind one point where a test can set
// a clock of its own.
#ifndef QEL_BASE_CLOCK_H
#define QEL_BASE_CLOCK_H

#include <cstdint>
#include <sys/time.h>

// Both functions tell wall-clock time. If somebody sets the clock of the host forward, replies that are
// awaited count as overdue too early; if it is set back, as overdue too late.
struct SClock {
    uint32_t (*m_fnSeconds)();  // seconds since the epoch, unsigned: good until 2106
    timeval (*m_fnTimeOfDay)(); // the same moment, to the microsecond
};

extern const SClock oSystemClock; // time(2) and gettimeofday(2)

// By the clock in use. From any thread.
uint32_t nowSeconds();
timeval nowTimeOfDay();

// Sets the clock for the whole process. It is not copied, so it must outlive its use. Call it only while no
// other thread reads the clock, for the switch is not synchronised.
void useClock(const SClock& clock);

#endif
