#include "server/status/recorder.h"

#include "base/clock.h"
#include "features/CComponent.h"
#include "features/CFeatureEntry.h"
#include "features/counters.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <cstring>

namespace {

constinit std::array<SRecordedStep, nKeptTransitions> aSteps = {};
constinit std::array<SRecordedReason, nKeptReasons> aReasons = {};
constinit uint64_t nLastStep = 0;
constinit uint32_t nReasons = 0;
constinit size_t nResets = 0; // that were recorded one by one, in a row

struct STransition {
    const CFeatureEntry& m_oFeature;
    const CCompStatus& m_oRecord;
    CCompStatus::ECStatus m_eFrom;
    CCompStatus::ECStatus m_eTo;
    EDeliveryEvent m_eCause;
};

// Is recorded without a component. That of a forgotten record may be gone.
bool isOfAll(EDeliveryEvent cause) {
    return cause == dvForget || (cause == dvReset && nResets >= nMaxResets);
}

bool isFailure(CCompStatus::ECStatus status) {
    return status == CCompStatus::csEnableFailed || status == CCompStatus::csDisableFailed ||
           status == CCompStatus::csModifyFailed;
}

// It has failed by this step, and is not just leaving after it failed.
bool isFailed(const STransition& step) {
    return step.m_eFrom != step.m_eTo && isFailure(step.m_eTo);
}

// The step before this one told the same of the feature, by another of its records.
bool isTold(const STransition& step) {
    const SRecordedStep& last = recordedStep(nLastStep);
    return isOfAll(step.m_eCause) && last.m_szComponent[0] == '\0' && last.m_nCause == step.m_eCause &&
           last.m_nCode == step.m_oFeature.m_nCode && last.m_nData == step.m_oFeature.m_nData;
}

// A piece of work takes a fraction of a turn, so all its steps have one time: to ask for it costs more than all
// else here. Outside of any piece, each step has its own.
constexpr auto oNever = std::chrono::steady_clock::time_point::min();
constinit SRecordedTime oTime = {};
constinit std::chrono::steady_clock::time_point oTimeOfWork = oNever;

void takeTime() {
    if (oTimeOfWork == oWorkBegan) {
        return;
    }
    const timeval now = nowTimeOfDay();
    oTime = {static_cast<uint32_t>(now.tv_sec), static_cast<uint32_t>(now.tv_usec)};
    oTimeOfWork = oWorkBegan == decltype(oWorkBegan){} ? oNever : oWorkBegan;
}

[[gnu::always_inline]] inline SRecordedStep& keepStep(const STransition& step) {
    const SFeature feature = step.m_oFeature.id();
    SRecordedStep& kept = aSteps[++nLastStep % nKeptTransitions];
    std::memcpy(&kept.m_oTime, &oTime, sizeof oTime);
    kept.m_nCode = feature.m_nCode;
    kept.m_nData = feature.m_nData;
    kept.m_nFrom = static_cast<uint8_t>(step.m_eFrom);
    kept.m_nTo = static_cast<uint8_t>(step.m_eTo);
    kept.m_nCause = step.m_eCause;
    kept.m_nReason = 0;
    return kept;
}

void keepName(const STransition& step, SRecordedStep& kept) {
    std::memcpy(kept.m_szComponent, step.m_oRecord.m_pComponent->m_szName, sizeof kept.m_szComponent);
}

// Of the step that was kept just now. A refusal is recorded while it is handled, so the component's reply
// text is its own, if it brought one.
void keepReason(const STransition& step) {
    const CComponent& comp = *step.m_oRecord.m_pComponent;
    SRecordedReason& kept = aReasons[++nReasons % nKeptReasons];
    aSteps[nLastStep % nKeptTransitions].m_nReason = nReasons;
    kept.m_nCode = step.m_oFeature.m_nCode;
    kept.m_nData = step.m_oFeature.m_nData;
    kept.m_nNewData = step.m_oFeature.m_nNewData;
    std::memcpy(kept.m_szComponent, comp.m_szName, sizeof kept.m_szComponent);
    kept.m_eWhy = step.m_eCause == dvRefuse ? swRefused : swNoAnswer;
    kept.m_nSends = step.m_eCause == dvNotify ? nMaxTries : sendsOf(step.m_oRecord);
    kept.m_szText[0] = '\0';
    if (kept.m_eWhy == swRefused && comp.m_bReplyText != 0) {
        std::memcpy(kept.m_szText, comp.m_szReplyText, sizeof kept.m_szText);
    }
}

void countStep(const STransition& step) {
    if (step.m_eCause == dvAccept) {
        count(coAccepted);
    } else if (step.m_eCause == dvRefuse) {
        count(coRefused);
    } else if (step.m_eCause == dvOverdue) {
        count(coOverdue);
    }
    if (isFailed(step) && step.m_eCause != dvRefuse) {
        count(coGivenUp);
    }
}

[[gnu::noinline]] void recordWithCare(EDeliveryEvent cause, const CFeatureEntry& entry,
                                      const CCompStatus& record, CCompStatus::ECStatus from) {
    const STransition step{entry, record, from, record.m_eStatus, cause};
    if (isTold(step)) {
        return;
    }
    takeTime();
    SRecordedStep& kept = keepStep(step);
    if (isOfAll(cause)) {
        kept.m_szComponent[0] = '\0';
    } else {
        keepName(step, kept);
    }
    nResets = cause == dvReset ? nResets + 1 : 0;
    countStep(step);
    if (isFailed(step)) {
        keepReason(step);
    }
}

// Causes of steps that are counted, may end in a failure, or come in thousands.
constexpr uint32_t nCareful =
    1U << dvNotify | 1U << dvAccept | 1U << dvRefuse | 1U << dvOverdue | 1U << dvReset | 1U << dvForget;

// A component that comes or goes makes a step for each feature. So the other causes go a short way: the
// recorder may add 3 % to what a message costs.
void record(EDeliveryEvent cause, const CFeatureEntry& entry, const CCompStatus& record,
            CCompStatus::ECStatus from) {
    if ((nCareful >> (cause & 31) & 1) != 0 || oTimeOfWork != oWorkBegan) {
        recordWithCare(cause, entry, record, from);
        return;
    }
    const STransition step{entry, record, from, record.m_eStatus, cause};
    keepName(step, keepStep(step));
    nResets = 0;
}

} // namespace

void startRecording() {
    setDeliveryWitness(record);
}

uint64_t lastStep() {
    return nLastStep;
}

uint64_t firstStep() {
    return nLastStep < nKeptTransitions ? 1 : nLastStep - nKeptTransitions + 1;
}

const SRecordedStep& recordedStep(uint64_t number) {
    return aSteps[number % nKeptTransitions];
}

const SRecordedReason* recordedReason(const SRecordedStep& step) {
    const bool isKept = step.m_nReason != 0 && nReasons - step.m_nReason < nKeptReasons;
    return isKept ? &aReasons[step.m_nReason % nKeptReasons] : nullptr;
}

// The latest first: an earlier failure of the pair is another story.
const SRecordedReason* recordedReason(uint32_t code, uint32_t data, std::string_view component) {
    for (uint32_t i = nReasons; i > 0 && nReasons - i < nKeptReasons; --i) {
        const SRecordedReason& kept = aReasons[i % nKeptReasons];
        const bool isOfPair = kept.m_nData == data || (kept.m_nNewData != 0 && kept.m_nNewData == data);
        if (kept.m_nCode == code && isOfPair && component == kept.m_szComponent) {
            return &kept;
        }
    }
    return nullptr;
}
