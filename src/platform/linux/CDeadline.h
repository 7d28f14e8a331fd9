// A moment on the monotonic clock up to which a call may wait. Setting the time of day does not move it, and
// a signal that interrupts the wait does not either. Immutable, so any thread may use it.
#ifndef QEL_PLATFORM_LINUX_CDEADLINE_H
#define QEL_PLATFORM_LINUX_CDEADLINE_H

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <ctime>
#include <poll.h>

class CDeadline {
public:
    explicit CDeadline(uint32_t waitMs) : m_nEnd(now() + waitMs * nNanoseconds) {}

    bool isOver() const { return left() <= 0; }

    // What is left, as the waiting system calls take it: whole milliseconds, none of them too few, so that a
    // wait that ends by itself ends after the deadline. 0: it is over.
    int milliseconds() const {
        return static_cast<int>(std::clamp<int64_t>((left() + nNanoseconds - 1) / nNanoseconds, 0, INT_MAX));
    }

    // Waits until `fd` is readable (or in an error that a read would report). False: the time was up first.
    // With no time left it still looks once.
    bool waitReadable(int fd) const {
        pollfd entry{fd, POLLIN, 0};
        int count = 0;
        do {
            count = poll(&entry, 1, milliseconds());
        } while (count < 0 && errno == EINTR);
        return count > 0;
    }

    // Waits out the time, for calls that have failed: the loops around them have no pause of their own.
    void sleep() const {
        while (!isOver()) {
            poll(nullptr, 0, milliseconds());
        }
    }

private:
    static constexpr int64_t nNanoseconds = 1000000; // in a millisecond

    static int64_t now() {
        timespec time{};
        clock_gettime(CLOCK_MONOTONIC, &time);
        return int64_t{time.tv_sec} * 1000 * nNanoseconds + time.tv_nsec;
    }
    int64_t left() const { return m_nEnd - now(); }

    int64_t m_nEnd; // nanoseconds on the monotonic clock
};

#endif
