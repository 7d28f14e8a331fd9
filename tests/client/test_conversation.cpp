#include "fake_daemon.h"

#include <chrono>
#include <cstring>

extern "C" int openFromC(qel_client** client);

namespace {

constexpr int nLong = 5000; // milliseconds: for what ends by itself
constexpr uint32_t REPLY = nQelServerReplyMsgType;
constexpr uint32_t NOTIFY = nQelServerNotifyMsgType;
constexpr uint32_t MODIFY = nQelServerModifyMsgType;
constexpr uint32_t DISABLE = nQelServerDisableMsgType;
constexpr uint32_t OVERDUE = nQelServerTimeoutMsgType;
constexpr uint32_t GET = nQelClientGetFeatureMsgType;

using CTold = std::vector<std::string>;

class CConversation : public CClientTest {
protected:
    void bringUp() {
        ASSERT_GE(qel_fetch(m_pClient, nLong), 0);
        ASSERT_EQ(qel_monitor(m_pClient, nLong), 0);
    }

    // Waits until the callback was called that often.
    void waitForTold(size_t count) {
        while (m_vTold.size() < count) {
            ASSERT_GT(qel_wait(m_pClient, nLong), 0) << "told only " << m_vTold.size();
        }
    }
};

} // namespace

TEST_F(CConversation, MessagesThatDifferFromTheWireLayout) {
    const std::string name = "566f6963650000000000000000000000 00000000"; // "Voice" in 20 bytes
    CFakeDaemon daemon([&](CDaemonScript& script) {
        script.expectHex("00000000 00000044 00000000 00000000 00000001 H H " + name +
                             "00000002 00000065 00000005 00000066 ffffffff",
                         "announcement");
        script.answer();
        script.expectHex("00000000 00000034 00000000 00000001 00000002 H H " + name + "00000000", "InitList");
        script.answer();
        script.expectHex("00000000 00000034 00000000 00000002 00000003 H H " + name + "00000000",
                         "GetFeature");
        script.answer({102, 0xFFFFFFFF});
        script.expectHex("00000000 00000034 00000000 00000002 00000004 H H " + name + "00000000",
                         "GetFeature");
        script.answer({101, 5});
        script.expectHex("00000000 00000034 00000000 00000002 00000005 H H " + name + "00000000",
                         "GetFeature");
        script.answer();
        script.expectHex("00000000 00000034 00000000 00000003 00000006 H H " + name + "00000000",
                         "StartMonitor");
        script.answer();
        script.send(NOTIFY, {7, 8});
        script.expectHex("00000000 00000023 00000001 00000005 00000007 H 00000000 00000000 6e6f00",
                         "refusal");
        script.answer({7, 8});
        script.send(NOTIFY, {9, 8});
        script.expectHex("00000000 00000021 00000001 00000005 00000008 H 00000000 00000001 00", "acceptance");
        script.answer({9, 8});
        script.expectHex("00000000 00000024 00000001 00000006 00000009 H 00000000 00000001 62796500",
                         "shutdown");
    });
    daemon.start();
    open();
    m_fnAnswer = [](const qel_notification& n, char* text) {
        std::strcpy(text, n.code == 7 ? "no" : "");
        return n.code == 7 ? QEL_REFUSED : QEL_OK;
    };
    ASSERT_EQ(qel_hold(m_pClient, 102, 0xFFFFFFFF), 0);
    ASSERT_EQ(qel_hold(m_pClient, 101, 5), 0);
    bringUp();
    waitForTold(2);
    EXPECT_EQ(m_vTold, (CTold{"enable 7:8", "enable 9:8"}));
    qel_wait(m_pClient, 200); // the answer to the last reply
    EXPECT_EQ(qel_shutdown(m_pClient, "bye"), 0);
    EXPECT_TRUE(daemon.finish());
    EXPECT_EQ(qel_features(m_pClient, nullptr, 0), 3);
}

TEST_F(CConversation, DaemonNotThereYetBlocksTooLongOrIsGivenUp) {
    CFakeDaemon daemon([](CDaemonScript& script) { script.serve(CompNameMsgType); });
    open();
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(qel_announce(m_pClient, 0), QEL_ENODAEMON);
    EXPECT_EQ(qel_announce(m_pClient, 50), QEL_ENODAEMON);
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_GE(took, std::chrono::milliseconds(50));
    EXPECT_LT(took, std::chrono::milliseconds(500));
    EXPECT_EQ(qel_shutdown(m_pClient, nullptr), QEL_ENODAEMON);
    daemon.start();
    EXPECT_EQ(qel_announce(m_pClient, nLong), 0);
    EXPECT_EQ(qel_state(m_pClient), QEL_STATE_ANNOUNCED);
    EXPECT_TRUE(daemon.finish());
}

// Asking for the page again would skip a feature, and the late page would be taken for a newer one.
TEST_F(CConversation, LatePageTakenForAnAnswerOrAFeatureSkipped) {
    CFakeDaemon daemon([](CDaemonScript& script) {
        script.serve(CompNameMsgType);
        script.serve(InitListMsgType);
        script.expect(0, GET);
        uint32_t unanswered = script.latestTag();
        script.serve(CompNameMsgType);
        script.serve(InitListMsgType);
        script.expect(0, GET);
        script.send(REPLY, {5, 5}, 0, unanswered);
        script.answer({6, 6});
        script.serve(GET);
    });
    daemon.start();
    qel_options options = {};
    options.answer_timeout_ms = 100;
    open(options);
    EXPECT_EQ(qel_fetch(m_pClient, nLong), 1);
    EXPECT_EQ(m_vTold, CTold{"enable 6:6"});
    EXPECT_TRUE(daemon.finish());
}

TEST_F(CConversation, NotificationsAmidPagingLostOrAnsweredTwice) {
    CFakeDaemon daemon([](CDaemonScript& script) {
        script.serve(CompNameMsgType);
        script.serve(InitListMsgType);
        script.expect(0, GET);
        script.send(NOTIFY, {9, 1}); // overtaken by its own page: the daemon awaits no reply any more
        script.answer({9, 1});
        script.expect(0, GET);
        script.send(NOTIFY, {8, 1}); // on no page: answered before the next request
        script.answer({1, 1});
        script.expectReply(1);
        script.answer({8, 1});
        script.serve(GET);
        script.expect(0, nQelClientStartMonitorMsgType);
        script.send(DISABLE, {1, 1}); // between the last page and the start of monitoring
        script.answer();
        script.expectReply(1);
        script.answer({1, 1});
    });
    daemon.start();
    open();
    bringUp();
    waitForTold(4);
    EXPECT_EQ(m_vTold, (CTold{"enable 9:1", "enable 1:1", "enable 8:1", "disable 1:1"}));
    EXPECT_TRUE(daemon.finish());
}

TEST_F(CConversation, ReplyToSomethingThatTheDaemonNoLongerAwaits) {
    CFakeDaemon daemon([](CDaemonScript& script) {
        script.serveUp(0, {});
        script.send(NOTIFY, {1, 1}); // answered by nothing
        script.expectSilence(50);
        script.send(OVERDUE, {1, 1});
        script.expectSilence(50);
        script.send(NOTIFY, {2, 1}); // overdue while the component still works on it
        script.send(OVERDUE, {2, 1});
        script.expectSilence(100);
        script.send(NOTIFY, {2, 1}); // comes again: held by now, answered in silence
        script.expectReply(1);
    });
    daemon.start();
    open();
    m_fnAnswer = [](const qel_notification& n, char*) { return n.code == 1 ? QEL_NO_REPLY : QEL_OK; };
    m_fnAnswer = [silent = m_fnAnswer](const qel_notification& n, char* text) {
        std::chrono::milliseconds busy(n.code == 2 && n.kind == QEL_ENABLE ? 50 : 0);
        for (auto end = std::chrono::steady_clock::now() + busy; std::chrono::steady_clock::now() < end;) {
        }
        return silent(n, text);
    };
    bringUp();
    waitForTold(4);
    qel_wait(m_pClient, 300);
    EXPECT_EQ(m_vTold, (CTold{"enable 1:1", "overdue 1:1", "enable 2:1", "overdue 2:1"}));
    EXPECT_TRUE(daemon.finish());
}

TEST_F(CConversation, NotificationsMisjudgedAgainstWhatIsHeld) {
    struct SCase {
        uint32_t m_nType;
        SFeature m_oFeature;
        uint32_t m_nNewData;
        const char* m_szTold; // empty: nothing, the client answers itself
        uint32_t m_nStatus;
    };
    static const SCase aCases[] = {
        {NOTIFY, {1, 5}, 0, "", 1},             // held exactly so: a repetition
        {NOTIFY, {1, 6}, 0, "modify 1:5>6", 1}, // a list put new data in place of the old
        {MODIFY, {1, 6}, 7, "modify 1:6>7", 1}, //
        {MODIFY, {1, 6}, 7, "", 1},             // repeated
        {DISABLE, {1, 6}, 0, "disable 1:7", 1}, // withdrawn before the new data was in force
        {DISABLE, {1, 6}, 0, "", 1},            // not held
        {MODIFY, {1, 6}, 8, "enable 1:8", 1},   // a modification of what was never taken up
        {NOTIFY, {13, 1}, 0, "enable 13:1", 0}, // refused, and so not held
        {NOTIFY, {13, 1}, 0, "enable 13:1", 0}, // offered again
        {NOTIFY, {2, 0}, 0, "enable 2:0", 1},   // data may be 0
        {NOTIFY, {0, 3}, 0, "enable 0:3", 1},   // and so may a code
    };
    CFakeDaemon daemon([&](CDaemonScript& script) {
        script.serveUp(1, {{1, 5}});
        for (const SCase& c : aCases) {
            script.send(c.m_nType, c.m_oFeature, c.m_nNewData);
            script.expectReply(c.m_nStatus);
            script.answer(c.m_oFeature);
        }
    });
    daemon.start();
    open();
    m_fnAnswer = [](const qel_notification& n, char*) { return n.code == 13 ? QEL_REFUSED : QEL_OK; };
    qel_hold(m_pClient, 1, 5);
    bringUp();
    CTold expected;
    for (const SCase& c : aCases) {
        if (*c.m_szTold) {
            expected.push_back(c.m_szTold);
        }
    }
    waitForTold(expected.size());
    EXPECT_EQ(m_vTold, expected);
    EXPECT_TRUE(daemon.finish());
    qel_pair held[2] = {};
    EXPECT_EQ(qel_features(m_pClient, held, 2), 3);
    EXPECT_EQ(held[1].code * 100 + held[1].data, 108u);
}

TEST_F(CConversation, MoreThanAHundredHeldOverrunTheAnnouncement) {
    std::vector<SFeature> list;
    for (uint32_t code = 1; code <= 150; ++code) {
        list.push_back({code, code});
    }
    CFakeDaemon daemon([&](CDaemonScript& script) { script.serveList(100, list); });
    daemon.start();
    open();
    for (const SFeature& feature : list) {
        qel_hold(m_pClient, feature.m_nCode, feature.m_nData);
    }
    EXPECT_EQ(qel_fetch(m_pClient, nLong), 150);
    EXPECT_EQ(m_vTold, CTold());
    EXPECT_TRUE(daemon.finish());
}

TEST_F(CConversation, GarbageOrAStrangerTakenForTheDaemon) {
    CFakeDaemon stranger([](CDaemonScript& script) { script.send(NOTIFY, {66, 6}); }, "stranger");
    CFakeDaemon daemon([](CDaemonScript& script) {
        script.serveUp(0, {});
        for (size_t length : {1u, 23u, 24u, 35u}) { // a notification cut short
            CBytes body(length);
            if (length > 11) {
                body[11] = NOTIFY;
            }
            script.sendBytes(body);
        }
        for (uint32_t type : {5u, 11u, 0xFFFFFFFFu}) {
            script.send(type, {66, 6});
        }
        script.send(REPLY, {66, 6}, 0, 12345);
        script.expectSilence(50);
        script.send(NOTIFY, {1, 1});
        script.expectReply(1);
    });
    daemon.start();
    open();
    bringUp();
    stranger.start();
    EXPECT_TRUE(stranger.finish());
    waitForTold(1);
    EXPECT_EQ(m_vTold, CTold{"enable 1:1"});
    EXPECT_TRUE(daemon.finish());
}

TEST_F(CConversation, CallbacksThatReenterTheClient) {
    CFakeDaemon daemon([](CDaemonScript& script) { script.serveUp(0, {{1, 1}}); });
    daemon.start();
    open();
    m_fnAnswer = [this](const qel_notification&, char*) {
        EXPECT_EQ(qel_wait(m_pClient, 0), QEL_EBUSY);
        EXPECT_EQ(qel_run(m_pClient, 0), QEL_EBUSY);
        EXPECT_EQ(qel_shutdown(m_pClient, nullptr), QEL_EBUSY);
        EXPECT_EQ(qel_hold(m_pClient, 5, 5), QEL_EBUSY);
        qel_close(m_pClient);
        EXPECT_EQ(qel_features(m_pClient, nullptr, 0), 0);
        qel_stop(m_pClient);
        return QEL_OK;
    };
    EXPECT_EQ(qel_run(m_pClient, nLong), QEL_ESTOPPED); // stopped before it was up
    EXPECT_EQ(qel_run(m_pClient, 200), 0);              // goes on where it was
    EXPECT_EQ(m_vTold, CTold{"enable 1:1"});
    EXPECT_TRUE(daemon.finish());
}

TEST_F(CConversation, ArgumentsTakenUnchecked) {
    qel_client* other = nullptr;
    EXPECT_EQ(qel_open("", nullptr, &other), QEL_EINVAL);
    EXPECT_EQ(qel_open("SeventeenLetters!", nullptr, &other), QEL_EINVAL);
    EXPECT_EQ(qel_open(nullptr, nullptr, &other), QEL_EINVAL);
    EXPECT_EQ(openFromC(&m_pClient), 0);
    EXPECT_EQ(qel_open("Second", nullptr, &other), QEL_EBUSY);
    EXPECT_EQ(other, nullptr);
    EXPECT_EQ(qel_hold(m_pClient, 0, 0), QEL_EINVAL); // ends a list on the wire
    EXPECT_EQ(qel_wait(nullptr, 0), QEL_EINVAL);
    qel_close(m_pClient);
    EXPECT_EQ(qel_open("SixteenLetters!!", nullptr, &m_pClient), 0);
}
