// What has to happen in the demonstration.
#include "CStory.h"

#include "cast.h"

#include <algorithm>
#include <fmt/format.h>

int CStory::sumUp(bool played) {
    expectFirstDeliveries();
    expectChanges();
    expectTrouble();
    expectEnd(played);
    m_oNarrator.chapter("Expected");
    for (const SExpectation& expectation : m_vExpectations) {
        const std::string mark =
            expectation.m_bMet ? m_oNarrator.good("ok     ") : m_oNarrator.bad("MISSING");
        m_oNarrator.plain(fmt::format("  {}  {}", mark, expectation.m_sText));
    }
    m_oNarrator.chapter("In all");
    m_oNarrator.plain(
        fmt::format("  deliveries {}, answers {}, resends {}, failures {}, sends spared {}; {:.1f} seconds",
                    m_oRecord.deliveries(), m_oRecord.answers(), m_oRecord.resends(), m_oRecord.failures(),
                    m_oRecord.count({evHeld, ""}), static_cast<double>(m_oStage.now()) / 1000));
    if (std::ranges::all_of(m_vExpectations, &SExpectation::m_bMet)) {
        return 0;
    }
    m_oNarrator.plain(m_oNarrator.bad(fmt::format(
        "  not everything happened that had to; all that was said: {}", m_oStage.keepTranscript())));
    return 1;
}

void CStory::expect(const std::string& text, bool met) {
    m_vExpectations.push_back({text, met});
}

void CStory::expectFirstDeliveries() {
    const auto features = [this](const char* who) { return m_oBefore.concerning(who).size(); };
    expect(fmt::format("{} fetched the {} features that concern it", sGood, features(sGood)),
           hasAll(cpFetched, sGood));
    expect(fmt::format("{} took up the {} features that concern it", sExample, features(sExample)),
           hasAll(cpTaken, sExample));
    expect(fmt::format("{} was notified of the {} features that concern it", sRefusing, features(sRefusing)),
           hasAll(cpNotified, sRefusing));
    for (uint32_t code : aHeldCodes) {
        const uint32_t data = m_oBefore.find(code).m_nData;
        expect(fmt::format("{} holds {}, and was not sent it", sHolding, pairText(code, data)),
               m_oRecord.has({evHeld, sHolding, code, data}) && !m_oRecord.has({cpNotified, sHolding, code}));
    }
}

void CStory::expectChanges() {
    const auto [code, data] = std::pair(oAddedFeature.m_nCode, oAddedFeature.m_nData);
    expect(fmt::format("{} came: {} took it up", pairText(code, data), sGood),
           m_oRecord.has({cpAccepted, sGood, code, data}, m_nChanged));
    expect(fmt::format("{} came: {} took it up", pairText(code, data), sExample),
           m_oRecord.has({cpTaken, sExample, code, data}, m_nChanged) &&
               m_oRecord.has({evReplyOk, sExample, code}, m_nChanged));
    const uint32_t before = m_oBefore.find(nModifiedCode).m_nData;
    const uint32_t after = m_oAfter.find(nModifiedCode).m_nData;
    for (const char* who : {sGood, sRefusing}) {
        expect(fmt::format("{} changed from {} to {}: {} was told, and changed it", nModifiedCode, before,
                           after, who),
               m_oRecord.has({cpAccepted, who, nModifiedCode, before, after, cpModified}, m_nChanged));
    }
    expect(fmt::format("{} went: {} was told, and gave it up", nWithdrawnCode, sGood),
           m_oRecord.has({cpAccepted, sGood, nWithdrawnCode, {}, {}, cpDisabled}, m_nChanged));
    expect(fmt::format("{} has left the daemon's table", nWithdrawnCode),
           m_oRecord.has({evRemoved, "", nWithdrawnCode}, m_nChanged));
}

void CStory::expectTrouble() {
    for (const char* who : {sGood, sHolding, sExample}) {
        expect(fmt::format("every notification that {} got was answered ok", who), answersWell(who));
    }
    expect(fmt::format("{}'s refusal of {} is in the log as a failed reply", sRefusing, nRefusedCode),
           m_oRecord.has({cpRefused, sRefusing, nRefusedCode}) &&
               m_oRecord.has({evReplyFailed, sRefusing, nRefusedCode}));
    expect(fmt::format("nothing else was refused, and {} answered all the rest ok", sRefusing),
           m_oRecord.count({evReplyFailed, ""}) == m_oRecord.count({cpRefused, sRefusing, nRefusedCode}) &&
               answersWell(sRefusing));
    const uint32_t code = oSilentFeature.m_nCode;
    expect(fmt::format("{} was told that its answer is overdue", sSilent),
           m_oRecord.has({evOverdue, sSilent, code}) && m_oRecord.has({cpOverdue, sSilent, code}));
    expect(fmt::format("{} was sent {} again, three times, and given up after that", sSilent, code),
           m_oRecord.count({evCounted, sSilent, code}) == 3 &&
               m_oRecord.count({cpNotified, sSilent, code}) == 4 &&
               m_oRecord.count({evGivenUp, sSilent, code}) == 1);
}

void CStory::expectEnd(bool played) {
    expect(m_sDied.empty() ? "no process ended before its time"
                           : "no process ended before its time, but " + m_sDied,
           m_sDied.empty());
    expect("nothing had to be waited for in vain", played);
    expect("each component ended with exit status 0",
           m_vComponents.size() == nComponents && std::ranges::all_of(m_vComponents, [](CProcess* component) {
               return component->status() == 0;
           }));
    expect("qelserver -stop and the daemon ended with exit status 0",
           m_nStopStatus == 0 && m_pDaemon->status() == 0 && m_oRecord.has({evDaemonStopped, ""}));
}

bool CStory::hasAll(EEvent kind, const std::string& who) const {
    const std::set<CDemoList::CPair> pairs = m_oBefore.concerning(who);
    return !pairs.empty() && std::ranges::all_of(pairs, [&](const CDemoList::CPair& pair) {
        return m_oRecord.has({kind, who, pair.first, pair.second});
    });
}

// By the daemon's log, and where the component shows its messages, by those as well.
bool CStory::answersWell(const std::string& who) const {
    const auto count = [&](EEvent kind) { return m_oRecord.count({kind, who}); };
    const size_t sent = count(evNotified) + count(evModified) + count(evDisabled) - count(evHeld);
    const size_t answered = count(evReplyOk) + count(evReplyFailed) - count(evHeld);
    const size_t received = count(cpNotified) + count(cpModified) + count(cpDisabled);
    return sent != 0 && answered == sent &&
           (who == sExample || (received == sent && count(cpAccepted) + count(cpRefused) == sent));
}

bool CStory::haveChangesArrived() const {
    const uint32_t added = oAddedFeature.m_nCode;
    return m_oRecord.has({cpAccepted, sGood, added}, m_nChanged) &&
           m_oRecord.has({evReplyOk, sExample, added}, m_nChanged) &&
           m_oRecord.has({cpAccepted, sGood, nModifiedCode}, m_nChanged) &&
           m_oRecord.has({cpAccepted, sRefusing, nModifiedCode}, m_nChanged) &&
           m_oRecord.has({evRemoved, "", nWithdrawnCode}, m_nChanged);
}
