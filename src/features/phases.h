// The table of the delivery: what the states are, and in what the three phases differ. All else of the
// delivery is the same for each phase and stands once, in CFeatureEntry.
#ifndef QEL_FEATURES_PHASES_H
#define QEL_FEATURES_PHASES_H

#include "features/CCompStatus.h"

#include <cstddef>
#include <cstdint>
#include <iterator>

struct SPhase {
    CCompStatus::ECStatus m_eWaiting;
    CCompStatus::ECStatus m_eSuccess;
    CCompStatus::ECStatus m_eFailure;
    CCompStatus::ECStatus m_eOverdue; // where a reply that is overdue leaves the record
    uint8_t CCompStatus::*m_pTries;   // counts the sends of the phase
    const char* m_szGivenUp;          // log word: three sends, no reply
    uint32_t m_nOkEvent;              // log event and words of a reply
    const char* m_szOk;
    uint32_t m_nFailedEvent;
    const char* m_szFailed;
};

inline constexpr SPhase aPhases[] = {
    {CCompStatus::csEnabling, CCompStatus::csEnabled, CCompStatus::csEnableFailed,
     CCompStatus::csEnableTimedOut, &CCompStatus::m_nEnableTries, "failed", 31129, "ok from", 31130,
     "failed from"},
    {CCompStatus::csDisabling, CCompStatus::csDisabled, CCompStatus::csDisableFailed,
     CCompStatus::csDisableTimedOut, &CCompStatus::m_nDisableTries, "disable", 31131, "ok disabled", 31132,
     "error from"},
    {CCompStatus::csModifying, CCompStatus::csModified, CCompStatus::csModifyFailed,
     CCompStatus::csModifyFailed, &CCompStatus::m_nModifyTries, "modify", 31131, "ok moded", 31132,
     "moderr from"},
};

struct SState {
    enum ERole : uint8_t { roIdle, roWaiting, roSuccess, roFailure, roTimedOut };

    uint8_t m_nPhase;
    ERole m_eRole;

    const SPhase& phase() const { return aPhases[m_nPhase]; }
    bool isWaiting() const { return m_eRole == roWaiting; }
    bool isSettled() const { return m_eRole == roSuccess || m_eRole == roFailure; } // nothing more is sent
    bool isAnswered() const { return isSettled() || m_eRole == roTimedOut; }        // nothing is waited for
};

// One row a state, in the order of their numbers.
inline constexpr SState aStates[] = {
    {0, SState::roIdle}, // 0
    {0, SState::roWaiting}, {0, SState::roSuccess},
    {0, SState::roFailure}, {0, SState::roTimedOut}, // 1 to 4
    {1, SState::roWaiting}, {1, SState::roSuccess},
    {1, SState::roFailure}, {1, SState::roTimedOut}, // 5 to 8
    {2, SState::roWaiting}, {2, SState::roSuccess},
    {2, SState::roFailure}, {2, SState::roTimedOut}, // 9 to 12
};
static_assert(std::size(aStates) == CCompStatus::csModifyTimedOut + 1);

// Null for a number that is no state.
constexpr const SState* stateOf(CCompStatus::ECStatus status) {
    return status >= CCompStatus::csIdle && status <= CCompStatus::csModifyTimedOut ? &aStates[status]
                                                                                    : nullptr;
}

// The phase that a record enters whose number is no state.
constexpr const SPhase& enablePhase() {
    return aPhases[0];
}

#endif
