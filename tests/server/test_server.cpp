#include "base/clock.h"
#include "features/CFeatureSupply.h"
#include "features/SListState.h"
#include "features/world.h"
#include "messaging/endpoint/CMFWServer.h"
#include "server/daemon.h"
#include "server/log/log.h"
#include "server/loop/CQelServer.h"
#include "support/scarce_memory.h"

#include <csignal>

namespace {

struct CSupply final : CFeatureSupply {
    bool supply(CQelControl&) override { return !m_bFails; }
    void startWatching() override { ++m_nWatches; }
    const SListState& state() const override { return m_oState; }

    bool m_bFails = false;
    int m_nWatches = 0;
    SListState m_oState;
};

const CTexts vOpenEndpoint = {"OvuMfwInitialize", "OvuMfwRegisterCallback 0", "OvuMfwRegisterCallback 6"};
const CTexts vClear = {"OvuMfwDeregisterCallback 6", "OvuMfwDeregisterCallback 0", "OvuMfwCleanup"};
const std::string sEvent = "QELEVENTSERVER1", sCreate = "osCreateEvent " + sEvent,
                  sLook = "OvuMfwRegisterCallback 8";

CTexts operator+(CTexts left, const CTexts& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

struct CServerTest : CHeartTest {
    void SetUp() override { // the endpoint exists, and is open, as its constructor leaves it
        platform().reset();
        CQelServer::setSupply(m_oSupply);
        ASSERT_EQ(CMFWServer::instance()->init(), 0);
        platform().m_vCalls.clear();
    }

    CSupply m_oSupply;
};

TEST_F(CServerTest, EachWayThroughInitEndsAsItMust) {
    const CTexts opened = vOpenEndpoint + CTexts{sCreate},
                 foundStale = opened + CTexts{"osOpenEvent " + sEvent};
    const CTexts killed = {"osKillEvent 90"}, createdAnew = foundStale + killed + CTexts{sCreate};
    const CTexts notOpened = {"OvuMfwInitialize", "OvuMfwDeregisterCallback 0", "OvuMfwCleanup"};
    const CTexts noMfw = {"1 31146 MFW server init failed rc=7", "1 31001 failed to init message framework."};
    const CTexts noCallback = {"1 31151 register callback failed rc = 7",
                               "1 31002 failed to add message Callback."};
    // What fails, the n-th call of it and how; the result, what is told and the calls made.
    const std::tuple<std::string, int, int, int, CTexts, CTexts> cases[] = {
        {"nothing", 1, 0, 1, {}, opened},
        {"supply", 1, 0, 1, {"1 31000 failed to add the initial feature list."}, opened},
        {"OvuMfwInitialize", 1, 7, 0, noMfw, notOpened},
        {"OvuMfwRegisterCallback", 2, 7, 0, noCallback, vOpenEndpoint},
        {"stale", 1, 0, 1, {}, createdAnew},
        {"osCreateEvent", 1, 32, 0, {"1 31003 failed to create event."}, foundStale + vClear},
        {"stale twice", 1, 0, 0, {"1 31003 failed to create event."}, createdAnew + killed + vClear},
        {"osCreateEvent", 1, 13, 1, {}, opened}};
    for (const auto& [function, nth, error, result, lines, calls] : cases) {
        SetUp();
        platform().fail(function, error, nth);
        m_oSupply = {};
        m_oSupply.m_bFails = function == "supply";
        if (function.starts_with("stale")) {
            platform().m_oEvents[sEvent] = 90;
            platform().fail("osCreateEvent", 13, function == "stale" ? 3 : 2);
        }
        CQelServer server;
        EXPECT_EQ(server.init(), result) << function;
        EXPECT_EQ(takeLines(), lines) << function;
        EXPECT_EQ(platform().m_vCalls, calls + (result == 1 ? CTexts{sLook} : CTexts{})) << function;
        EXPECT_EQ(m_oSupply.m_nWatches, result) << function;
    }
}

TEST_F(CServerTest, ClearGivesBackTheEventOnceAndStopNeedsIt) {
    CQelServer server;
    EXPECT_EQ(server.stop(), 0xFFFFFFFF);
    server.init();
    platform().fail("osSendEvent", 7);
    EXPECT_EQ(server.stop(), 7u);
    EXPECT_EQ(server.stop(), 0u);
    platform().m_vCalls.clear();
    server.clear();
    server.clear();
    EXPECT_EQ(platform().m_vCalls, CTexts{"osKillEvent 1"} + vClear + vClear);
    const std::string told = "2 31152 deregister callback failed rc = 2";
    EXPECT_EQ(takeLines(), (CTexts{told, told, "1 31149 enter MFW server init failed to delCallback."}));
    EXPECT_EQ(server.stop(), 0xFFFFFFFF);
}

TEST_F(CServerTest, LoopTakesOneMessageATurnAndGoesOnWhateverReceivingSays) {
    CQelServer server;
    server.init();
    takeLines();
    EXPECT_EQ(server.checkSignal() + server.processMessages(), 2);
    platform().fail("OvuMfwProcessNextMessage", 7, 2);
    platform().m_fnReceiveEvent = [] { return platform().m_vWaits.size() == 4; };
    EXPECT_EQ(server.run(), 1) << "the result of the last log call";
    EXPECT_EQ(platform().callsOf("OvuMfwProcessNextMessage"), 5);
    EXPECT_EQ(takeLines(),
              (CTexts{"1 31156 OvuMfwProcessNextMessage error = 7", "1 31009 failed to recv MFW message",
                      "4 31010 recv stop event", "4 31120 main thread exited"}));
    platform().fail("OvuMfwProcessNextMessage", 7);
    EXPECT_EQ(server.processMessages(), 0);
}

TEST_F(CServerTest, WhatHasNoCallbackOfItsOwnIsTold) {
    CFakePlatform::handOver(platform().m_oCallbacks.at(0), 9, "stranger");
    EXPECT_EQ(takeLines(), CTexts{"4 31157 DefaultCallback received a message from 1234:Type = 9, "
                                  "userDefinedId = 0, data[ 0 ] = 73, dataLength = 8"});
}

TEST_F(CServerTest, TurnsWaitByTheMillisecondsWithinTheSecond) {
    // Where a turn starts within the second and how long it takes, in microseconds, and its wait.
    const std::tuple<uint32_t, uint32_t, uint32_t> turns[] = {
        {0, 0, 35},    {0, 10000, 25},  {0, 29000, 6},      {0, 30000, 5},     {0, 34000, 5},
        {0, 40000, 5}, {900, 9200, 25}, {995000, 10000, 5}, {999000, 1000, 5}, {0, 1010000, 25}};
    CQelServer server;
    server.init();
    for (const auto& [start, takes, wait] : turns) {
        platform().m_nMicroseconds = uint64_t{1000000} * 1000000 + start;
        platform().m_fnOnReceive = [takes = takes] { platform().m_nMicroseconds += takes; };
        platform().m_fnReceiveEvent = [] { return true; };
        server.run();
        EXPECT_EQ(platform().m_vWaits.back(), wait) << start << "+" << takes;
    }
}

// Something to audit and something to settle stands ready; the log tells when each was done. Whoever asks for
// the time in seconds, as the passes do, takes 10 ms.
TEST_F(CServerTest, AuditThenTimeoutRunBeforeTheMessageOfEvery214thTurnAndInItsTime) {
    CQelServer server;
    server.init();
    const auto prepare = [] {
        empty();
        component("Voice");
        feature(1, 10, EFStatus::fsNewAdd, {"Voice"});
        feature(2, 20, EFStatus::fsNewAdd, {"Nobody"});
    };
    prepare();
    static constexpr SClock oSlow{
        [] { return static_cast<uint32_t>((platform().m_nMicroseconds += 10000) / 1000000); },
        [] {
            return timeval{0, static_cast<suseconds_t>(platform().m_nMicroseconds % 1000000)};
        }};
    useClock(oSlow);
    CTexts passes; // with the turn before whose message they ran
    int turn = 0;
    platform().m_fnOnReceive = [&] {
        ++turn;
        for (const SLogged& line : platform().takeLog()) {
            if (line.m_nEvent == 31107 || line.m_nEvent == 31115) {
                passes.push_back(std::to_string(turn) + " " + std::to_string(line.m_nEvent));
            }
        }
        if (turn == 300) {
            prepare();
        }
    };
    platform().m_fnReceiveEvent = [&] { return turn == 641; };
    server.run();
    EXPECT_EQ(passes, (CTexts{"214 31107", "214 31115", "428 31107", "428 31115"}));
    EXPECT_EQ(platform().m_vWaits[212], 35u);
    EXPECT_LT(platform().m_vWaits[213], 35u);
    EXPECT_EQ(platform().m_nAlive, turn);
    EXPECT_EQ(platform().m_oReceiveWaits, std::set<uint32_t>{50});
}

CFeatureSupply& makeSupply() {
    static std::unique_ptr<CSupply> supply;
    supply = std::make_unique<CSupply>();
    return *supply;
}

// Of the lines since the last call.
std::string numbers() {
    std::string all;
    for (const SLogged& line : platform().takeLog()) {
        all += std::to_string(line.m_nEvent) + " ";
    }
    return all;
}

TEST_F(CServerTest, ADaemonStartsAndEndsInOrder) {
    const std::string start = "31162 31162 31152 ", end = "31010 31120 ",
                      cleared = "31152 31149 31152 31152 31149 ";
    const CTexts asked = {"osGetProcessState QelInstance"};
    const CTexts begun = asked + CTexts{"OvuServiceStartService qelserver 1 1 3"} + vClear +
                         CTexts{"OvuServiceReport reading the feature list 0 600000"};
    const CTexts opened = vOpenEndpoint + CTexts{sCreate, sLook}, ended = CTexts{"osKillEvent 1"} + vClear;
    const CTexts served = begun + opened + CTexts{"OvuServiceReport serving 1 0"} + ended;
    const CTexts notOpened = {"OvuMfwInitialize", "OvuMfwDeregisterCallback 0", "OvuMfwCleanup"};
    // What fails; the status, the lines and the calls.
    const std::tuple<std::string, int, std::string, CTexts> cases[] = {
        {"nothing", 0, start + end, served},
        {"osGetProcessState", 0, start + end, served},
        {"OvuServiceStartService", 0, start + end, served},
        {"OvuMfwInitialize", 1, start + "31146 31001 " + cleared + "31164 ", begun + notOpened + vClear},
        {"other instance", 1, "", asked},
        {"debug", 0, "", asked + vClear + opened + ended}};
    for (const auto& [function, status, lines, calls] : cases) {
        SetUp();
        platform().fail(function, 7);
        platform().m_nProcessState = function == "other instance" ? 1 : 2;
        platform().m_fnReceiveEvent = [] { return true; };
        EXPECT_EQ(runDaemon(function == "debug", makeSupply), status) << function;
        bQelServerDebugFlag = false;
        EXPECT_EQ(numbers(), lines) << function;
        EXPECT_EQ(platform().m_vCalls, calls) << function;
    }
}

using CFreshServerTest = CHeartTest; // each in a process that has no server yet

// Each allocation of the start fails once. The last of all starts has what it needs.
TEST_F(CFreshServerTest, WithoutMemoryAStartFailsAsAWholeAndSaysWhy) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto start = [](size_t nth) {
        platform().m_fnReceiveEvent = [] { return true; };
        const CScarceMemory scarce(nth);
        const int status = runDaemon(false, makeSupply);
        const CPlentyOfMemory plenty;
        std::fprintf(stderr, "%s%zu calls", numbers().c_str(), platform().m_vCalls.size());
        std::_Exit(status);
    };
    const std::pair<int, const char*> expected[] = {{1, "31124 31163 2 calls"},
                                                    {1, "31124 31164 3 calls"},
                                                    {0, "31124 31000 31010 31120 15 calls"},
                                                    {1, "31124 31001 31164 3 calls"},
                                                    {0, "31010 31120 15 calls"}};
    size_t nth = 0;
    for (const auto& [status, told] : expected) {
        ++nth;
        EXPECT_EXIT(start(nth), testing::ExitedWithCode(status), std::string("^31162 31162 ") + told);
    }
}

TEST_F(CFreshServerTest, SignalsAndNoticesEndItWell) {
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const auto start = [](const std::vector<int>& signals, uint32_t notice) {
        std::atexit([] {
            std::fputs(numbers().c_str(), stderr);
            std::fputs(platform().m_vCalls.back().c_str(), stderr);
        });
        platform().m_fnOnMutexCleanup = [] { std::fputs(" mutex", stderr); };
        platform().m_fnOnProcessState = [=] { std::ranges::for_each(signals, raise); };
        platform().m_fnReceiveEvent = [=] { return platform().m_fnNotice(notice), true; };
        runDaemon(false, makeSupply);
    };
    const auto isWell = testing::ExitedWithCode(0);
    for (const int early : {SIGTERM, SIGINT}) {
        EXPECT_EXIT(start({SIGHUP, SIGPIPE, SIGXFSZ, early}, 0), isWell, "^$");
    }
    EXPECT_EXIT(start({}, 0), isWell, "^31162 31162 31161 OvuMfwCleanup mutex$");
    EXPECT_EXIT(start({}, 1), isWell, "^31162 31162 31160 OvuMfwCleanup");
    EXPECT_EXIT(start({}, 2), isWell, "^31162 31162 OvuMfwCleanup");
}

} // namespace
