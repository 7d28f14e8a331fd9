// What happens seldom, with the whole lines of the log that tell of it. tests/docs/check_logged finds those that no test
// knows.
#include "world.h"

#include "messaging/endpoint/CMFWServer.h"
#include "server/loop/CQelServer.h"
#include "server/status/status.h"
#include "support/scarce_memory.h"

#include <memory>

namespace {

using enum CFeatureEntry::EFStatus;

// Who audits: the table's audit, that of one component, the component itself.
enum EAuditor { auTable, auOne, auItself };

class CEventTest : public CHeartTest {
protected:
    // The lines since the last call, without that of each send: it has an address.
    static CTexts lines() {
        CTexts lines = takeLines();
        std::erase_if(lines, [](const std::string& line) { return line.starts_with("4 31153 "); });
        return lines;
    }

    static void audit(EAuditor auditor, CComponent& comp) {
        switch (auditor) {
        case auTable:
            return control().audit();
        case auOne:
            return static_cast<void>(control().auditComp(&comp));
        case auItself:
            return static_cast<void>(comp.auditFeature());
        }
    }

    // A world of this component and this feature alone, with 71 pending if it is modified.
    CComponent& voice(EFStatus status, uint8_t monitor = 1) {
        empty();
        platform().reset();
        CComponent& comp = component("Voice", 0x21, monitor);
        feature(7, 70, status).m_nNewData = status == fsModify ? 71 : 0;
        return comp;
    }
    static CFeatureEntry& entry() { return *control().features().m_vItems.at(0); }
};

const std::string sTakenIn = "4 31125 adding new compstatus Voice 0 at feature 7 70",
                  sEnables = "4 31126 feature: check comp Voice 1 at feature 7 70",
                  sNoMemory = "1 31124 failed to new obj";

TEST_F(CEventTest, WhatFeatureOrComponentLackIsSuppliedAndToldOnceEvenIfItDoesNotMonitor) {
    constexpr int nNone = -1;
    const CTexts table = {sTakenIn, sEnables, "4 31107 audit comp Voice not in feature list with (7, 70)"};
    const CTexts one = {sTakenIn, sEnables, "4 31112 audit comp (Voice) not in feature list with (7, 70)"};
    // Who audits, the state of the record, whether the component's array has the feature; what is logged.
    const std::tuple<EAuditor, int, bool, CTexts> cases[] = {
        {auTable, nNone, true, table},
        {auTable, nNone, false, table},
        {auTable, 0, false, {sEnables, "4 31108 audit feature not in comp list with (7, 70)"}},
        {auTable, 2, false, {"4 31108 audit feature not in comp list with (7, 70)"}},
        {auOne, nNone, true, one},
        {auOne, nNone, false, one},
        {auOne, 0, false, {sEnables, "4 31113 audit feature not in comp list with (7, 70)"}},
        {auOne, 2, false, {"4 31113 audit feature not in comp list with (7, 70)"}},
        {auItself, nNone, true, {sTakenIn, sEnables, "4 31119 audit feature with (7, 70)"}}};
    for (const auto& [auditor, state, isHeld, logged] : cases) {
        for (const bool monitor : {false, true}) {
            SCOPED_TRACE(testing::Message() << logged.back() << state << isHeld << monitor);
            CComponent& comp = voice(fsActive, monitor ? 1 : 0);
            if (state == nNone && isHeld) {
                comp.addFeatureEntry(&entry());
            } else if (state != nNone) {
                record(entry(), comp, state);
                comp.clearFeatureArray();
            }
            audit(auditor, comp);
            EXPECT_EQ(lines(), logged);
            EXPECT_EQ(told(), CTexts{"33: 1 7 70 0"});
            EXPECT_EQ(comp.m_aFeatures.m_vItems, CEntries{&entry()});
            EXPECT_EQ(entry().findCompByPtr(&comp)->m_nEnableTries, state == 2 ? 0u : 1u);
            audit(auditor, comp);
            EXPECT_EQ(told().size(), monitor && state != 2 ? 1u : 0u) << "changes are for the monitored";
        }
    }
}

TEST_F(CEventTest, TheAuditOfOneComponentTellsOfEachChangeInItsOwnWords) {
    const CTexts modifies = {"4 31108 modfiying feature (7, 70 71) at comp Voice"},
                 notifies = {"4 31108 notifying feature (7, 71) at comp Voice"};
    // The feature's status, the record's states; what is logged and told.
    const std::tuple<EFStatus, std::vector<int>, CTexts, CTexts> cases[] = {
        {fsNewAdd, {0}, {"4 31108 notifying feature (7, 70) at comp Voice"}, {"33: 1 7 70 0"}},
        {fsModify, {0, 2, 3}, modifies, {"33: 2 7 70 71"}},
        {fsModify, {6, 7}, notifies, {"33: 1 7 71 0"}},
        {fsModify,
         {9, 12},
         {"4 31126 feature: check comp Voice 9 at feature 7 70",
          "4 31109 audit modify feature (7, 70) at comp Voice"},
         {"33: 2 7 70 0"}},
        {fsActive, {0, 1, 4}, {sEnables, "4 31109 audit feature (7, 70) at comp Voice"}, {"33: 1 7 70 0"}},
        {fsExisting, {4}, {sEnables, "4 31109 audit feature (7, 70) at comp Voice"}, {"33: 1 7 70 0"}},
        {fsNewAdd, {1, 2, 6, 10}, {}, {}},
        {fsModify, {10, 11}, {}, {}},
        {fsDeleted, {0, 2, 5}, {}, {}}};
    for (const auto& [status, states, logged, sent] : cases) {
        for (const int state : states) {
            SCOPED_TRACE(testing::Message() << "feature " << status << " record " << state);
            CComponent& comp = voice(status, 0);
            const CCompStatus& delivery = record(entry(), comp, state);
            platform().advance(5);
            EXPECT_EQ(control().auditComp(&comp), 0) << "it does not monitor";
            EXPECT_EQ(lines(), CTexts{});
            comp.m_bMonitor = 1;
            EXPECT_EQ(control().auditComp(&comp), sent.empty() ? 0 : 1);
            EXPECT_EQ(lines(), logged);
            EXPECT_EQ(told(), sent);
            EXPECT_EQ(delivery.m_tStamp, sent.empty() ? 1000000u : 1000005u);
        }
    }
}

TEST_F(CEventTest, AModificationEndsWhenAllHaveAnsweredToItOrNobodyIsThere) {
    // State of the record and pending data; data in force afterwards, and what is logged.
    const std::tuple<int, uint32_t, uint32_t, CTexts> cases[] = {
        {11, 71, 71, {"4 31115 modify to active feature 7 71"}},
        {10, 0, 70, {"4 31115 modify to active feature 7 70"}},
        {4, 71, 70, {"4 31115 wrong modify 7 70 (0)"}}};
    for (const auto& [state, pending, data, logged] : cases) {
        CComponent& comp = voice(fsModify);
        entry().m_nNewData = pending;
        record(entry(), comp, state);
        control().timeout();
        EXPECT_EQ(lines(), logged);
        EXPECT_EQ(entry().m_nData, data);
        EXPECT_EQ(entry().m_nNewData, state == 4 ? pending : 0);
        EXPECT_EQ(entry().m_eStatus, state == 4 ? fsModify : fsActive);
    }
    CComponent& comp = voice(fsModify);
    record(entry(), comp, 9);
    record(entry(), component("Other", 0x22), 2);
    reply(0x21, 1);
    EXPECT_EQ(entry().m_eStatus, fsModify) << "the other was not told yet";
    voice(fsActive);
    EXPECT_EQ(newList({fresh(7, 71)}), 0);
    EXPECT_EQ(lines(),
              (CTexts{"4 31115 modify feature 7 70  (71)", "4 31115 treated as replied feature 7 71"}));
    EXPECT_EQ(entry().m_eStatus, fsExisting);
}

TEST_F(CEventTest, PagingPassesOverWhatIsWithdrawnWithAFreshStampAndWhatHasNoRecord) {
    CComponent& comp = voice(fsDeleted);
    const CCompStatus& delivery = record(entry(), comp, 2);
    comp.addFeatureEntry(&feature(8, 80));
    platform().advance(5);
    uint32_t code = 0;
    uint32_t data = 0;
    EXPECT_FALSE(comp.getNextFeatureList(&code, &data));
    EXPECT_EQ(lines(), (CTexts{"4 31108 no send, disabled feature (7, 70) at comp Voice",
                               "4 31108 Null status feature (8, 80) at comp Voice"}));
    EXPECT_EQ(delivery.m_eStatus, CCompStatus::csDisabled);
    EXPECT_EQ(delivery.m_tStamp, 1000005u);
    EXPECT_EQ(comp.m_nNextFeature, 0);
}

TEST_F(CEventTest, AWalkOverTheOverdueEndsWithItsPositionAtTheFirst) {
    CComponent& comp = voice(fsActive);
    std::vector<CCompStatus*> records{&record(entry(), comp, 1), &record(entry(), component("ALL"), 5),
                                      &record(entry(), component("Anchor"), 9),
                                      &record(entry(), component("Other"), 2)};
    platform().advance(10);
    EXPECT_EQ(entry().findFirstTimeout(), nullptr);
    platform().advance(1);
    EXPECT_EQ(entry().findFirstTimeout(), records[0]);
    EXPECT_EQ(entry().findNextTimeout(), records[1]);
    EXPECT_EQ(entry().findNextTimeout(), records[2]);
    EXPECT_EQ(entry().m_nTimeoutIndex, 2);
    EXPECT_EQ(entry().findNextTimeout(), nullptr);
    EXPECT_EQ(entry().m_nTimeoutIndex, 0);
    EXPECT_EQ(entry().findNextTimeout(), records[1]);
}

TEST_F(CEventTest, AFeatureThatTakesOverAnotherKeepsAllButItsIdentityAndRecords) {
    CComponent& comp = voice(fsActive);
    record(entry(), comp, 1);
    entry().m_sName = "seven";
    entry().m_nNewData = 72;
    entry().m_nTimeoutIndex = 1;
    entry().modifyByPtr(nullptr);
    EXPECT_EQ(lines(), CTexts{"4 31144 modifyByPtr NULL pointer"});
    EXPECT_EQ(entry().m_vCompStatus.size(), 1u);
    const CFeatureEntry& other = feature(8, 80, fsExisting, {"Gateway", "Tracing"});
    entry().modifyByPtr(&other);
    EXPECT_EQ(entry().id(), (SFeature{8, 80}));
    EXPECT_EQ(entry().m_eStatus, fsModify);
    EXPECT_EQ(entry().m_vCompStatus.size() + static_cast<size_t>(entry().m_nTimeoutIndex), 0u);
    EXPECT_EQ(entry().findCompName("Voice") + entry().m_bSourced, 2);
    EXPECT_STREQ(entry().m_sName.c_str(), "seven");
    EXPECT_EQ(entry().m_nNewData, 72u);
    EXPECT_EQ(other.m_eStatus, fsExisting);
    EXPECT_EQ(lines(), CTexts{});
}

TEST_F(CEventTest, AComponentBeginsWithNothingAndAWellKnownOneAsIfItHadAnnouncedItself) {
    EXPECT_EQ(CFeatureEntry(nullptr).id(), (SFeature{0, 0}));
    const CComponent blank(&control());
    EXPECT_EQ(blank.m_nProcessId + blank.m_nReplyStatus + blank.m_nSecondCursor + blank.m_nKnownCount, 0u);
    EXPECT_EQ(blank.m_nNextFeature + blank.m_bMonitor, 0);
    platform().m_oProcesses = {{"voice", 0x52}};
    control().auditComponent();
    CComponent& voice = *control().findCompByName("Voice");
    const auto bytes = bytesOf(voice.m_oHeader);
    EXPECT_EQ(toHex({bytes.data(), bytes.size()}), "000000000000001100000000000000000000000100000052");
    EXPECT_EQ(control().notifyFeatures(nullptr, &voice), 0) << "there is no feature";
    EXPECT_EQ(voice.m_nProcessId, 0u);
    EXPECT_EQ(voice.m_nReplyStatus + voice.m_bMonitor, 2u);
    voice.m_nNextFeature = 3;
    voice.m_nSecondCursor = 4;
    voice.rewindFeatureList();
    EXPECT_EQ(voice.m_nSecondCursor + static_cast<uint32_t>(voice.m_nNextFeature), 0u);
    testing::internal::CaptureStdout();
    control().notifyComponents("text");
    EXPECT_EQ(testing::internal::GetCapturedStdout(), "recv: text\n");
}

TEST_F(CEventTest, EmptySlotsHinderNothingAndResultsAreOneForDone) {
    EXPECT_TRUE(control().addFeature(nullptr));
    EXPECT_TRUE(control().addComponent(nullptr));
    CFeatureEntry& seven = feature(7, 70, fsNewAdd, {nullptr, "Voice"});
    CComponent& comp = component("Voice");
    EXPECT_EQ(comp.addFeatureEntry(nullptr), 1);
    EXPECT_EQ(control().auditComp(&comp), 1);
    EXPECT_EQ(comp.findFeatureEntry(&seven), 1);
    EXPECT_EQ(comp.auditFeature(), 0);
    reply(0x21, 1);
    control().timeout();
    EXPECT_EQ(newList({nullptr, fresh(7, 71)}), 0);
    control().audit();
    platform().advance(11);
    control().timeout();
    EXPECT_EQ(told(), (CTexts{"33: 1 7 70 0", "33: 0 7 70 0", "33: 2 7 70 71", "33: 4 7 70 0"}));
    request(InitListMsgType, 0x21);
    request(nQelClientGetFeatureMsgType, 0x21);
    request(nQelClientGetFeatureMsgType, 0x21);
    EXPECT_EQ(told(), (CTexts{"33: 0 0 0 0", "33: 0 7 71 0", "33: 0 0 0 0"}));
    EXPECT_EQ(seven.m_eStatus, fsActive);
    control().notifyComponents("text");
    const std::unique_ptr<CComponent> gone(&component("Other"));
    EXPECT_EQ(comp.delFeatureEntry(nullptr) + control().delComponent(gone.get()), 1);
    EXPECT_EQ(comp.delFeatureEntry(&seven), 1);
    EXPECT_EQ(comp.delFeatureEntry(&seven) + comp.findFeatureEntry(&seven), 0);
    EXPECT_EQ(comp.auditFeature(), 0);
    EXPECT_EQ(control().auditComp(&comp), 1) << "it is put back";
    EXPECT_EQ(seven.findCompName(nullptr) + seven.addComponent(CFeatureEntry::opAdd, nullptr), 0);
    const CFeatureEntry& other = feature(7, 72, fsDeleted);
    EXPECT_EQ(control().findFeatureByCode(7), &seven);
    EXPECT_EQ(control().findFeatureByCodeData(7, 72), &other);
    EXPECT_EQ(control().findFeatureByCode(8), nullptr);
    EXPECT_EQ(control().findFeatureByCodeData(8, 71), nullptr);
    CComponent& all = component("ALL", 0x22);
    for (const bool isRecord : {true, false}) {
        const CScarceMemory scarce(1);
        EXPECT_EQ(isRecord ? seven.addComponent(CFeatureEntry::opAdd, &all) : all.addFeatureEntry(&seven), 0);
    }
    shutDown(0x21);
    const CEntries left = control().features().m_vItems;
    control().clearFeatureArray();
    std::ranges::for_each(left, [](CFeatureEntry* entry) { delete entry; });
}

TEST_F(CEventTest, NumbersOfTheDescriptionFileAreSigned) {
    const std::pair<const char*, int> numbers[] = {
        {"  -12x", -12}, {"+7", 7}, {"4294967295", -1}, {"\t5", 0}, {"", 0}};
    for (const auto& [text, number] : numbers) {
        EXPECT_EQ(CFeatureEntry::doC2N(text), number) << text;
    }
}

TEST_F(CEventTest, WhatCannotBeSentIsToldWithTheErrorAndGivenBack) {
    CComponent& comp = voice(fsActive);
    const std::string failed = "1 31155 OvuMfwSendMessage error = 11",
                      lost = "4 31123 MFW cannot sendMessage";
    platform().fail("OvuMfwSendMessage", 11, 1, 2);
    EXPECT_EQ(comp.sendMessage(1, 7, 70), 11);
    const CTexts three = takeLines();
    ASSERT_EQ(three.size(), 3u);
    EXPECT_TRUE(three[0].starts_with("4 31153 enter MFW server sendMessage (0x21, 6, 0x")) << three[0];
    EXPECT_TRUE(three[0].ends_with(" 36)")) << three[0];
    EXPECT_EQ(CTexts(three.begin() + 1, three.end()), (CTexts{failed, lost}));
    receive(header(nQelOAMActiveFeatureMsgType, 0, 0x44));
    const CTexts toOam = lines();
    EXPECT_EQ(CTexts(toOam.end() - 3, toOam.end()), (CTexts{"4 31036 cbQelServer recv OAMActiveFeature.",
                                                            failed, "1 31073 failed to send message"}));
    EXPECT_EQ(comp.sendMessage(5, 7, 70), 0);
    EXPECT_EQ(lines(), CTexts{"4 31121 unknown message type."});
    EXPECT_EQ(told(), CTexts{"33: 5 0 0 0"});
    comp.init({0, 0, 0, 0, 5, nNoHandle}, nullptr, 0, nullptr);
    EXPECT_EQ(comp.sendMessage(1, 7, 70), 6);
    EXPECT_EQ(lines(), (CTexts{"4 31154 sendMessage invalid handle", lost}));
    EXPECT_EQ(platform().callsOf("OvuMfwSendMessage"), 3);
}

TEST_F(CEventTest, EachStepOfTheEndpointThatFailsIsTold) {
    CMFWServer& endpoint = *CMFWServer::instance();
    platform().reset();
    platform().fail("OvuMfwGetProcessHandle", 9);
    EXPECT_EQ(endpoint.init(), 9);
    EXPECT_EQ(lines(), CTexts{"1 31147 MFW server init OvuMfwGetProcessHandle rc=9"});
    platform().fail("OvuMfwRegisterCallback", 7);
    EXPECT_EQ(endpoint.init(), 7);
    EXPECT_EQ(lines(), (CTexts{"1 31151 register callback failed rc = 7",
                               "1 31148 MFW server init failed to addCallback rc=7"}));
    EXPECT_EQ(endpoint.init(), 0);
    platform().fail("OvuMfwRegisterCallback", 7);
    startAnswering(endpoint, nullptr);
    EXPECT_EQ(lines(),
              (CTexts{"1 31151 register callback failed rc = 7", "2 31002 failed to add message Callback."}));
    EXPECT_EQ(endpoint.addCallback(0x10007, CQelServer::cbQelServer), 0);
    EXPECT_EQ(platform().m_oCallbacks.count(7), 1u) << "of a type, the low 16 bits count";
    EXPECT_EQ(endpoint.delCallback(0x10007), 0);
    sOvuMfwMessage message = {};
    EXPECT_EQ(endpoint.sendMessage(1, 0x10007, &message, 0), 0);
    EXPECT_EQ(platform().takeSent().at(0).m_nType, 7);
    lines();
    platform().fail("OvuMfwCleanup", 8);
    endpoint.clear();
    EXPECT_EQ(lines(), CTexts{"1 31145 OvuMfwCleanup rc = 8"});
}

TEST_F(CEventTest, OnlyAMessageThatIsLongerThanARecordTakesMemoryAndNoMessageAtAllIsNothing) {
    CComponent& comp = voice(fsActive);
    CMFWServer& endpoint = *CMFWServer::instance();
    {
        const CScarceMemory scarce(1);
        EXPECT_EQ(comp.sendMessage(1, 7, 70), 0);
        EXPECT_FALSE(CScarceMemory::hasFailed());
    }
    EXPECT_EQ(told(), CTexts{"33: 1 7 70 0"});
    for (const size_t more : {0u, 1u}) {
        const std::string body(sizeof sOvuMfwMessage::data + more, 'x');
        const CScarceMemory scarce(1);
        EXPECT_EQ(endpoint.sendBody(0x21, body), more != 0 ? CMFWServer::nErrorNoMemory : 0);
    }
    platform().takeSent();
    for (uint32_t code = 1; code <= 100; ++code) {
        feature(code, code + 1).m_bSourced = 0;
    }
    receive(header(nQelOAMActiveFeatureMsgType, 0, 0x44));
    const std::vector<SSent> sent = platform().takeSent();
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].m_sBody.substr(24 + 4 + 99 * 16), words({fsNewAdd, 100, 101, 0}));
    platform().takeLog();
    CQelServer::cbQelServer(6, 0, nullptr, 0);
    EXPECT_EQ(endpoint.init(), 0);
    platform().m_oCallbacks.at(0)(9, 0, nullptr, 0);
    EXPECT_EQ(lines(), CTexts{});
}

// In a process of its own, where neither the control nor the endpoint exists.
TEST_F(CEventTest, WithoutMemoryForControlOrEndpointAMessageIsDroppedAndTold) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto starved = [](size_t nth, const auto& operation) {
        const CScarceMemory scarce(nth);
        return operation();
    };
    const auto inFreshProcess = [&] {
        const std::string unknown = header(2, 0, 0x21);
        const std::string fromOam = header(nQelOAMActiveFeatureMsgType, 0, 0x44);
        const CTexts noControl = {sNoMemory, "1 31012 failed to find control object."},
                     noEndpoint = {sNoMemory, "1 31122 cannot get message framework"};
        const auto last = [](const CTexts& all) { return CTexts(all.end() - 2, all.end()); };
        CQelServer server;
        starved(1, [&] { return receive(unknown), 0; });
        EXPECT_EQ(last(lines()), noControl);
        EXPECT_EQ(starved(1, [&] { return server.checkSignal(); }), 0);
        EXPECT_EQ(lines(), (CTexts{sNoMemory, "2 31004 failed to find control object."}));
        CComponent& voice = component("Voice");
        EXPECT_EQ(starved(1, [&] { return voice.sendMessage(1, 7, 70); }), 31);
        EXPECT_EQ(lines(), noEndpoint);
        EXPECT_EQ(starved(1, [&] { return server.processMessages(); }), 0);
        EXPECT_EQ(lines(), noEndpoint);
        starved(2, [&] { return receive(fromOam), 0; });
        EXPECT_EQ(last(lines()), noEndpoint);
        starved(1, [&] { return receive(fromOam), 0; });
        EXPECT_EQ(last(lines()), (CTexts{sNoMemory, "2 31037 OAMFeautreList packing error."}));
        EXPECT_EQ(CMFWServer::existing(), nullptr);
        delete CMFWServer::instance();
        EXPECT_EQ(platform().m_vCalls.back(), "OvuMfwCleanup");
        std::exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(inFreshProcess(), testing::ExitedWithCode(0), "");
}

} // namespace
