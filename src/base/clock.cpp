#include "base/clock.h"

#include <ctime>

namespace {

// The cast keeps the low 32 bits, so times of a 64-bit time_t beyond 2038 come out right.
uint32_t systemSeconds() {
    return static_cast<uint32_t>(std::time(nullptr));
}

[[gnu::hot]] timeval systemTimeOfDay() {
    timeval now{};
    gettimeofday(&now, nullptr);
    return now;
}

} // namespace

// Constant-initialised, both: the clock works in the initialisers of other sources as well.
constinit const SClock oSystemClock{systemSeconds, systemTimeOfDay};

namespace {
constinit const SClock* pClock = &oSystemClock;
}

uint32_t nowSeconds() {
    return pClock->m_fnSeconds();
}

[[gnu::hot]] timeval nowTimeOfDay() {
    return pClock->m_fnTimeOfDay();
}

void useClock(const SClock& clock) {
    pClock = &clock;
}
