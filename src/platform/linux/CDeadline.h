// A moment on the monotonic clock up to which a call may wait. Setting the time of day does not move it, nor
// does a signal that interrupts the wait.
#ifndef QEL_PLATFORM_LINUX_CDEADLINE_H
#define QEL_PLATFORM_LINUX_CDEADLINE_H

#include <algorithm>
#include <chrono>
#include <climits>
#include <cstdint>
#include <poll.h>
#include <thread>

class CDeadline {
public:
    explicit CDeadline(uint32_t waitMs)
        : m_oEnd(std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs)) {}

    bool isOver() const { return std::chrono::steady_clock::now() >= m_oEnd; }

    // What is left, as the waiting system calls take it: whole milliseconds, none of them too few. 0: it is over.
    int milliseconds() const {
        const auto left = m_oEnd - std::chrono::steady_clock::now();
        return static_cast<int>(
            std::clamp<int64_t>(std::chrono::ceil<std::chrono::milliseconds>(left).count(), 0, INT_MAX));
    }

    // Waits until `fd` is readable. False: the time was up first. With no time left it still looks once.
    bool waitReadable(int fd) const {
        pollfd entry{fd, POLLIN, 0};
        int count = poll(&entry, 1, milliseconds());
        while (count <= 0 && !isOver()) { // interrupted, or the time is longer than poll can wait
            count = poll(&entry, 1, milliseconds());
        }
        return count > 0;
    }

    void sleep() const { std::this_thread::sleep_until(m_oEnd); }

private:
    std::chrono::steady_clock::time_point m_oEnd;
};

#endif
