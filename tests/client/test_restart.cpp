#include "fake_daemon.h"

namespace {

using CTold = std::vector<std::string>;
using CRestart = CClientTest;

constexpr int nLong = 5000;
constexpr uint32_t GET = nQelClientGetFeatureMsgType;

} // namespace

TEST_F(CRestart, DifferencesLostOrToldTwice) {
    CFakeDaemon first([](CDaemonScript& script) { script.serveUp(0, {{1, 1}, {2, 1}, {3, 1}, {13, 1}}); });
    CFakeDaemon second([](CDaemonScript& script) {
        const std::vector<SFeature> list = {{1, 1}, {2, 2}, {4, 1}, {13, 1}};
        script.serveList(3, list);
        script.serveUp(0, list); // again, now that 3 seems to be gone, and announced without it
        script.send(nQelServerNotifyMsgType, {3, 1});
        script.expectReply(1);
    });
    open();
    m_fnAnswer = [](const qel_notification& n, char*) { return n.code == 13 ? QEL_REFUSED : QEL_OK; };
    first.start();
    ASSERT_EQ(qel_fetch(m_pClient, nLong), 3);
    ASSERT_EQ(qel_monitor(m_pClient, nLong), 0);
    EXPECT_TRUE(first.finish());
    m_vTold.clear();
    second.start();
    while (m_vTold.size() < 5 && qel_wait(m_pClient, nLong) > 0) {
    }
    EXPECT_EQ(m_vTold, (CTold{"enable 4:1", "enable 13:1", "modify 2:1>2", "disable 3:1", "enable 3:1"}));
    EXPECT_EQ(qel_state(m_pClient), QEL_STATE_MONITORING);
    EXPECT_TRUE(second.finish());
}

TEST_F(CRestart, DaemonThatDiesAmidPagingLeavesHalfAList) {
    CFakeDaemon first([](CDaemonScript& script) {
        script.serve(CompNameMsgType);
        script.serve(InitListMsgType);
        script.serve(GET, {1, 1});
        script.expect(0, GET);
    });
    CFakeDaemon second([](CDaemonScript& script) { script.serveUp(1, {{1, 2}, {2, 1}}); });
    open();
    first.start();
    EXPECT_EQ(qel_fetch(m_pClient, 200), QEL_ETIMEDOUT);
    EXPECT_TRUE(first.finish());
    second.start();
    EXPECT_EQ(qel_fetch(m_pClient, nLong), 2);
    EXPECT_EQ(qel_monitor(m_pClient, nLong), 0);
    EXPECT_EQ(m_vTold, (CTold{"enable 1:1", "enable 2:1", "modify 1:1>2"}));
    EXPECT_TRUE(second.finish());
}

// When a withdrawn feature leaves the daemon's table during the paging, the page after it is skipped.
TEST_F(CRestart, SkippedPageTakenForAWithdrawal) {
    CFakeDaemon daemon([](CDaemonScript& script) {
        script.serveList(2, {{1, 1}});
        script.serveList(0, {{1, 1}, {2, 1}});
    });
    daemon.start();
    open();
    qel_hold(m_pClient, 1, 1);
    qel_hold(m_pClient, 2, 1);
    EXPECT_EQ(qel_fetch(m_pClient, nLong), 2);
    EXPECT_EQ(m_vTold, CTold());
    EXPECT_TRUE(daemon.finish());
}

TEST_F(CRestart, OneCodeInForceTwiceTakenForAChange) {
    CFakeDaemon daemon([](CDaemonScript& script) { script.serveList(1, {{1, 2}, {1, 1}, {3, 1}, {3, 2}}); });
    daemon.start();
    open();
    qel_hold(m_pClient, 1, 1);
    EXPECT_EQ(qel_fetch(m_pClient, nLong), 4);
    EXPECT_EQ(m_vTold, (CTold{"enable 3:1", "enable 3:2", "enable 1:2"}));
    EXPECT_TRUE(daemon.finish());
}

// What the daemon sends before it has seen the announcement is about an earlier life of the component.
TEST_F(CRestart, NotificationFromBeforeTheAnnouncementAnswered) {
    CFakeDaemon daemon([](CDaemonScript& script) {
        script.expect(0, CompNameMsgType);
        script.send(nQelServerNotifyMsgType, {5, 5}, 0, 1);
        script.answer();
        script.serve(nQelClientStartMonitorMsgType);
        script.expectSilence(50);
    });
    daemon.start();
    open();
    EXPECT_EQ(qel_monitor(m_pClient, nLong), 0);
    EXPECT_EQ(qel_wait(m_pClient, 0), 0);
    EXPECT_TRUE(daemon.finish());
}
