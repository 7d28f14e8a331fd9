#include "server/status/recorder.h"

#include "base/clock.h"
#include "features/CComponent.h"
#include "features/CFeatureEntry.h"
#include "features/counters.h"

#include <algorithm>
#include <array>
#include <cstring>

namespace {

constinit std::array<SRecordedStep, nKeptTransitions> aSteps = {};
constinit std::array<SRecordedReason, nKeptReasons> aReasons = {};
constinit uint64_t nLastStep = 0;
constinit uint32_t nReasons = 0;
constinit size_t nResets = 0; // that were recorded one by one, in a row

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

void keepStep(const STransition& step) {
    const timeval now = nowTimeOfDay();
    SRecordedStep& kept = aSteps[++nLastStep % nKeptTransitions];
    kept = {static_cast<uint32_t>(now.tv_sec),
            static_cast<uint32_t>(now.tv_usec),
            step.m_oFeature.m_nCode,
            step.m_oFeature.m_nData,
            static_cast<uint8_t>(step.m_eFrom),
            static_cast<uint8_t>(step.m_eTo),
            step.m_eCause};
    if (!isOfAll(step.m_eCause)) {
        std::memcpy(kept.m_szComponent, step.m_oRecord.m_pComponent->m_szName, sizeof kept.m_szComponent);
    }
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

void record(const STransition& step) {
    if (isTold(step)) {
        return;
    }
    keepStep(step);
    nResets = step.m_eCause == dvReset ? nResets + 1 : 0;
    countStep(step);
    if (isFailed(step)) {
        keepReason(step);
    }
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
