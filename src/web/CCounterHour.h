// The counters over the last hour, for curves.
#ifndef QEL_WEB_CCOUNTERHOUR_H
#define QEL_WEB_CCOUNTERHOUR_H

#include "ctl/CDaemonView.h"
#include "ctl/json.h"

#include <cstdint>
#include <deque>
#include <vector>

// Bounded: a sample every ten seconds at most, and so many counters. While nobody looks there are none, and a
// curve goes straight from the sample before to the one behind.
class CCounterHour {
public:
    // `now` by the daemon's clock. Where that was set back, the hour begins anew.
    void add(uint32_t now, const std::vector<SCounterView>& counters);
    void clear() { m_vSamples.clear(); }
    // {"times": [...], "values": {NAME: [...], ...}}; of the counters that the latest sample has.
    CJson json() const;

private:
    static constexpr uint32_t nStep = 10;
    static constexpr uint32_t nHour = 3600;
    static constexpr size_t nMaxCounters = 64;

    struct SSample {
        uint32_t m_tTime;
        std::vector<uint64_t> m_vValues; // in the order of m_vNames
    };
    std::vector<std::string> m_vNames;
    std::deque<SSample> m_vSamples;
};

#endif
