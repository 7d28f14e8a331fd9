#include "integration/daemon.h"

#include <csignal>
#include <filesystem>

namespace {

using CCommandLineTest = CDaemonTest;

TEST_F(CCommandLineTest, WordsThatStartNothing) {
    const struct {
        std::vector<std::string> m_vArguments;
        int m_nStatus;
        const char* m_szOutput;
    } cases[] = {{{}, 1, "Usage: qelserver -[newkey|run|check|signature|signverify] [...]\n"},
                 {{"-runx"}, 0, ""},
                 {{"-ru"}, 0, ""},
                 {{"run"}, 0, ""},
                 {{"-Stop"}, 0, ""},
                 {{""}, 0, ""},
                 {{"-debug", "-run"}, 0, ""}};
    for (const auto& c : cases) {
        const auto program = run(c.m_vArguments);
        EXPECT_EQ(program->wait(), c.m_nStatus);
        EXPECT_EQ(program->output(), c.m_szOutput);
    }
    EXPECT_EQ(log(), "");
}

TEST_F(CCommandLineTest, StopWithoutADaemonLeavesAnEventThatTheNextStartReplaces) {
    for (int i = 0; i < 2; ++i) { // creates the event; opens it
        const auto stop = run({"-stop"});
        EXPECT_EQ(stop->wait(), 0);
        EXPECT_TRUE(isLike(stop->output(), "Sending stop event (0x*)\n")) << stop->output();
    }
    startDaemon();
    openEndpoint();
    EXPECT_NE(ask(nameMessage(1, "Phone")), "") << "a signal left in the old event must not end it";
    stopDaemon();
    EXPECT_TRUE(isLike(log(), "*: recv stop event\n" + std::string(szStamp) + "main thread exited\n*"));
    EXPECT_FALSE(exists("event.QELEVENTSERVER1"));
}

TEST_F(CCommandLineTest, EventThatExistsButCannotBeOpened) {
    std::filesystem::create_directory(m_sDirectory + "/event.QELEVENTSERVER1"); // in the event's place
    const auto stop = run({"-stop"});
    const int error = stop->wait();
    EXPECT_GT(error, 0);
    EXPECT_EQ(stop->output(), "Failed to create event (" + std::to_string(error) + ", 0xffffffff)\n");
    const auto daemon = run({"-run"});
    EXPECT_EQ(daemon->wait(), 1);
    EXPECT_EQ(daemon->output(), "");
    EXPECT_EQ(countInLog(": failed to create event.\n"), 1u);
    EXPECT_EQ(countInLog(": can't init server object.\n"), 1u);
}

TEST_F(CCommandLineTest, HostThatGivesNothing) {
    setenv("QEL_RUNTIME_DIR", (m_sDirectory + "/none/none").c_str(), 1);
    const auto stop = run({"-stop"});
    EXPECT_EQ(stop->wait(), 0);
    EXPECT_EQ(stop->output(), "");
    const auto daemon = run({"-run"});
    EXPECT_EQ(daemon->wait(), 1);
    EXPECT_TRUE(isLike(daemon->output(), "osGetProcessState error #*\n"));
    EXPECT_EQ(countInLog(": run qel service.\n"), 1u) << "an unknown state does not keep it from starting";
    EXPECT_EQ(countInLog(": failed to init message framework.\n"), 1u);
    EXPECT_EQ(countInLog(": can't init server object.\n"), 1u);
}

TEST_F(CCommandLineTest, OfTwoThatStartTogetherOneServes) {
    auto one = run({"-run"});
    auto other = run({"-run"});
    ASSERT_TRUE(eventually([&] { return !one->isRunning() || !other->isRunning(); }));
    if (!one->isRunning()) {
        std::swap(one, other);
    }
    EXPECT_EQ(other->wait(), 1);
    EXPECT_EQ(other->output(), "Another instance of Qel server is running\n");
    ASSERT_TRUE(eventually([&] { return OvuMfwGetProcessHandle("qelserver", &m_nHandle) == 0; }));
    m_pDaemon = std::move(one);
    stopDaemon();
}

TEST_F(CCommandLineTest, OnlyTheExactWordDebugs) {
    m_pDaemon = run({"-run", "-debug"});
    ASSERT_TRUE(eventually([&] { return OvuMfwGetProcessHandle("qelserver", &m_nHandle) == 0; }));
    sendStop();
    EXPECT_EQ(m_pDaemon->wait(), 0);
    const std::string output = m_pDaemon->output();
    const std::string started = std::string(szStamp) + "run qel service.\n";
    EXPECT_TRUE(isLike(output, started + "*"));
    EXPECT_EQ(output.find("OvuServiceStartService"), std::string::npos);
    EXPECT_EQ(log(), "");

    m_pDaemon = run({"-run", "-Debug"});
    ASSERT_TRUE(eventually([&] { return OvuMfwGetProcessHandle("qelserver", &m_nHandle) == 0; }));
    stopDaemon();
    EXPECT_TRUE(isLike(log(), started + szStamp + "OvuServiceStartService return 0\n*"));
}

TEST_F(CCommandLineTest, KilledHardItStartsAgain) {
    for (int i = 0; i < 3; ++i) {
        startDaemon();
        ASSERT_TRUE(eventually([this] { return exists("event.QELEVENTSERVER1"); })); // it is left behind
        m_pDaemon->signal(SIGKILL);
        EXPECT_EQ(m_pDaemon->wait(), 128 + SIGKILL);
    }
    startDaemon();
    openEndpoint();
    EXPECT_NE(ask(nameMessage(1, "Phone")), "");
    stopDaemon();
}

TEST_F(CCommandLineTest, LogThatCannotBeOpenedDropsTheLinesOnly) {
    setenv("QEL_LOG_FILE", "/none/log", 1);
    startDaemon();
    openEndpoint();
    EXPECT_NE(ask(nameMessage(1, "Phone")), "");
    stopDaemon();
}

} // namespace
