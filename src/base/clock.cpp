#include "base/clock.h"

#include <ctime>

namespace {

uint32_t systemSeconds() {
    return static_cast<uint32_t>(std::time(nullptr));
}

timeval systemTimeOfDay() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return now;
}

} // namespace

constinit const SClock oSystemClock{systemSeconds, systemTimeOfDay};

namespace {
constinit const SClock* pClock = &oSystemClock;
}

uint32_t nowSeconds() {
    return pClock->m_fnSeconds();
}

timeval nowTimeOfDay() {
    return pClock->m_fnTimeOfDay();
}

void useClock(const SClock& clock) {
    pClock = &clock;
}
