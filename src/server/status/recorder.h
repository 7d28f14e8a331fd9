// The flight recorder: the latest steps of all deliveries, and why the latest failures failed.
#ifndef QEL_SERVER_STATUS_RECORDER_H
#define QEL_SERVER_STATUS_RECORDER_H

#include "features/delivery.h"
#include "messaging/wire/status.h"

#include <cstdint>
#include <string_view>

// Its memory is part of the program (some 300 KB of zeros, of which only what is used becomes real), so
// recording cannot fail. On the main loop's thread only.
//
// A feature that leaves takes all its records along, which is one step here, of the feature as a whole and
// without a component. A list resets every delivery of a feature: a step each, but after nMaxResets in a row
// one for each feature likewise, as a long list would drive everything else out of the recorder.
inline constexpr size_t nMaxResets = nKeptTransitions / 4;

struct SRecordedTime {
    uint32_t m_tSeconds;
    uint32_t m_nMicroseconds;
};

struct SRecordedStep {
    SRecordedTime m_oTime = {};
    uint32_t m_nCode = 0;
    uint32_t m_nData = 0;
    uint8_t m_nFrom = 0;
    uint8_t m_nTo = 0;
    uint8_t m_nCause = 0;                        // EDeliveryEvent
    char m_szComponent[nMaxNameLength + 1] = {}; // empty: all that the feature had
    uint32_t m_nReason = 0;                      // of a failure: a number for recordedReason()
};

struct SRecordedReason {
    uint32_t m_nCode = 0;
    uint32_t m_nData = 0;
    uint32_t m_nNewData = 0; // of the modification that failed, which may be in force by now
    char m_szComponent[nMaxNameLength + 1] = {};
    EStatusWhy m_eWhy = swNone; // swNone: this slot was never used
    uint32_t m_nSends = 0;      // that nobody answered; pushes are not counted
    char m_szText[nMaxReplyTextLength + 1] = {};
};

// From now on everything is recorded, and failures are counted (features/counters.h).
void startRecording();

// The number of the latest step; the first one is 1, and 0 means that there was none.
uint64_t lastStep();
// The number of the oldest step that is kept; lastStep() + 1 if there is none.
uint64_t firstStep();
// One that is kept.
const SRecordedStep& recordedStep(uint64_t number);
// Why a step's delivery failed; null if that is not kept, or it did not.
const SRecordedReason* recordedReason(const SRecordedStep& step);
// Why the latest delivery of the feature to the component failed; null if that is not kept.
const SRecordedReason* recordedReason(uint32_t code, uint32_t data, std::string_view component);

#endif
