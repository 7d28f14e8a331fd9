#include "agent/CSecondLook.h"

#include "base/clock.h"

#include <utility>

CSecondLook::CSecondLook(std::string trust, std::string appliance)
    : m_sTrust(std::move(trust)), m_sAppliance(std::move(appliance)) {}

void CSecondLook::begin(CTime now) {
    m_oTrust = SFingerprint::of(m_sTrust.c_str());
    m_oAppliance = SFingerprint::of(m_sAppliance.c_str());
    m_nOffset = clockOffset(now);
    m_tLook = now + tBetweenLooks;
}

void CSecondLook::judged(EPlaced placed, CTime now) {
    m_bRefused = placed == EPlaced::refused;
    if (placed == EPlaced::failed) {
        m_oRetry.fail(now);
    } else {
        m_oRetry.succeed();
    }
}

bool CSecondLook::isDue(CTime now) {
    if (!m_bRefused || now < m_tLook) {
        return m_oRetry.isDue(now);
    }
    m_tLook = now + tBetweenLooks;
    const std::chrono::seconds step = clockOffset(now) - m_nOffset;
    return m_oTrust != SFingerprint::of(m_sTrust.c_str()) ||
           m_oAppliance != SFingerprint::of(m_sAppliance.c_str()) || std::chrono::abs(step) > tClockStep;
}

// Of the time of the day to the time that nobody sets.
std::chrono::seconds CSecondLook::clockOffset(CTime now) const {
    return std::chrono::seconds{nowTimeOfDay().tv_sec} -
           std::chrono::duration_cast<std::chrono::seconds>(now.time_since_epoch());
}
