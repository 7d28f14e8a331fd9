#include "messaging/CMFWServer.h"
#include "server/stand_ins.h"

namespace {

struct CEndpointTest : CServerTestBase {
    CMFWServer& m_oEndpoint = *CMFWServer::instance();
};

TEST_F(CEndpointTest, SendTellsWhatItSendsAndWhatBecameOfIt) {
    sOvuMfwMessage message{};
    m_oPlatform.fail("OvuMfwSendMessage", 7, 2);
    for (const auto& [handle, result] : {std::pair(5u, 0), {5u, 7}, {0xFFFFFFFFu, 6}}) {
        EXPECT_EQ(m_oEndpoint.sendMessage(handle, 0x10006, &message, 36), result);
    }
    EXPECT_EQ(m_oPlatform.callsOf("OvuMfwSendMessage"), 2) << "all ones never reaches the platform";
    EXPECT_EQ(m_oPlatform.m_vSent.at(0).m_nType, 6) << "sixteen bits of the id";
    EXPECT_EQ(m_oPlatform.m_vSent.at(0).m_sBody.size(), 36u);
    const Lines lines = takeLines();
    EXPECT_EQ(lines.at(0).substr(0, 50), "4 31153 enter MFW server sendMessage (0x5, 65542, ");
    EXPECT_EQ(lines.at(2), "1 31155 OvuMfwSendMessage error = 7");
    EXPECT_EQ(lines.at(4), "4 31154 sendMessage invalid handle");
}

TEST_F(CEndpointTest, NothingPendingIsNoFailureAndUnknownTypesAreTold) {
    m_oEndpoint.init();
    EXPECT_EQ(m_oEndpoint.recvMessage(50), 0x200001);
    const OvuMfwCallback toDefault = m_oPlatform.m_oCallbacks.at(0);
    CFakePlatform::handOver(toDefault, 0x1A, std::string(300, '\xFE'), 0xFEDCBA98);
    EXPECT_EQ(takeLines(), Lines{"4 31157 DefaultCallback received a message from FEDCBA98:Type = 1A, "
                                 "userDefinedId = 0, data[ 0 ] = FE, dataLength = 300"});
    EXPECT_EQ(m_oEndpoint.addCallback(0x20006, toDefault), 0);
    EXPECT_EQ(m_oPlatform.m_oCallbacks.count(6), 1u) << "sixteen bits of the type";
}

} // namespace
