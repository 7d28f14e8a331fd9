#include "features/world.h"
#include "server/log/log.h"
#include "server/loop/CQelServer.h"
#include "support/files.h"
#include "support/scarce_memory.h"

#include <csignal>
#include <fcntl.h>
#include <sys/resource.h>
#include <thread>

namespace {

struct CLogTest : CHeartTest {
    CLogTest() {
        setenv("QEL_LOG_FILE", m_sPath.c_str(), 1);
        setClock("UTC0", 42000);
    }
    // In that time zone, so many microseconds after 2024-03-14 13:04:05 in UTC.
    void setClock(const char* zone, uint64_t microseconds) {
        setenv("TZ", zone, 1);
        tzset();
        platform().m_nMicroseconds = 1710421445 * uint64_t{1000000} + microseconds;
    }

    const CTestDirectory m_oDirectory;
    const std::string m_sPath = m_oDirectory.file("log");
};

TEST_F(CLogTest, RegistrationIsTriedUntilItWorksAndDebuggingBypassesBothLogs) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto inFreshProcess = [this] {
        platform().fail("OvuDiagRegisterModule", 2, 1, 2);
        CQelServer::LogFile(1, 31001, "one");
        for (const int times : {2, 3}) { // debugging or not, it is tried until it has worked
            bQelServerDebugFlag = true;
            CQelServer::LogFile(4, 31010, "on screen");
            bQelServerDebugFlag = false;
            EXPECT_EQ(platform().callsOf("OvuDiagRegisterModule"), times);
            EXPECT_EQ(CQelServer::LogFile(2, 31004, "two"), 1) << "the diagnostics service's own result";
        }
        EXPECT_EQ(platform().callsOf("OvuDiagRegisterModule"), 3);
        EXPECT_EQ(takeLines(), (CTexts{"2 31004 two", "2 31004 two"}));
        EXPECT_EQ(contents(m_sPath), "2024-03-14 13:04:05.042: one\n");
        std::filesystem::remove_all(m_oDirectory.path());
        std::exit(HasFailure() ? 1 : 0);
    };
    EXPECT_EXIT(inFreshProcess(), testing::ExitedWithCode(0), "");
}

TEST_F(CLogTest, EachLineHasItsStampAndOpensTheLogAnew) {
    const std::tuple<const char*, uint64_t, std::string> cases[] = {
        {"UTC0", 7000, "2024-03-14 13:04:05.007"}, {"EAST-2", 1999999, "2024-03-14 15:04:06.999"}};
    for (const auto& [zone, microseconds, stamp] : cases) {
        setClock(zone, microseconds);
        CQelServer::LogFile("100% text\n\x7fof one line");
        EXPECT_EQ(contents(m_sPath), stamp + ": 100% text\\x0a\\x7fof one line\n");
        std::filesystem::remove(m_sPath); // as a rotation would, between two lines
        setenv("QEL_LOG_FILE", "/none/log", 1);
        EXPECT_EQ(CQelServer::LogFile("lost"), 0);
        setenv("QEL_LOG_FILE", m_sPath.c_str(), 1);
    }
}

TEST_F(CLogTest, AThreadsFirstLineIsStampedEvenAtTheEpoch) {
    platform().m_nMicroseconds = 0;
    std::jthread([] { CQelServer::LogFile("early"); }).join();
    EXPECT_EQ(contents(m_sPath), "1970-01-01 00:00:00.000: early\n");
}

TEST_F(CLogTest, ALineThatDoesNotFitOnTheDiskLeavesNothingBehind) {
    std::signal(SIGXFSZ, SIG_IGN);
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit tight{125, limit.rlim_max};
    setrlimit(RLIMIT_FSIZE, &tight);
    const int standardOutput = dup(STDOUT_FILENO);
    for (const bool debug : {false, true}) { // debugging, on standard output
        const int file = open(m_sPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
        dup2(debug ? file : standardOutput, STDOUT_FILENO);
        bQelServerDebugFlag = debug;
        for (const char* text : {"one", "two", "three", "a line for which there is no room", "four"}) {
            EXPECT_EQ(CQelServer::LogFile(text), *text == 'a' ? 0 : 1) << text;
        }
        bQelServerDebugFlag = false;
        dup2(standardOutput, STDOUT_FILENO);
        close(file);
        const std::string stamp = "2024-03-14 13:04:05.042: ";
        EXPECT_EQ(contents(m_sPath),
                  stamp + "one\n" + stamp + "two\n" + stamp + "three\n" + stamp + "four\n");
    }
    setrlimit(RLIMIT_FSIZE, &limit);
}

TEST_F(CLogTest, WithoutMemoryALongLineIsCut) {
    const std::string text(5000, 'x');
    for (size_t nth = 1; nth <= 2; ++nth) {
        {
            const CScarceMemory scarce(nth);
            EXPECT_EQ(CQelServer::LogFile(text.c_str()), 1);
            EXPECT_EQ(CScarceMemory::hasFailed(), nth == 1);
        }
        EXPECT_TRUE(contents(m_sPath).ends_with(nth == 1 ? "xxx\n" : "x\n"));
        EXPECT_EQ(contents(m_sPath).size() < text.size(), nth == 1);
    }
    const CScarceMemory scarce(1);
    EXPECT_EQ(logEvent(svWarning, 31016, "%s", text.c_str()), 1);
    EXPECT_TRUE(CScarceMemory::hasFailed());
    EXPECT_EQ(takeLines(), CTexts{"2 31016 " + text.substr(0, 511)});
}

// Lines longer than any buffer of the library: in pieces, they would mix.
TEST_F(CLogTest, LinesOfSeveralThreadsDoNotMix) {
    const auto write = [](char letter) {
        for (int i = 0; i < 2000; ++i) {
            CQelServer::LogFile(std::string(5000, letter).c_str());
        }
    };
    { std::jthread a(write, 'a'), b(write, 'b'); }
    std::ifstream lines(m_sPath);
    int whole = 0;
    for (std::string line; std::getline(lines, line);) {
        whole += line.size() == 5025 && line.find_first_not_of(line[25], 25) == std::string::npos;
    }
    EXPECT_EQ(whole, 4000);
}

TEST_F(CLogTest, TextsAreFormattedWholeWhateverTheirLength) {
    for (const size_t length : {0u, 509u, 510u, 511u, 512u, 100000u}) {
        const std::string text(length, 'x');
        EXPECT_EQ(logEvent(svWarning, 31016, "%s|%d", text.c_str(), 5), 1);
        EXPECT_EQ(takeLines(), CTexts{"2 31016 " + text + "|5"}) << length;
    }
}

TEST_F(CLogTest, FieldsAreTakenFromTheArgumentsOfTheirOwnLineOnly) {
    CQelServer::LogFile(4, 31010, "registers the module");
    const auto* reply = "no room and more";
    logEvent(svInfo, 31030, "WriteReplyMsgType (%d %.*s)", 0, 7, reply);
    EXPECT_EQ(platform().m_sFields, "QEL_REASON=no room ");
    logEvent(svInfo, 31107, "audit comp %s%s%s not in feature list with (%d, %d)", "(", "Voice", ")", 1, 2);
    EXPECT_EQ(platform().m_sFields, "QEL_COMPONENT=Voice QEL_CODE=1 QEL_DATA=2 ");
    logEvent(svInfo, 31108, "already has feature (%d, %d, %d) at comp %s", 1, -1, 0, "Gate");
    EXPECT_EQ(platform().m_sFields, "QEL_COMPONENT=Gate QEL_CODE=4294967295 QEL_DATA=0 ");
    CQelServer::LogFile(4, 31010, "of nobody");
    EXPECT_EQ(platform().m_sFields, "");
    takeLines();
}

} // namespace
