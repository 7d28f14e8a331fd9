// When to try again what failed and may succeed the next time.
#ifndef QEL_SOURCE_CRETRY_H
#define QEL_SOURCE_CRETRY_H

#include <algorithm>
#include <chrono>

// After one period, then after twice as long each time, up to 64 periods: soon enough for what passes by
// itself, and cheap for what does not.
class CRetry {
public:
    using CTime = std::chrono::steady_clock::time_point;

    explicit CRetry(std::chrono::milliseconds period) : m_nPeriod(period) {}

    // The attempt at `now` has failed. True: the one before it had not.
    bool fail(CTime now) {
        const bool isFirst = !isFailing();
        m_nDelay = isFirst ? m_nPeriod : std::min(2 * m_nDelay, 64 * m_nPeriod);
        m_tDue = now + m_nDelay;
        return isFirst;
    }

    // The attempt has succeeded. True: the one before it had not.
    bool succeed() {
        const bool wasFailing = isFailing();
        m_nDelay = {};
        return wasFailing;
    }

    bool isFailing() const { return m_nDelay.count() != 0; }
    bool isDue(CTime now) const { return isFailing() && now >= m_tDue; }

private:
    std::chrono::milliseconds m_nPeriod;
    std::chrono::milliseconds m_nDelay{}; // 0: nothing has failed
    CTime m_tDue;
};

#endif
