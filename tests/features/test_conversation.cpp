// Whole conversations through the dispatcher: bytes in, bytes and log lines out.
#include "world.h"

#include "server/CQelServer.h"

namespace {

using enum CCompStatus::ECStatus;
using EFStatus = CFeatureEntry::EFStatus;

// The two lines with which every message begins.
std::string came(int length, const std::string& words) {
    return "4 31011 cbQelServer received a message from 1234: Type = 6, Id = 0, data[ 0 ] = 0, Length = " +
           std::to_string(length) + "\n4 31014 cbQelServer clientMsg header: (" + words + ")\n";
}

std::string sent(std::string_view hex) {
    return "-> 33: " + toHex(fromHex(hex)) + "\n";
}

class CConversationTest : public CHeartTest {
protected:
    // The message, and all that the daemon logs and sends for it.
    static void expect(std::string_view hex, const std::string& outcome) {
        receive(fromHex(hex));
        EXPECT_EQ(transcript(), outcome);
    }
    static void fill() {
        for (const uint32_t code : {1u, 2u, 3u}) {
            feature(control(), code, code * 10);
        }
    }
    static size_t components() { return control().components().m_vItems.size(); }
};

TEST_F(CConversationTest, ATypicalExchangeByteByByteAndLineByLine) {
    fill();
    // It announces itself, and that it holds (2, 20).
    expect("00000000 0000003c 00000000 00000000 00000005 00000021 0000004d"
           "566f696365000000000000000000000000000000 00000001 00000002 00000014",
           came(60, "0, 60, 0, 0, 5, 0x21") +
               "4 31015 CompNameMsgType Voice\n"
               "4 31125 adding new compstatus Voice 0 at feature 1 10\n"
               "4 31125 adding new compstatus Voice 0 at feature 2 20\n"
               "4 31125 adding new compstatus Voice 0 at feature 3 30\n" +
               sent("00000000 00000024 00000000 00000000 00000005 00000000 00000000 00000000 00000000"));
    // It fetches a page.
    expect("00000000 00000018 00000000 00000002 00000006 00000021",
           came(24, "0, 24, 0, 2, 6, 0x21") +
               "4 31021 cbQelServer recv nQelClientGetFeatureMsgType.\n"
               "4 31023 find comp with name Voice\n"
               "4 31108 replied feature (1, 10) at comp Voice\n"
               "4 31116  at feature (1 1)\n" +
               sent("00000000 00000024 00000000 00000000 00000006 00000000 00000001 0000000a 00000000"));
    // It starts again from the first page.
    expect("00000000 00000018 00000000 00000001 00000006 00000021",
           came(24, "0, 24, 0, 1, 6, 0x21") +
               "4 31018 InitListMsgType 0x21\n"
               "4 31020 found comp with name Voice\n" +
               sent("00000000 00000024 00000000 00000000 00000006 00000000 00000000 00000000 00000000"));
    fetch(0x21);
    EXPECT_EQ(told(), CTexts{"33: 0 1 10 0"});
    // It is monitored from now on. What it holds counts as answered.
    expect("00000000 00000018 00000000 00000003 00000007 00000021",
           came(24, "0, 24, 0, 3, 7, 0x21") +
               "4 31024 cbQelServer recv nQelClientStartMonitorMsgType.\n"
               "4 31025 found comp with name Voice\n" +
               sent("00000000 00000024 00000000 00000000 00000007 00000000 00000000 00000000 00000000") +
               "4 31108 notifying feature (2, 20) at comp Voice\n"
               "4 31108 already has feature (1, 2, 20) at comp Voice\n"
               "4 31133 feature (1): comp (Voice) in wrong state 2\n"
               "4 31129 feature (2): got reply ok from comp (Voice) 2\n");
    // The daemon notifies it of the next one, and it answers.
    control().audit();
    EXPECT_EQ(transcript(),
              "4 31108 notifying feature (3, 30) at comp Voice\n" +
                  sent("00000000 00000024 00000001 00000000 00000007 00000000 00000003 0000001e 00000000"));
    expect("00000000 00000023 00000001 00000005 00000008 00000021 00000000 00000001 6f6b00",
           came(35, "0, 35, 1, 5, 8, 0x21") +
               "4 31029 cbQelServer recv clientReplyMsg.\n"
               "4 31030 WriteReplyMsgType (1 ok)\n"
               "4 31031 found comp with name Voice\n"
               "4 31133 feature (1): comp (Voice) in wrong state 2\n"
               "4 31133 feature (2): comp (Voice) in wrong state 2\n"
               "4 31129 feature (3): got reply ok from comp (Voice) 2\n"
               "4 31032 sendMessage with (3, 30)\n" +
               sent("00000000 00000024 00000000 00000000 00000008 00000000 00000003 0000001e 00000000"));

    // A new list changes 1, withdraws 2 and leaves 3.
    size_t left = 0;
    EXPECT_EQ(newList(control(), {fresh(1, 11), fresh(3, 30)}, &left), 2);
    EXPECT_EQ(left, 1u);
    control().audit();
    control().timeout();
    EXPECT_EQ(transcript(),
              "4 31115 deleted feature 2 20\n"
              "4 31115 existing feature 3 30\n"
              "4 31115 modify feature 1 10  (11)\n"
              "4 31108 modifying feature (1, 10 11) at comp Voice\n" +
                  sent("00000000 00000024 00000002 00000000 00000008 00000000 00000001 0000000a 0000000b") +
                  "4 31115 newadd or existing to active feature 3 30\n");
    // Each answer is followed by what is pending next.
    expect("00000000 00000021 00000001 00000005 00000009 00000021 00000000 00000001 00",
           came(33, "0, 33, 1, 5, 9, 0x21") +
               "4 31029 cbQelServer recv clientReplyMsg.\n"
               "4 31030 WriteReplyMsgType (1 )\n"
               "4 31031 found comp with name Voice\n"
               "4 31131 feature (1): got reply ok moded comp (Voice) 10\n"
               "4 31131 feature (1): moded FeatureData update (0)\n"
               "4 31032 sendMessage with (1, 11)\n" +
               sent("00000000 00000024 00000000 00000000 00000009 00000000 00000001 0000000b 00000000") +
               "4 31108 disabling feature (2, 20) at comp Voice\n" +
               sent("00000000 00000024 00000003 00000000 00000009 00000000 00000002 00000014 00000000"));
    // It does not answer this one.
    platform().advance(11);
    control().timeout();
    control().timeout();
    EXPECT_EQ(transcript(),
              "4 31115 timeout feature 2 for comp Voice at state 5\n" +
                  sent("00000000 00000024 00000004 00000000 00000009 00000000 00000002 00000014 00000000") +
                  "4 31115 remove deleted feature 2 20\n"
                  "4 31117 deleted feature (2, 20) from Voice\n");
    // It goes.
    expect("00000000 00000024 00000001 00000006 0000000a 00000021 00000000 00000001 62796500",
           came(36, "0, 36, 1, 6, 10, 0x21") + "4 31029 cbQelServer recv clientReplyMsg.\n"
                                               "4 31033 ShutdownMsgType (1 bye)\n"
                                               "4 31034 found comp with name Voice\n"
                                               "4 31135 feature: remove comp Voice (10)\n"
                                               "4 31117 removed feature (1) from Voice\n"
                                               "4 31135 feature: remove comp Voice (2)\n"
                                               "4 31117 removed feature (3) from Voice\n");
    EXPECT_EQ(components(), 0u);
}

TEST_F(CConversationTest, AnotherProcessUnderTheNameIsToldAnew) {
    fill();
    announce("Voice", 77, 0x21);
    monitor(0x21);
    reply(0x21, 1);
    transcript();
    announce("Voice", 77, 0x22); // the same process: only where to answer is new
    EXPECT_EQ(platform().logged(31125).size(), 0u);
    EXPECT_EQ(told(), CTexts{"34: 0 0 0 0"});
    CComponent* voice = control().findCompByMFW(0x22);
    ASSERT_NE(voice, nullptr);
    EXPECT_EQ(control().features().m_vItems[0]->findCompByPtr(voice)->m_eStatus, csEnabled);

    announce("Voice", 78, 0x23);
    EXPECT_EQ(platform().logged(31125), (CTexts{"adding new compstatus Voice 2 at feature 1 10",
                                                "adding new compstatus Voice 1 at feature 2 20",
                                                "adding new compstatus Voice 0 at feature 3 30"}));
    EXPECT_EQ(components(), 1u);
    EXPECT_EQ(voice->m_aFeatures.m_vItems, control().features().m_vItems);
    EXPECT_EQ(voice->m_bMonitor, 1); // once monitored, for its life
    shutDown(0x23);
    for (const CFeatureEntry* entry : control().features().m_vItems) {
        EXPECT_TRUE(entry->m_vCompStatus.empty()) << entry->m_nCode;
    }
}

// Renamed, it is concerned by other features; back as another process, its array forgets the first ones.
TEST_F(CConversationTest, ARenamedComponentLeavesNoRecordBehind) {
    CFeatureEntry& ofVoice = *feature(control(), 1, 10);
    CFeatureEntry& ofGateway = *feature(control(), 2, 20, EFStatus::fsNewAdd, {"Gateway"});
    announce("Voice", 77, 0x21);
    initList(0x21, "Gateway");
    announce("Gateway", 78, 0x21);
    EXPECT_EQ(components(), 1u);
    EXPECT_EQ(ofVoice.m_vCompStatus.size(), 1u);
    EXPECT_EQ(ofGateway.m_vCompStatus.size(), 1u);
    shutDown(0x21);
    EXPECT_TRUE(ofVoice.m_vCompStatus.empty() && ofGateway.m_vCompStatus.empty());
    control().audit(); // nobody is left to be told
    EXPECT_TRUE(platform().logged(31107).empty());
}

TEST_F(CConversationTest, TheListInForceForOAM) {
    newList(control(), {fresh(1, 10), fresh(206, 0xFFFFFFFF)});
    feature(control(), 3, 30); // kept by the source: not packed, but counted
    control().addFeature(nullptr);
    control().features().m_vItems[0]->m_eStatus = EFStatus::fsDeleted;
    transcript();
    expect("00000000 00000018 0000000b 00000063 00abcdef 00000021",
           came(24, "0, 24, 11, 99, 11259375, 0x21") + "4 31036 cbQelServer recv OAMActiveFeature.\n" +
               sent("00000000 00000000 0000000b 00000000 00abcdef 00000000 00000004"
                    "00000003 00000001 0000000a 00000000 00000000 000000ce ffffffff 00000000"));
    platform().m_oDead.insert(0x21);
    receive(header(11, 0, 0x21));
    EXPECT_EQ(platform().logged(31073), CTexts{"failed to send message"});
    EXPECT_EQ(control().packFeatures(nullptr), 0);
    empty(control());
    EXPECT_EQ(control().getPackSize(), 4);
}

TEST_F(CConversationTest, WhoIsNotKnownAndWhatIsNoMessageGetNoAnswer) {
    struct {
        uint32_t m_nClass, m_nSubType;
        SLogged m_oLast;
    } const rows[] = {
        {0, 1, {2, 31019, "failed to find component (-2)"}},
        {0, 2, {2, 31019, "failed to  find component (-2)"}},
        {0, 3, {2, 31019, "failed to find component (-2)"}},
        {0, 4, {4, 31026, "cbQelServer recv nQelClientServerDataMsgType."}},
        {0, 5, {4, 31027, "cbQelServer recv nQelClientWriteReplyMsgType."}},
        {0, 6, {4, 31028, "cbQelServer recv unknown."}},
        {0, 0xFFFFFFFF, {4, 31028, "cbQelServer recv unknown."}},
        {1, 0, {2, 31035, "cbQelServer recv unknown msg."}},
        {1, 5, {2, 31019, "failed to find component (-2)"}},
        {1, 6, {2, 31019, "failed to find component (-2)"}},
        {1, 7, {2, 31035, "cbQelServer recv unknown msg."}},
        {2, 0, {2, 31043, "cbQelServer recv unknown"}},
        {0x80000000, 0, {2, 31043, "cbQelServer recv unknown"}},
    };
    for (const auto& row : rows) {
        receive(header(row.m_nClass, row.m_nSubType, 0xFFFFFFFE));
        EXPECT_EQ(platform().m_vLog.back(), row.m_oLast);
        EXPECT_TRUE(told().empty());
    }
    CQelServer::cbQelServer(6, 0, nullptr, 100);
    EXPECT_EQ(transcript(), "");
}

} // namespace
