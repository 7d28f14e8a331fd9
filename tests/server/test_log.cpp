#include "server/CQelServer.h"
#include "server/log.h"
#include "server/stand_ins.h"

#include <cstdlib>
#include <ctime>
#include <filesystem>
#include <fstream>
#include <thread>
#include <unistd.h>

namespace {

class CLogTest : public CServerTestBase {
protected:
    void SetUp() override {
        CServerTestBase::SetUp();
        m_sPath = testing::TempDir() + "qel-log-" + std::to_string(getpid());
        setenv("QEL_LOG_FILE", m_sPath.c_str(), 1);
        setClock("UTC0", 1710421445, 42000); // 2024-03-14 13:04:05.042
    }
    void TearDown() override {
        bQelServerDebugFlag = false;
        std::filesystem::remove(m_sPath);
    }

    void setClock(const char* zone, uint64_t seconds, uint64_t microseconds) {
        setenv("TZ", zone, 1);
        tzset();
        m_oPlatform.m_nMicroseconds = seconds * 1000000 + microseconds;
    }

    Lines textLog() const {
        std::ifstream file(m_sPath);
        Lines lines;
        for (std::string line; std::getline(file, line);) {
            lines.push_back(line);
        }
        return lines;
    }

    std::string m_sPath;
};

TEST_F(CLogTest, RegistrationIsTriedAgainForEveryLineUntilItWorks) {
    inFreshProcess([this] {
        m_oPlatform.m_bDiagnostics = false; // what is left in the handle is not taken for one
        CQelServer::LogFile(1, 31001, "one");
        CQelServer::LogFile(2, 31004, "two");
        EXPECT_EQ(m_oPlatform.callsOf("OvuDiagRegisterModule"), 2);
        EXPECT_EQ(textLog(), (Lines{"2024-03-14 13:04:05.042: one", "2024-03-14 13:04:05.042: two"}));
        m_oPlatform.m_bDiagnostics = true;
        EXPECT_EQ(CQelServer::LogFile(2, 31004, "three"), 1) << "the diagnostics service's own result";
        CQelServer::LogFile(4, 31010, "four");
        EXPECT_EQ(m_oPlatform.callsOf("OvuDiagRegisterModule"), 3);
        EXPECT_EQ(takeLines(), (Lines{"2 31004 three", "4 31010 four"}));
        EXPECT_EQ(textLog().size(), 2u);
        std::filesystem::remove(m_sPath);
    });
}

TEST_F(CLogTest, DebuggingBypassesBothLogsButRegistersAllTheSame) {
    inFreshProcess([this] {
        bQelServerDebugFlag = true;
        testing::internal::CaptureStdout();
        CQelServer::LogFile(4, 31010, "100% on screen");
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "2024-03-14 13:04:05.042: 100% on screen\n");
        EXPECT_EQ(m_oPlatform.callsOf("OvuDiagRegisterModule"), 1);
        EXPECT_TRUE(takeLines().empty());
        EXPECT_FALSE(std::filesystem::exists(m_sPath));
    });
}

TEST_F(CLogTest, EachLineHasItsStampAndOpensTheLogAnew) {
    const struct {
        const char* m_szZone;
        uint64_t m_nMicroseconds;
        const char* m_szStamp;
    } cases[] = {{"UTC0", 7000, "2024-03-14 13:04:05.007"},
                 {"UTC0", 999999, "2024-03-14 13:04:05.999"},
                 {"EAST-2", 999, "2024-03-14 15:04:05.000"}};
    for (const auto& c : cases) {
        setClock(c.m_szZone, 1710421445, c.m_nMicroseconds);
        CQelServer::LogFile("100% text");
        EXPECT_EQ(textLog(), Lines{std::string(c.m_szStamp) + ": 100% text"});
        std::filesystem::remove(m_sPath); // as a rotation would, between two lines
        setenv("QEL_LOG_FILE", "/none/log", 1);
        CQelServer::LogFile("lost");
        setenv("QEL_LOG_FILE", m_sPath.c_str(), 1);
    }
}

// Lines longer than any buffer of the library: in pieces, they would mix.
TEST_F(CLogTest, LinesOfSeveralThreadsDoNotMix) {
    const auto write = [](char letter) {
        const std::string text(20000, letter);
        for (int i = 0; i < 50; ++i) {
            CQelServer::LogFile(text.c_str());
        }
    };
    std::thread a(write, 'a'), b(write, 'b'), c(write, 'c');
    a.join();
    b.join();
    c.join();
    const Lines lines = textLog();
    EXPECT_EQ(lines.size(), 150u);
    for (const std::string& line : lines) {
        EXPECT_EQ(line.substr(25), std::string(20000, line.back())) << line.substr(0, 40);
    }
}

TEST_F(CLogTest, TextsAreFormattedWholeWhateverTheirLength) {
    for (const size_t length : {0u, 510u, 511u, 512u, 513u, 100000u}) {
        const std::string text(length, 'x');
        logEvent(svWarning, 31016, "%s|%d", text.c_str(), 5);
        EXPECT_EQ(takeLines(), Lines{"2 31016 " + text + "|5"}) << length;
    }
    nAllocationsLeft = 0;
    logEvent(svWarning, 31016, "%s", std::string(1000, 'x').c_str());
    EXPECT_EQ(takeLines(), Lines{"2 31016 " + std::string(511, 'x')}) << "as much as there is memory for";
}

} // namespace
