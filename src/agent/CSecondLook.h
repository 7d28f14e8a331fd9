// When a list that could not be put in place is to be judged again.
#ifndef QEL_AGENT_CSECONDLOOK_H
#define QEL_AGENT_CSECONDLOOK_H

#include "agent/CListPlacer.h"
#include "source/CRetry.h"
#include "source/SFingerprint.h"

#include <chrono>
#include <cstdint>
#include <string>

// One that failed, as a full disk or a lock has it: after half a second, then less and less often, every half
// minute at last. One that was refused: when the trust directory or the file with the appliance's name has
// changed since, or the clock was set; looked for every ten seconds.
class CSecondLook {
public:
    using CTime = std::chrono::steady_clock::time_point;
    static constexpr std::chrono::seconds tBetweenLooks{10};
    static constexpr std::chrono::seconds tClockStep{60}; // a lesser one makes no certificate valid

    // Paths are those of the trust directory and of the appliance's file.
    CSecondLook(std::string trust, std::string appliance);

    // Before a list is judged: what is so now is what it is judged by.
    void begin(CTime now);
    void judged(EPlaced placed, CTime now);
    bool isDue(CTime now);

private:
    std::chrono::seconds clockOffset(CTime now) const;

    std::string m_sTrust;
    std::string m_sAppliance;
    CRetry m_oRetry{std::chrono::milliseconds{500}};
    bool m_bRefused = false;
    SFingerprint m_oTrust;
    SFingerprint m_oAppliance;
    std::chrono::seconds m_nOffset{};
    CTime m_tLook{};
};

#endif
