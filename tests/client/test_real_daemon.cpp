// The client and qelctl against the real daemon, in a process of its own.
#include "client_test.h"

#include <chrono>
#include <filesystem>
#include <fstream>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

namespace {

class CRealDaemon : public CClientTest {
protected:
    CRealDaemon() {
        char directory[] = "/tmp/qel-client-XXXXXX";
        m_sDirectory = mkdtemp(directory);
        setenv("QEL_RUNTIME_DIR", directory, 1);
    }
    ~CRealDaemon() override {
        kill();
        std::filesystem::remove_all(m_sDirectory);
    }

    void start(const std::vector<std::pair<int, int>>& list) {
        std::ofstream file(m_sDirectory + "/list");
        for (const auto& [code, data] : list) {
            file << fmt::format("[[feature]]\ncode = {}\ndata = {}\ncomponents = [\"Voice\"]\n", code, data);
        }
        file.close();
        m_nPid = fork();
        if (m_nPid == 0) {
            setenv("QEL_FEATURE_LIST", (m_sDirectory + "/list").c_str(), 1);
            setenv("QEL_LOG_FILE", (m_sDirectory + "/log").c_str(), 1);
            execl(QEL_DAEMON, QEL_DAEMON, "-run", nullptr);
            _exit(127);
        }
    }

    void kill() {
        if (m_nPid > 0) {
            ::kill(m_nPid, SIGKILL);
            waitpid(std::exchange(m_nPid, -1), nullptr, 0);
        }
    }

    void expectTold(const std::string& told) {
        while (m_sTold.size() < told.size() && qel_wait(m_pClient, nLong) > 0) {
        }
        EXPECT_EQ(std::exchange(m_sTold, ""), told);
    }

    // Output and exit status of qelctl.
    std::string control(const std::string& arguments) const {
        std::string file = m_sDirectory + "/output";
        int status = std::system(fmt::format("{} {} >{} 2>&1", QEL_CTL, arguments, file).c_str());
        std::ifstream output(file);
        return std::string(std::istreambuf_iterator<char>(output), {}) +
               fmt::format("exit {}", WEXITSTATUS(status));
    }

    std::string m_sDirectory; // the runtime directory, private
    pid_t m_nPid = -1;
};

} // namespace

TEST_F(CRealDaemon, DifferencesLostOrRepeatedByNotificationsFetchOrRestart) {
    open();
    EXPECT_EQ(qel_hold(m_pClient, 4, 1), 0); // which the daemon then keeps to itself
    start({{1, 1}, {2, 1}, {3, 1}, {4, 1}});
    ASSERT_EQ(qel_monitor(m_pClient, nLong), 0);
    expectTold("enable 1:1, enable 2:1, enable 3:1, ");
    EXPECT_EQ(qel_fetch(m_pClient, nLong), 4);
    EXPECT_PRED_FORMAT2(::testing::IsSubstring, "\"count\": 4", control("list --json"));
    EXPECT_PRED_FORMAT2(::testing::IsSubstring, "4 features", control("component Anchor --fetch --for 0.7"));
    kill();
    start({{1, 1}, {2, 2}, {4, 1}, {5, 1}});
    expectTold("enable 5:1, modify 2:1>2, disable 3:1, ");
    EXPECT_EQ(qel_monitor(m_pClient, nLong), 0);
    EXPECT_EQ(qel_shutdown(m_pClient, "bye"), 0);
}

TEST_F(CRealDaemon, ToolsHangOrHideErrorsWithoutADaemon) {
    auto start = std::chrono::steady_clock::now();
    EXPECT_EQ(control("list"), "qelctl: the daemon is not running\nexit 2");
    EXPECT_EQ(control("component Voice --monitor"), "qelctl: the daemon is not running\nexit 2");
    EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    std::ofstream(m_sDirectory + "/list") << "[[feature]]\ncode = -1\ndata = 1\ncomponents = []\nname = 5\n";
    std::string errors = control("check " + m_sDirectory + "/list");
    for (const char* end : {"/list:2: ", "/list:5: ", "exit 1"}) {
        EXPECT_NE(errors.find(end), std::string::npos) << errors;
    }
}
