// The delivery of one feature to one component, ticked off state by state and event by event.
#include "world.h"

#include "features/delivery.h"

#include <set>

namespace {

using enum CFeatureEntry::EOperator;
using enum CCompStatus::ECStatus;

constexpr auto opUnknown = static_cast<CFeatureEntry::EOperator>(5);
constexpr int nSame = 99;        // the state stays as it is
constexpr uint32_t nOther = 77;  // in the counters of the phases not concerned
constexpr uint32_t tBefore = 40; // the record's stamp before the event

struct SRow {
    std::vector<int> m_vFrom;
    CFeatureEntry::EOperator m_eEvent;
    uint32_t m_nReply; // result of the component's reply
    uint32_t m_nTries; // counter of the state's phase
    int m_nResult;
    int m_nTo;
    uint32_t m_nTriesAfter;
    bool m_bStamped;
    std::string m_sFirst; // line of the log; # stands for the state from which the row starts
};

const std::vector<int> aAll{-1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};
const std::vector<int> aSettled{2, 3, 6, 7, 10, 11};
const std::vector<int> aNotWaiting{-1, 0, 2, 3, 4, 6, 7, 8, 10, 11, 12, 13};
const std::vector<int> aNotEnabled{-1, 0, 1, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};

const SRow aRows[] = {
    // Three sends a phase; the fourth notification declares the failure.
    {{0, 1, 4}, opNotify, 1, 2, 1, 1, 3, true, "4 31126 feature: check comp Voice 1 at feature 7 70"},
    {{0, 1, 4}, opNotify, 1, 3, 0, 3, 0, true, "4 31126 feature: failed comp Voice 3 at feature 7 70"},
    {{5, 8}, opNotify, 1, 2, 1, 5, 3, true, "4 31126 feature: check comp Voice 5 at feature 7 70"},
    {{5, 8}, opNotify, 1, 3, 0, 7, 0, true, "4 31126 feature: disable comp Voice 7 at feature 7 70"},
    {{9, 12}, opNotify, 1, 2, 1, 9, 3, true, "4 31126 feature: check comp Voice 9 at feature 7 70"},
    {{9, 12}, opNotify, 1, 3, 0, 11, 0, true, "4 31126 feature: modify comp Voice 11 at feature 7 70"},
    {{-1, 13}, opNotify, 1, 2, 1, 1, 3, true, "4 31126 feature: change state Voice # at feature 7 70"},
    {{-1, 13}, opNotify, 1, 3, 0, 3, 0, true, "4 31126 feature: failed comp Voice 3 at feature 7 70"},
    {aSettled, opNotify, 1, 2, 0, nSame, 2, false, ""},
    {{1}, opReply, 1, 2, 1, 2, 0, true, "4 31129 feature (7): got reply ok from comp (Voice) 2"},
    {{1}, opReply, 2, 2, 1, 3, 0, true, "4 31130 feature (7): got reply failed from comp (Voice) 3"},
    {{5}, opReply, 1, 2, 1, 6, 0, true, "4 31131 feature (7): got reply ok disabled comp (Voice) 6"},
    {{5}, opReply, 0, 2, 1, 7, 0, true, "4 31132 feature (7): got reply error from comp (Voice) 7"},
    {{9}, opReply, 1, 2, 1, 10, 0, true, "4 31131 feature (7): got reply ok moded comp (Voice) 10"},
    {{9}, opReply, 0, 2, 1, 11, 0, true, "4 31132 feature (7): got reply moderr from comp (Voice) 11"},
    {aNotWaiting, opReply, 1, 2, 0, nSame, 2, true, "4 31133 feature (7): comp (Voice) in wrong state #"},
    {{2}, opConfirm, 0, 2, 1, 2, 2, true, "4 31137 feature (7): replied comp (Voice) 2"},
    {aNotEnabled, opConfirm, 1, 2, 0, nSame, 2, false, "4 31138 feature (7): wrong state comp (Voice) #"},
    {aAll, opUnknown, 1, 2, 0, nSame, 2, false, "4 31140 feature (7): unknow op to comp (Voice) 0"},
};

class CDeliveryTest : public CHeartTest {
protected:
    CCompStatus& at(int state) {
        m_oEntry.addComponent(opRemove, &m_oVoice);
        CCompStatus& status = record(m_oEntry, m_oVoice, state);
        status.m_tStamp = status.m_tEntered = tBefore;
        status.m_nEnableTries = status.m_nDisableTries = status.m_nModifyTries = nOther;
        platform().takeLog();
        return status;
    }

    void check(const SRow& row, int state) {
        CCompStatus& status = at(state); // numbers that are no state count as enabling
        uint32_t& tries = state >= 5 && state <= 8    ? status.m_nDisableTries
                          : state >= 9 && state <= 12 ? status.m_nModifyTries
                                                      : status.m_nEnableTries;
        tries = row.m_nTries;
        m_oVoice.m_nReplyStatus = row.m_nReply;
        EXPECT_EQ(m_oEntry.addComponent(row.m_eEvent, &m_oVoice), row.m_nResult);
        EXPECT_EQ(status.m_eStatus, row.m_nTo == nSame ? state : row.m_nTo);
        EXPECT_EQ(status.m_tStamp, row.m_bStamped ? 1000000 : tBefore);
        EXPECT_EQ(status.m_tEntered, status.m_eStatus != state ? 1000000 : tBefore);
        std::string first = row.m_sFirst;
        if (const size_t at = first.find('#'); at != std::string::npos) {
            first.replace(at, 1, std::to_string(state));
        }
        const CTexts lines = takeLines();
        EXPECT_EQ(lines.empty() ? "" : lines[0], first);
        EXPECT_EQ(tries, row.m_nTriesAfter);
        tries = nOther;
        EXPECT_EQ(status.m_nEnableTries + status.m_nDisableTries + status.m_nModifyTries, 3 * nOther);
    }

    CComponent& m_oVoice = component("Voice");
    CFeatureEntry& m_oEntry = feature(7, 70, EFStatus::fsActive, {"Voice", "Gateway"});
};

TEST_F(CDeliveryTest, EveryStateTakesEveryEventAsTheTableSays) {
    std::set<std::pair<int, uint32_t>> seen;
    for (const SRow& row : aRows) {
        for (const int state : row.m_vFrom) {
            SCOPED_TRACE(testing::Message() << "row " << &row - aRows << " state " << state);
            check(row, state);
            seen.emplace(state, row.m_eEvent);
        }
    }
    EXPECT_EQ(seen.size(), aAll.size() * 4) << "notify, reply, confirm and an unknown event";
    for (const int state : aAll) {
        for (const auto& [feature, to] : {std::pair{EFStatus::fsActive, 0}, {EFStatus::fsDeleted, 6}}) {
            m_oEntry.m_eStatus = feature;
            const CCompStatus& status = at(state);
            EXPECT_EQ(m_oEntry.addComponent(opAdd, &m_oVoice), 1);
            EXPECT_EQ(status.m_eStatus, to) << state;
            EXPECT_EQ(status.m_tStamp, 1000000u) << state;
            EXPECT_EQ(status.m_tEntered, 1000000u) << state;
            EXPECT_EQ(status.m_nEnableTries + status.m_nDisableTries + status.m_nModifyTries, 0);
            EXPECT_EQ(m_oEntry.addComponent(opRemove, &m_oVoice), 1);
            EXPECT_TRUE(m_oEntry.m_vCompStatus.empty());
        }
    }
}

TEST_F(CDeliveryTest, TheOutcomeTellsWhetherThereIsSomethingToSend) {
    const std::tuple<EDeliveryEvent, int, EOutcome> outcomes[] = {
        {dvTakeIn, 0, ocTaken},    {dvNotify, 0, ocSend},     {dvNotify, 13, ocSend},
        {dvNotify, 2, ocRefused},  {dvAccept, 1, ocTaken},    {dvAccept, 5, ocTaken},
        {dvAccept, 9, ocTaken},    {dvAccept, 2, ocRefused},  {dvRefuse, 1, ocTaken},
        {dvRefuse, 5, ocTaken},    {dvRefuse, 9, ocTaken},    {dvRefuse, 2, ocRefused},
        {dvConfirm, 2, ocTaken},   {dvFetch, 3, ocTaken},     {dvAudit, 4, ocNotify},
        {dvAuditOne, 4, ocNotify}, {dvOverdue, 1, ocOverdue}, {dvOverdue, 5, ocOverdue},
        {dvOverdue, 9, ocOverdue}, {dvOverdue, 0, ocRefused}, {dvAssume, 3, ocTaken},
        {dvReset, 0, ocRefused},   {dvRemove, 3, ocTaken},    {dvForget, 3, ocTaken}};
    for (const auto& [event, state, outcome] : outcomes) {
        const bool isCounted = event == dvNotify || event == dvAudit || event == dvAuditOne;
        CCompStatus& status = at(state); // nothing but sends goes by their number
        status.m_nEnableTries = isCounted ? 0 : 3;
        EXPECT_EQ(int{deliver(event, m_oEntry, status)}, int{outcome}) << int{event} << " " << state;
    }
    m_oEntry.m_eStatus = EFStatus::fsDeleted;
    EXPECT_EQ(deliver(dvTakeIn, m_oEntry, at(0)), ocTaken);
    EXPECT_EQ(deliver(dvAssume, m_oEntry, at(0)), ocTaken);
    EXPECT_EQ(deliver(dvFetch, m_oEntry, at(0)), ocRefused);
}

TEST_F(CDeliveryTest, WithoutARecordOnlyTakingInWhomItConcernsIsDone) {
    for (const auto event : {opNotify, opReply, opRemove, opConfirm}) {
        EXPECT_EQ(m_oEntry.addComponent(event, &m_oVoice), 0);
    }
    EXPECT_EQ(takeLines(), (CTexts{"4 31128 failed to notify comps",
                                   "4 31134 feature (7): failed to find the comp (Voice)",
                                   "4 31136 failed to remove compstatus.",
                                   "4 31139 feature (7): failed to find comp (Voice) 0"}));
    for (const char* name : {"voice", "Gate", "Gateway2", "all"}) {
        EXPECT_EQ(m_oEntry.addComponent(opAdd, &component(name)), 0) << name;
    }
    for (const char* name : {"Voice", "Gateway", "ALL", "Anchor"}) {
        EXPECT_EQ(m_oEntry.addComponent(opAdd, &component(name)), 1) << name;
    }
}

} // namespace
