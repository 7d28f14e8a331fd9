// The delivery of one feature to one component, ticked off state by state and event by event.
#include "world.h"

#include "messaging/wire.h"

#include <set>

namespace {

using enum CFeatureEntry::EOperator;
using enum CCompStatus::ECStatus;

constexpr auto opUnknown = static_cast<CFeatureEntry::EOperator>(5);
constexpr int nSame = 99;        // the state, or the counter, stays as it is
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
    const char* m_szLines; // # stands for the state from which the row starts
};

const std::vector<int> aAll{-1, 0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};
const std::vector<int> aSettled{2, 3, 6, 7, 10, 11};
const std::vector<int> aNotWaiting{-1, 0, 2, 3, 4, 6, 7, 8, 10, 11, 12, 13};
const std::vector<int> aNotEnabled{-1, 0, 1, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13};

// The line of a message that is to be sent.
#define CHECK_LINE(state) "4 31126 feature: check comp Voice " #state " at feature 7 70\n"
constexpr char szFailed[] = "4 31126 feature: failed comp Voice 3 at feature 7 70\n";
constexpr char szDisable[] = "4 31126 feature: disable comp Voice 7 at feature 7 70\n";
constexpr char szModify[] = "4 31126 feature: modify comp Voice 11 at feature 7 70\n";
constexpr char szChange[] = "4 31126 feature: change state Voice # at feature 7 70\n" CHECK_LINE(1);
constexpr char szRefused[] = "4 31130 feature (7): got reply failed from comp (Voice) 3\n";
constexpr char szModified[] = "4 31131 feature (7): got reply ok moded comp (Voice) 10\n"
                              "4 31131 feature (7): moded FeatureData update (0)\n";
constexpr char szNotModified[] = "4 31132 feature (7): got reply moderr from comp (Voice) 11\n"
                                 "4 31131 feature (7): moded FeatureData update (0)\n";

const SRow aRows[] = {
    // Three sends a phase; the fourth notification declares the failure.
    {{0, 1, 4}, opNotify, 1, 2, 1, 1, 3, true, CHECK_LINE(1)},
    {{0, 1, 4}, opNotify, 1, 3, 0, 3, 0, true, szFailed},
    {{5, 8}, opNotify, 1, 2, 1, 5, 3, true, CHECK_LINE(5)},
    {{5, 8}, opNotify, 1, 3, 0, 7, 0, true, szDisable},
    {{9, 12}, opNotify, 1, 2, 1, 9, 3, true, CHECK_LINE(9)},
    {{9, 12}, opNotify, 1, 3, 0, 11, 0, true, szModify},
    {{-1, 13}, opNotify, 1, 2, 1, 1, 3, true, szChange},
    {{-1, 13}, opNotify, 1, 3, 0, 3, 0, true, szFailed},
    {aSettled, opNotify, 1, 2, 0, nSame, 2, false, ""},
    {{1}, opReply, 1, 2, 1, 2, 0, true, "4 31129 feature (7): got reply ok from comp (Voice) 2\n"},
    {{1}, opReply, 0, 2, 1, 3, 0, true, szRefused},
    {{1}, opReply, 2, 2, 1, 3, 0, true, szRefused},
    {{5}, opReply, 1, 2, 1, 6, 0, true, "4 31131 feature (7): got reply ok disabled comp (Voice) 6\n"},
    {{5}, opReply, 0, 2, 1, 7, 0, true, "4 31132 feature (7): got reply error from comp (Voice) 7\n"},
    {{9}, opReply, 1, 2, 1, 10, 0, true, szModified},
    {{9}, opReply, 0, 2, 1, 11, 0, true, szNotModified},
    {aNotWaiting, opReply, 1, 2, 0, nSame, 2, true, "4 31133 feature (7): comp (Voice) in wrong state #\n"},
    {{2}, opConfirm, 0, 2, 1, 2, 2, true, "4 31137 feature (7): replied comp (Voice) 2\n"},
    {aNotEnabled, opConfirm, 1, 2, 0, nSame, 2, false, "4 31138 feature (7): wrong state comp (Voice) #\n"},
    {aAll, opUnknown, 1, 2, 0, nSame, 2, false, "4 31140 feature (7): unknow op to comp (Voice) 0\n"},
};

std::string filledIn(std::string text, int state) {
    const size_t at = text.find('#');
    return at == std::string::npos ? text : text.replace(at, 1, std::to_string(state));
}

// The counter of the state's phase; numbers that are no state count as enabling.
uint32_t& triesOf(CCompStatus& status, int state) {
    if (state >= 5 && state <= 8) {
        return status.m_nDisableTries;
    }
    return state >= 9 && state <= 12 ? status.m_nModifyTries : status.m_nEnableTries;
}

class CDeliveryTest : public CHeartTest {
protected:
    CDeliveryTest()
        : m_oVoice(*component(control(), "Voice")),
          m_oEntry(*feature(control(), 7, 70, CFeatureEntry::fsActive, {"Voice", "Gateway"})) {}

    CCompStatus& at(int state) {
        m_oEntry.addComponent(opRemove, &m_oVoice);
        CCompStatus& status = *record(m_oEntry, m_oVoice, state);
        status.m_tStamp = tBefore;
        status.m_nEnableTries = status.m_nDisableTries = status.m_nModifyTries = nOther;
        platform().takeLog();
        return status;
    }

    void check(const SRow& row, int state) {
        SCOPED_TRACE(testing::Message() << "state " << state << " event " << row.m_eEvent << " tries "
                                        << row.m_nTries << " reply " << row.m_nReply);
        CCompStatus& status = at(state);
        triesOf(status, state) = row.m_nTries;
        m_oVoice.m_nReplyStatus = row.m_nReply;
        EXPECT_EQ(m_oEntry.addComponent(row.m_eEvent, &m_oVoice), row.m_nResult);
        EXPECT_EQ(status.m_eStatus, row.m_nTo == nSame ? state : row.m_nTo);
        EXPECT_EQ(status.m_tStamp, row.m_bStamped ? 1000000 : tBefore);
        EXPECT_EQ(transcript(), filledIn(row.m_szLines, state));
        EXPECT_EQ(triesOf(status, state), row.m_nTriesAfter);
        triesOf(status, state) = nOther;
        EXPECT_EQ(status.m_nEnableTries + status.m_nDisableTries + status.m_nModifyTries, 3 * nOther);
    }

    CComponent& m_oVoice;
    CFeatureEntry& m_oEntry;
};

TEST_F(CDeliveryTest, EveryStateTakesEveryEventAsTheTableSays) {
    std::set<std::pair<int, uint32_t>> seen;
    for (const SRow& row : aRows) {
        for (const int state : row.m_vFrom) {
            check(row, state);
            seen.emplace(state, row.m_eEvent);
        }
    }
    EXPECT_EQ(seen.size(), aAll.size() * 4) << "notify, reply, confirm and an unknown event";
}

TEST_F(CDeliveryTest, EveryStateIsTakenInAnewAndRemoved) {
    for (const int state : aAll) {
        at(state);
        EXPECT_EQ(m_oEntry.addComponent(opRemove, &m_oVoice), 1);
        EXPECT_EQ(transcript(), filledIn("4 31135 feature: remove comp Voice (#)\n", state));
        EXPECT_TRUE(m_oEntry.m_vCompStatus.empty());

        for (const auto& [feature, to] :
             {std::pair{CFeatureEntry::fsActive, 0}, {CFeatureEntry::fsDeleted, 6}}) {
            m_oEntry.m_eStatus = feature;
            CCompStatus& status = at(state);
            EXPECT_EQ(m_oEntry.addComponent(opAdd, &m_oVoice), 1);
            EXPECT_EQ(transcript(),
                      filledIn("4 31125 adding new compstatus Voice # at feature 7 70\n", state));
            EXPECT_EQ(status.m_eStatus, to);
            EXPECT_EQ(status.m_tStamp, 1000000u);
            EXPECT_EQ(status.m_nEnableTries + status.m_nDisableTries + status.m_nModifyTries, 0u);
            EXPECT_EQ(m_oEntry.m_vCompStatus, (std::vector<CCompStatus*>{&status, &status}));
        }
    }
}

TEST_F(CDeliveryTest, WithoutARecordNothingButTakingInIsDone) {
    EXPECT_EQ(m_oEntry.addComponent(opNotify, &m_oVoice), 0);
    EXPECT_EQ(m_oEntry.addComponent(opReply, &m_oVoice), 0);
    EXPECT_EQ(m_oEntry.addComponent(opRemove, &m_oVoice), 0);
    EXPECT_EQ(m_oEntry.addComponent(opConfirm, &m_oVoice), 0);
    EXPECT_EQ(m_oEntry.addComponent(opUnknown, &m_oVoice), 0);
    EXPECT_EQ(m_oEntry.addComponent(opAdd, component(control(), "voice")), 0);
    EXPECT_TRUE(m_oEntry.m_vCompStatus.empty());
    EXPECT_EQ(m_oEntry.addComponent(opAdd, &m_oVoice), 1);
    EXPECT_EQ(m_oEntry.findCompByPtr(&m_oVoice), m_oEntry.m_vCompStatus.at(0));
    EXPECT_EQ(transcript(), "4 31128 failed to notify comps\n"
                            "4 31134 feature (7): failed to find the comp (Voice)\n"
                            "4 31136 failed to remove compstatus.\n"
                            "4 31139 feature (7): failed to find comp (Voice) 0\n"
                            "4 31140 feature (7): unknow op to comp (Voice) 0\n"
                            "4 31125 adding new compstatus Voice 0 at feature 7 70\n");
}

TEST_F(CDeliveryTest, AModificationEndsWithTheLastAnswerOfTheMonitored) {
    CComponent& gateway = *component(control(), "Gateway", 0x22);
    CComponent& silent = *component(control(), "ALL", 0x23, 0);
    m_oEntry.m_eStatus = CFeatureEntry::fsModify;
    m_oEntry.m_nNewData = 71;
    record(m_oEntry, m_oVoice, csModifying);
    record(m_oEntry, gateway, csModifying);
    record(m_oEntry, silent, csModifying);
    m_oVoice.m_nReplyStatus = nReplyOk;
    EXPECT_EQ(m_oEntry.addComponent(opReply, &m_oVoice), 1);
    EXPECT_EQ(transcript(), "4 31131 feature (7): got reply ok moded comp (Voice) 10\n");
    EXPECT_EQ(m_oEntry.m_nData, 70u);
    EXPECT_EQ(m_oEntry.m_eStatus, CFeatureEntry::fsModify);

    EXPECT_EQ(m_oEntry.addComponent(opReply, &gateway), 1); // it failed: the cycle ends all the same
    EXPECT_EQ(transcript(), "4 31132 feature (7): got reply moderr from comp (Gateway) 11\n"
                            "4 31131 feature (7): moded FeatureData update (0)\n");
    EXPECT_EQ(m_oEntry.m_nData, 71u);
    EXPECT_EQ(m_oEntry.m_nNewData, 0u);
    EXPECT_EQ(m_oEntry.m_eStatus, CFeatureEntry::fsActive);

    m_oEntry.m_eStatus = CFeatureEntry::fsModify; // without pending data the data stay
    at(csModifying);
    m_oEntry.addComponent(opReply, &m_oVoice);
    EXPECT_EQ(m_oEntry.m_nData, 71u);
    EXPECT_EQ(m_oEntry.m_eStatus, CFeatureEntry::fsActive);
}

TEST_F(CDeliveryTest, OnlyTheMonitoredCountAsAnsweringOrNot) {
    const std::set<int> answered{2, 3, 4, 6, 7, 8, 10, 11, 12};
    const std::set<int> modified{10, 11, 12};
    EXPECT_EQ(m_oEntry.isReplied(CFeatureEntry::fsModify), 1); // nobody to wait for
    for (const int state : aAll) {
        at(state);
        for (const int monitored : {1, 0, 2}) {
            m_oVoice.m_bMonitor = static_cast<uint8_t>(monitored);
            const bool ignored = monitored != 1;
            EXPECT_EQ(m_oEntry.isReplied(CFeatureEntry::fsExisting), ignored || answered.count(state))
                << state;
            EXPECT_EQ(m_oEntry.isReplied(CFeatureEntry::fsModify), ignored || modified.count(state)) << state;
        }
    }
}

TEST_F(CDeliveryTest, AReplyIsOverdueAfterMoreThanTenSeconds) {
    std::vector<CCompStatus*> records;
    for (const int state : aAll) {
        records.push_back(record(m_oEntry, *component(control(), "ALL"), state));
    }
    platform().advance(10);
    EXPECT_EQ(m_oEntry.findFirstTimeout(), nullptr);
    platform().advance(1);
    std::vector<int> walked;
    for (CCompStatus* next = m_oEntry.findFirstTimeout(); next != nullptr;
         next = m_oEntry.findNextTimeout()) {
        walked.push_back(next->m_eStatus);
    }
    EXPECT_EQ(walked, (std::vector<int>{1, 5, 9}));
    EXPECT_EQ(m_oEntry.m_nTimeoutIndex, 0);
    records[0]->m_eStatus = csEnabling; // the walk is reset, so the next one leaves the first slot out
    EXPECT_EQ(m_oEntry.findNextTimeout()->m_eStatus, csEnabling);
    EXPECT_EQ(m_oEntry.m_nTimeoutIndex, 2);
    EXPECT_EQ(m_oEntry.findFirstTimeout(), records[0]);
}

// The record then stands in two slots.
TEST_F(CDeliveryTest, ARecordTakenInTwiceGoesOnceAndWhole) {
    const auto takeInTwice = [this] {
        for (int i = 0; i < 3; ++i) {
            ASSERT_EQ(m_oEntry.addComponent(opAdd, &m_oVoice), 1);
        }
        EXPECT_GT(m_oEntry.m_vCompStatus.size(), 1u);
    };
    takeInTwice();
    EXPECT_EQ(m_oEntry.addComponent(opRemove, &m_oVoice), 1);
    EXPECT_EQ(m_oEntry.addComponent(opRemove, &m_oVoice), 0);
    EXPECT_TRUE(m_oEntry.m_vCompStatus.empty());

    takeInTwice();
    m_oEntry.m_nTimeoutIndex = 1;
    m_oEntry.m_nNewData = 9;
    const CFeatureEntry other(nullptr);
    m_oEntry.modifyByPtr(&other);
    EXPECT_TRUE(m_oEntry.m_vCompStatus.empty());
    EXPECT_TRUE(m_oEntry.m_nCode == 0 && m_oEntry.m_nData == 0 && m_oEntry.m_nTimeoutIndex == 0);
    EXPECT_EQ(m_oEntry.m_eStatus, CFeatureEntry::fsModify);
    EXPECT_EQ(m_oEntry.m_nNewData, 9u);

    takeInTwice();
    m_oEntry.clear();
    EXPECT_TRUE(m_oEntry.m_vCompStatus.empty() && m_oEntry.m_vCompNames.empty());
    m_oEntry.addCompName("Voice");
    takeInTwice(); // and is destroyed with it
}

TEST_F(CDeliveryTest, NamesSayWhomAFeatureConcerns) {
    m_oEntry.m_vCompNames = {"Gateway", nullptr, "Voice"};
    for (const char* name : {"Gateway", "Voice", "ALL", "Anchor"}) {
        EXPECT_EQ(m_oEntry.findCompName(name), 1) << name;
    }
    for (const char* name : {"gateway", "Gate", "Gateway2", "all", ""}) {
        EXPECT_EQ(m_oEntry.findCompName(name), 0) << name;
    }
    EXPECT_EQ(m_oEntry.findCompName(nullptr), 0);
    EXPECT_EQ(m_oEntry.findCompByPtr(nullptr), nullptr);
    EXPECT_EQ(m_oEntry.setCompStatus(csIdle), 0);
    CCompStatus& status = at(csEnabled);
    EXPECT_EQ(m_oEntry.setCompStatus(csIdle), 1);
    EXPECT_EQ(status.m_eStatus, csIdle);
    EXPECT_EQ(status.m_tStamp, tBefore);
    m_oEntry.modifyByPtr(nullptr);
    EXPECT_EQ(transcript(), "4 31144 modifyByPtr NULL pointer\n");
}

} // namespace
