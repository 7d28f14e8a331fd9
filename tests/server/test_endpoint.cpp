#include "messaging/CMFWServer.h"
#include "server/stand_ins.h"

#include <fnmatch.h>

namespace {

class CEndpointTest : public CServerTestBase {
protected:
    void SetUp() override {
        CServerTestBase::SetUp();
        ASSERT_EQ(CMFWServer::instance()->init(), 0);
        takeLines();
    }

    int send(uint32_t handle) {
        sOvuMfwMessage message{};
        return endpoint().sendMessage(handle, 0x10006, &message, 36);
    }
    CMFWServer& endpoint() { return *CMFWServer::instance(); }
};

TEST_F(CEndpointTest, EachFailureOfThePlatformIsToldAndReturned) {
    const auto init = [&] { return endpoint().init(); };
    const auto clear = [&] { return endpoint().clear(), 0; };
    const struct {
        const char* m_szFails;
        std::function<int()> m_fnDo;
        int m_nResult;
        Lines m_vLines;
    } cases[] = {
        {"OvuMfwInitialize", init, 7, {"1 31146 MFW server init failed rc=7"}},
        {"OvuMfwGetProcessHandle", init, 7, {"1 31147 MFW server init OvuMfwGetProcessHandle rc=7"}},
        {"OvuMfwRegisterCallback",
         init,
         7,
         {"1 31151 register callback failed rc = 7", "1 31148 MFW server init failed to addCallback rc=7"}},
        {"OvuMfwProcessNextMessage",
         [&] { return endpoint().recvMessage(50); },
         7,
         {"1 31156 OvuMfwProcessNextMessage error = 7"}},
        {"OvuMfwDeregisterCallback",
         clear,
         0,
         {"2 31152 deregister callback failed rc = 7",
          "1 31149 enter MFW server init failed to delCallback."}},
        {"OvuMfwCleanup", clear, 0, {"1 31145 OvuMfwCleanup rc = 7"}}};
    for (const auto& c : cases) {
        SetUp();
        m_oPlatform.fail(c.m_szFails, 7);
        EXPECT_EQ(c.m_fnDo(), c.m_nResult) << c.m_szFails;
        EXPECT_EQ(takeLines(), c.m_vLines) << c.m_szFails;
    }
}

TEST_F(CEndpointTest, SendTellsWhatItSendsAndWhatBecameOfIt) {
    EXPECT_EQ(send(5), 0);
    m_oPlatform.fail("OvuMfwSendMessage", 7);
    EXPECT_EQ(send(5), 7);
    EXPECT_EQ(send(0xFFFFFFFF), 6);
    EXPECT_EQ(m_oPlatform.callsOf("OvuMfwSendMessage"), 2) << "all ones never reaches the platform";
    ASSERT_EQ(m_oPlatform.m_vSent.size(), 1u);
    EXPECT_EQ(m_oPlatform.m_vSent[0].m_nType, 6) << "sixteen bits of the id";
    EXPECT_EQ(m_oPlatform.m_vSent[0].m_sBody.size(), 36u);

    const Lines lines = takeLines();
    ASSERT_EQ(lines.size(), 5u);
    EXPECT_EQ(
        fnmatch("4 31153 enter MFW server sendMessage (0x5, 65542, 0x[0-9a-f]* 36)", lines[0].c_str(), 0), 0)
        << lines[0];
    EXPECT_EQ(lines[2], "1 31155 OvuMfwSendMessage error = 7");
    EXPECT_EQ(lines[3].substr(0, 55), "4 31153 enter MFW server sendMessage (0xffffffff, 65542");
    EXPECT_EQ(lines[4], "4 31154 sendMessage invalid handle");
}

TEST_F(CEndpointTest, NothingPendingIsNoFailureAndUnknownTypesAreTold) {
    EXPECT_EQ(endpoint().recvMessage(50), 0x200001);
    const OvuMfwCallback toDefault = m_oPlatform.m_oCallbacks.at(0);
    toDefault(9, 3, nullptr, 5);
    EXPECT_EQ(takeLines(), Lines());
    CFakePlatform::handOver(toDefault, 0x1A, std::string(300, '\xFE'), 0xFEDCBA98);
    EXPECT_EQ(takeLines(), Lines{"4 31157 DefaultCallback received a message from FEDCBA98:Type = 1A, "
                                 "userDefinedId = 0, data[ 0 ] = FE, dataLength = 300"});

    EXPECT_EQ(endpoint().addCallback(0x20006, toDefault), 0);
    EXPECT_EQ(m_oPlatform.m_oCallbacks.count(6), 1u) << "sixteen bits of the type";
    EXPECT_EQ(endpoint().delCallback(0x30006), 0);
    EXPECT_EQ(m_oPlatform.m_oCallbacks.count(6), 0u);
}

} // namespace
