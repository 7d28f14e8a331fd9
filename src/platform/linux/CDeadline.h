// A moment on the monotonic clock up to which a call may wait. Setting the time of day does not move it, nor
// does a signal that interrupts the wait.
#ifndef QEL_PLATFORM_LINUX_CDEADLINE_H
#define QEL_PLATFORM_LINUX_CDEADLINE_H

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstdint>
#include <poll.h>
#include <thread>

class CDeadline {
public:
    explicit CDeadline(uint32_t waitMs)
        : m_oEnd(std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs)) {}

    // Waits until `fd` is readable. False: the time was up first. With no time left it still looks once.
    bool waitReadable(int fd) const {
        pollfd entry{fd, POLLIN, 0};
        for (;;) {
            const timespec left = remaining();
            const int count = ppoll(&entry, 1, &left, nullptr);
            if (count >= 0 || errno != EINTR) {
                return count > 0;
            }
        }
    }

    void sleep() const { std::this_thread::sleep_until(m_oEnd); }

private:
    timespec remaining() const {
        using std::chrono::nanoseconds;
        const auto left =
            std::max(nanoseconds(m_oEnd - std::chrono::steady_clock::now()), nanoseconds(0)).count();
        return {static_cast<time_t>(left / 1000000000), static_cast<long>(left % 1000000000)};
    }

    std::chrono::steady_clock::time_point m_oEnd;
};

#endif
