#include "web/CCounterHour.h"

#include <algorithm>

// A daemon tells the same counters in the same order for as long as it lives; another begins anew (clear()).
void CCounterHour::add(uint32_t now, const std::vector<SCounterView>& counters) {
    if (!m_vSamples.empty() && now < m_vSamples.back().m_tTime) {
        clear();
    }
    if (!m_vSamples.empty() && now - m_vSamples.back().m_tTime < nStep) {
        return;
    }
    const size_t count = std::min(counters.size(), nMaxCounters);
    if (m_vSamples.empty()) {
        m_vNames.clear();
        std::transform(counters.begin(), counters.begin() + static_cast<std::ptrdiff_t>(count),
                       std::back_inserter(m_vNames), [](const SCounterView& each) { return each.m_sText; });
    }
    SSample sample{now, {}};
    for (size_t i = 0; i < m_vNames.size(); ++i) {
        sample.m_vValues.push_back(i < count ? number(counters[i].m_aValue) : 0);
    }
    m_vSamples.push_back(std::move(sample));
    while (m_vSamples.back().m_tTime - m_vSamples.front().m_tTime > nHour) {
        m_vSamples.pop_front();
    }
}

CJson CCounterHour::json() const {
    CJson times = CJson::array();
    CJson values = CJson::object();
    for (const SSample& sample : m_vSamples) {
        times.push_back(sample.m_tTime);
    }
    for (size_t i = 0; i < m_vNames.size(); ++i) {
        CJson line = CJson::array();
        for (const SSample& sample : m_vSamples) {
            line.push_back(sample.m_vValues[i]);
        }
        values[m_vNames[i]] = std::move(line);
    }
    return {{"times", std::move(times)}, {"values", std::move(values)}};
}
