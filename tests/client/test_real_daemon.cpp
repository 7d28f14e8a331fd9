// The client and qelctl against the real daemon, in a process of its own.
#include "client/voice.h"
#include "integration/daemon.h"

#include <poll.h>
#include <sys/resource.h>

namespace {

class CRealDaemon : public CDaemonTest, protected CVoice {
protected:
    // Each as code and data.
    void start(const std::vector<std::pair<uint32_t, uint32_t>>& features) {
        std::string list;
        for (const auto& [code, data] : features) {
            list += feature(code, data, "Voice");
        }
        writeList(list);
        launchDaemon();
    }

    void expectTold(const std::string& told) {
        while (m_sTold.size() < told.size() && qel_wait(m_pClient, nPatience) > 0) {
        }
        EXPECT_EQ(std::exchange(m_sTold, ""), told);
    }

    static std::string control(const std::string& arguments) { return ::attempt(QEL_CTL " " + arguments); }
};

TEST_F(CRealDaemon, EveryDifferenceIsToldOnceByNotificationFetchOrRestart) {
    open();
    EXPECT_EQ(qel_hold(m_pClient, 4, 1), 0); // which the daemon then keeps to itself
    start({{1, 1}, {2, 1}, {3, 1}, {4, 1}});
    ASSERT_EQ(qel_monitor(m_pClient, nLong), 0);
    expectTold("enable 1:1, enable 2:1, enable 3:1, ");
    EXPECT_EQ(qel_fetch(m_pClient, nLong), 4);
    EXPECT_PRED_FORMAT2(::testing::IsSubstring, "\"count\": 4", control("list --json"));
    EXPECT_PRED_FORMAT2(::testing::IsSubstring, "4 features", control("component Anchor --fetch --for 0.7"));
    EXPECT_TRUE(isLike(control("wait 4 Voice"), "delivered after *: no problems, 1 delivered\nstatus 0\n"));
    EXPECT_TRUE(isLike(control("status Voice"), "Voice (pid *): alive, monitoring, *\n   4     1  -     ok\n"
                                                "no problems, 4 delivered\nstatus 0\n"));
    EXPECT_TRUE(isLike(control("why 2 Voice"),
                       "2:1 at Voice (pid *): ok\n*Steps: all since the daemon's start\n"
                       "*sent -> ok (accepted)\n*status 0\n"));
    EXPECT_TRUE(
        isLike(control("watch --since 0 --for 0.3"), "*  2:1  Voice  * sent -> ok (accepted)\n*status 0\n"));
    EXPECT_TRUE(
        isLike(control("component Voice --for 1"), "*Voice is the name of a process that lives*status 1\n"));
    m_oDaemon.reset(); // killed
    start({{1, 1}, {2, 2}, {4, 1}, {5, 1}});
    expectTold("enable 5:1, modify 2:1>2, disable 3:1, ");
    EXPECT_EQ(qel_monitor(m_pClient, nLong), 0);
    put(file("new"), feature(1, 1, "Voice") + feature(2, 2, "Voice") + feature(6, 1, "Voice") +
                         feature(7, 1, "Nobody", "sourced = true"));
    EXPECT_PRED_FORMAT2(::testing::IsSubstring, "\n2 added, 2 withdrawn, 0 changed: ",
                        control("apply --force --no-wait " + file("new")));
    expectTold("disable 4:1, disable 5:1, enable 6:1, "); // by the daemon's audits
    EXPECT_PRED_FORMAT2(::testing::IsSubstring, "; 1 sourced feature is not shown", control("list"));
    EXPECT_PRED_FORMAT2(::testing::IsSubstring, "features.toml: 4 features, in force since ",
                        control("status"));
    EXPECT_EQ(qel_shutdown(m_pClient, "bye"), 0);
    EXPECT_TRUE(eventually([this] { return countInLog(": ShutdownMsgType (1 bye)\n") == 1; }));
}

// Where its poll loop would sleep for ever, or spin, this fails.
TEST_F(CRealDaemon, WhoLosesItsNameAtThePromptIsToldSo) {
    start({{1, 1}});
    EXPECT_EQ(::attempt("{ " QEL_CTL
                        " component Voice -q --monitor --wait --for 90 & } && loser=$! && { until " QEL_CTL
                        " wait -q 1 Voice 2>/dev/null; do sleep 0.1; done; } && { " QEL_CTL
                        " component Voice -q --monitor --take-over & } && winner=$! && "
                        "{ wait $loser; echo lost $?; kill $winner; wait $winner; }"),
              "qelctl: another process has taken the name Voice over; it is left alone\nlost 1\nstatus 0\n");
}

TEST_F(CRealDaemon, ALoopOfOnesOwnIsWokenForWhatComesAndForNothingElse) {
    open();
    rlimit before{}, after{};
    getrlimit(RLIMIT_NOFILE, &before);
    int next = 0;
    int wakes = 0;
    const auto loopUntil = [&](const std::string& told) {
        const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(30);
        while (m_sTold.size() < told.size() && std::chrono::steady_clock::now() < end) {
            pollfd wait{qel_fd(m_pClient), POLLIN, 0};
            poll(&wait, 1, next < 1000 ? next : 30000); // a time that is far off may not be what it waits for
            ASSERT_GE(qel_dispatch(m_pClient, &next), 0);
            ++wakes;
        }
        EXPECT_EQ(std::exchange(m_sTold, ""), told);
    };
    start({{1, 1}});
    loopUntil("enable 1:1, ");
    m_oDaemon.reset(); // killed
    start({{1, 2}});
    loopUntil("modify 1:1>2, ");
    EXPECT_LT(wakes, 60) << "about 10 messages each, and the daemon that came and went";
    getrlimit(RLIMIT_NOFILE, &after);
    EXPECT_EQ(after.rlim_cur, before.rlim_cur);
    qel_stop(m_pClient);
    EXPECT_EQ(qel_dispatch(m_pClient, nullptr), QEL_ESTOPPED);
}

TEST_F(CRealDaemon, WithoutADaemonToolsSayAtOnceWhatIsWrong) {
    for (const char* command :
         {"list", "component Voice --monitor", "status", "why 1 Voice", "watch", "wait"}) {
        const auto start = std::chrono::steady_clock::now();
        EXPECT_EQ(control(command), "qelctl: the daemon is not running\nstatus 2\n");
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    }
    startDaemon();
    kill(m_oDaemon->process(), SIGSTOP);
    EXPECT_TRUE(
        isLike(control("component Voice --for 0.5"), "*the daemon did not answer in time\nstatus 2\n"));
    for (const char* command : {"wait ''", "check ''", "component Voice --process ''"}) {
        EXPECT_TRUE(isLike(control(command), "*must not be empty*status 64\n"));
    }
    EXPECT_TRUE(isLike(control("stauts"), "*did you mean 'status'?*status 64\n"));
    writeList("[[feature]]\ncode = -1\ndata = 1\ncomponents = []\nname = 5\n");
    EXPECT_TRUE(isLike(control("check " + file("features.toml")), "*.toml:2: *.toml:5: *status 1\n"));
}

} // namespace
