#include "client/CPatience.h"

#include <algorithm>

namespace {

constexpr std::chrono::hours tLongest{1};
constexpr size_t nMaxAsked = 16; // requests that are remembered; with a patience that doubles, hours of them

} // namespace

CPatience::CPatience(CDuration least, uint32_t seed) : m_tLeast(least), m_tWait(least), m_oChance(seed) {}

void CPatience::ask(uint32_t tag, CTime now) {
    if (m_oAsked.size() == nMaxAsked) {
        m_oAsked.pop_front();
    }
    m_oAsked.push_back({tag, now});
    m_tDue = dueOf(m_oAsked.back());
}

// The daemon answers in the order in which it was asked, so what was asked before is not awaited any more.
bool CPatience::take(uint32_t tag, CTime now) {
    const auto asked = std::find_if(m_oAsked.begin(), m_oAsked.end(),
                                    [tag](const SAsked& request) { return request.m_nTag == tag; });
    if (asked == m_oAsked.end()) {
        return false;
    }
    const CDuration twice = 2 * (now - asked->m_tAsked);
    m_oAsked.erase(m_oAsked.begin(), asked + 1);
    if (m_oAsked.empty()) {
        m_tWait = std::max(m_tLeast, twice);
        return true;
    }
    m_tWait = std::max(m_tWait, twice);
    m_tDue = std::max(m_tDue, dueOf(m_oAsked.back()));
    return false;
}

void CPatience::giveUp() {
    m_tWait = std::max<CDuration>(m_tLeast, std::min<CDuration>(2 * m_tWait, tLongest));
}

void CPatience::forget() {
    m_tWait = m_tLeast;
    m_oAsked.clear();
}

CPatience::CTime CPatience::dueOf(const SAsked& asked) {
    return asked.m_tAsked + m_tWait + m_tWait / 1024 * static_cast<int>(m_oChance() % 512);
}
