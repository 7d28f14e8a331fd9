// The same client against the real daemon, in a process of its own.
#include "fake_daemon.h"

#include "platform/mfw.h"

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fmt/format.h>
#include <fstream>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <thread>
#include <unistd.h>

namespace {

constexpr int nLong = 10000;

using CTold = std::vector<std::string>;

class CRealDaemon : public CClientTest {
protected:
    CRealDaemon() {
        setenv("QEL_FEATURE_LIST", (m_sDirectory + "/features.toml").c_str(), 1);
        setenv("QEL_LOG_FILE", (m_sDirectory + "/log").c_str(), 1);
    }
    ~CRealDaemon() override { kill(); }

    void start(const std::vector<SFeature>& list) {
        std::ofstream file(m_sDirectory + "/features.toml");
        for (const SFeature& feature : list) {
            file << fmt::format("[[feature]]\ncode = {}\ndata = {}\ncomponents = [\"Voice\"]\n",
                                feature.m_nCode, feature.m_nData);
        }
        file.close();
        char program[] = QEL_DAEMON;
        char mode[] = "-run";
        char* arguments[] = {program, mode, nullptr};
        unsetenv("QEL_PROCESS_NAME");
        ASSERT_EQ(posix_spawn(&m_nPid, program, nullptr, nullptr, arguments, environ), 0);
        setenv("QEL_PROCESS_NAME", "test_client", 1);
    }

    void kill() {
        if (m_nPid > 0) {
            ::kill(m_nPid, SIGKILL);
            waitpid(std::exchange(m_nPid, -1), nullptr, 0);
        }
    }

    // Output and exit status of qelctl.
    static std::string control(const std::string& arguments) {
        FILE* pipe = popen(fmt::format("{} {} 2>&1", QEL_CTL, arguments).c_str(), "r");
        std::string output;
        for (int c; pipe && (c = std::fgetc(pipe)) != EOF;) {
            output += static_cast<char>(c);
        }
        return output + fmt::format("exit {}", WEXITSTATUS(pclose(pipe)));
    }

    pid_t m_nPid = -1;
};

} // namespace

TEST_F(CRealDaemon, RestartLosesOrRepeatsADifference) {
    open();
    start({{1, 1}, {2, 1}, {3, 1}});
    ASSERT_EQ(qel_fetch(m_pClient, nLong), 3);
    ASSERT_EQ(qel_monitor(m_pClient, nLong), 0);
    kill();
    m_vTold.clear();
    start({{1, 1}, {2, 2}, {4, 1}});
    while (m_vTold.size() < 3 && qel_wait(m_pClient, nLong) > 0) {
    }
    ASSERT_EQ(qel_monitor(m_pClient, nLong), 0);
    EXPECT_EQ(m_vTold, (CTold{"enable 4:1", "modify 2:1>2", "disable 3:1"}));
    EXPECT_EQ(qel_shutdown(m_pClient, "bye"), 0);
}

TEST_F(CRealDaemon, NotificationsNotCreditedToTheirFeatures) {
    open();
    start({{1, 1}, {2, 1}, {3, 1}, {4, 1}});
    qel_hold(m_pClient, 4, 1); // the daemon keeps it to itself
    ASSERT_EQ(qel_monitor(m_pClient, nLong), 0);
    while (m_vTold.size() < 3 && qel_wait(m_pClient, nLong) > 0) {
    }
    EXPECT_EQ(m_vTold, (CTold{"enable 1:1", "enable 2:1", "enable 3:1"}));
    std::string output = control("list --json");
    EXPECT_NE(output.find("\"count\": 4"), std::string::npos) << output;
    EXPECT_NE(output.find("exit 0"), std::string::npos) << output;
    output = control("component Anchor --fetch --for 0.7");
    EXPECT_NE(output.find("4 features"), std::string::npos) << output;
}

TEST_F(CRealDaemon, ToolsHangWithoutADaemon) {
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(control("list"), "qelctl: the daemon is not running\nexit 2");
    EXPECT_EQ(control("component Voice --monitor"), "qelctl: the daemon is not running\nexit 2");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
}
