#include "server/CQelServer.h"
#include "server/log.h"
#include "server/stand_ins.h"

#include <filesystem>
#include <fstream>
#include <thread>
#include <unistd.h>

namespace {

struct CLogTest : CServerTestBase {
    void SetUp() override {
        CServerTestBase::SetUp();
        setenv("QEL_LOG_FILE", m_sPath.c_str(), 1);
        setClock("UTC0", 42000);
    }
    void TearDown() override { std::filesystem::remove(m_sPath); }

    // In that time zone, so many microseconds after 2024-03-14 13:04:05 in UTC.
    void setClock(const char* zone, uint64_t microseconds) {
        setenv("TZ", zone, 1);
        tzset();
        m_oPlatform.m_nMicroseconds = 1710421445 * uint64_t{1000000} + microseconds;
    }

    std::string textLog() const {
        return {std::istreambuf_iterator<char>(std::ifstream(m_sPath).rdbuf()), {}};
    }

    const std::string m_sPath = testing::TempDir() + "qel-log-" + std::to_string(getpid());
};

TEST_F(CLogTest, RegistrationIsTriedAgainForEveryLineUntilItWorksAndDebuggingBypassesBothLogs) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto inFreshProcess = [this] {
        m_oPlatform.fail("OvuDiagRegisterModule", 2, 1, 2);
        CQelServer::LogFile(1, 31001, "one");
        bQelServerDebugFlag = true;
        testing::internal::CaptureStdout();
        CQelServer::LogFile(4, 31010, "100% on screen");
        EXPECT_EQ(testing::internal::GetCapturedStdout(), "2024-03-14 13:04:05.042: 100% on screen\n");
        bQelServerDebugFlag = false;
        EXPECT_EQ(m_oPlatform.callsOf("OvuDiagRegisterModule"), 2) << "debugging or not";
        EXPECT_EQ(CQelServer::LogFile(2, 31004, "two"), 1) << "the diagnostics service's own result";
        CQelServer::LogFile(4, 31010, "three");
        EXPECT_EQ(m_oPlatform.callsOf("OvuDiagRegisterModule"), 3);
        EXPECT_EQ(takeLines(), (Lines{"2 31004 two", "4 31010 three"}));
        EXPECT_EQ(textLog(), "2024-03-14 13:04:05.042: one\n");
        TearDown();
        std::exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(inFreshProcess(), testing::ExitedWithCode(0), "");
}

TEST_F(CLogTest, EachLineHasItsStampAndOpensTheLogAnew) {
    const std::tuple<const char*, uint64_t, std::string> cases[] = {
        {"UTC0", 7000, "2024-03-14 13:04:05.007"}, {"EAST-2", 999999, "2024-03-14 15:04:05.999"}};
    for (const auto& [zone, microseconds, stamp] : cases) {
        setClock(zone, microseconds);
        CQelServer::LogFile("100% text\nof one line");
        EXPECT_EQ(textLog(), stamp + ": 100% text\\x0aof one line\n");
        std::filesystem::remove(m_sPath); // as a rotation would, between two lines
        setenv("QEL_LOG_FILE", "/none/log", 1);
        EXPECT_EQ(CQelServer::LogFile("lost"), 0);
        setenv("QEL_LOG_FILE", m_sPath.c_str(), 1);
    }
}

// Lines longer than any buffer of the library: in pieces, they would mix.
TEST_F(CLogTest, LinesOfSeveralThreadsDoNotMix) {
    const auto write = [](char letter) {
        for (int i = 0; i < 50; ++i) {
            CQelServer::LogFile(std::string(20000, letter).c_str());
        }
    };
    std::thread a(write, 'a'), b(write, 'b');
    a.join();
    b.join();
    const std::string text = textLog();
    ASSERT_EQ(text.size(), 100 * (25 + 20001));
    for (size_t i = 25; i < text.size(); i += 25 + 20001) {
        EXPECT_TRUE(text.substr(i, 20001) == std::string(20000, text[i]) + "\n") << text.substr(i - 25, 40);
    }
}

TEST_F(CLogTest, TextsAreFormattedWholeWhateverTheirLength) {
    for (const size_t length : {0u, 509u, 510u, 511u, 512u, 100000u}) {
        const std::string text(length, 'x');
        logEvent(svWarning, 31016, "%s|%d", text.c_str(), 5);
        EXPECT_EQ(takeLines(), Lines{"2 31016 " + text + "|5"}) << length;
    }
}

} // namespace
