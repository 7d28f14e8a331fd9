#include "features/CComponent.h"
#include "features/CFeatureEntry.h"
#include "features/CQelControl.h"
#include "messaging/CMFWServer.h"
#include "server/CQelServer.h"
#include "server/stand_ins.h"

#include <map>

namespace {

const Lines vOpenEndpoint = {"OvuMfwInitialize", "OvuMfwRegisterCallback 0", "OvuMfwRegisterCallback 6"};
const Lines vClear = {"OvuMfwDeregisterCallback 6", "OvuMfwDeregisterCallback 0", "OvuMfwCleanup"};
const std::string sCreate = "osCreateEvent QELEVENTSERVER1";
const std::string sOpen = "osOpenEvent QELEVENTSERVER1";

Lines operator+(Lines left, const Lines& right) {
    left.insert(left.end(), right.begin(), right.end());
    return left;
}

class CServerTest : public CServerTestBase {
protected:
    // The endpoint exists, and is open, as its constructor leaves it.
    void SetUp() override {
        CServerTestBase::SetUp();
        ASSERT_EQ(CMFWServer::instance()->init(), 0);
        m_oPlatform.m_vCalls.clear();
    }
    void leaveStaleEvent() { m_oPlatform.m_oEvents["QELEVENTSERVER1"] = 90; }
};

using CFreshServerTest = CServerTestBase;

TEST_F(CServerTest, EachWayThroughInitEndsAsItMust) {
    const Lines opened = vOpenEndpoint + Lines{sCreate};
    const Lines foundStale = opened + Lines{sOpen};
    const Lines createdAnew = foundStale + Lines{"osKillEvent 90", sCreate};
    const struct {
        const char* m_szWhat;
        std::function<void()> m_fnArrange;
        int m_nResult;
        Lines m_vLines;
        Lines m_vCalls;
    } cases[] = {{"all well", [] {}, 1, {}, opened},
                 {"no list",
                  [] { bSupplyFails = true; },
                  1,
                  {"1 31000 failed to add the initial feature list."},
                  opened},
                 {"no framework",
                  [&] { m_oPlatform.fail("OvuMfwInitialize", 7); },
                  0,
                  {"1 31146 MFW server init failed rc=7", "1 31001 failed to init message framework."},
                  {"OvuMfwInitialize", "OvuMfwDeregisterCallback 0", "OvuMfwCleanup"}},
                 {"no dispatcher",
                  [&] { m_oPlatform.fail("OvuMfwRegisterCallback", 7, 2); },
                  0,
                  {"1 31151 register callback failed rc = 7", "1 31002 failed to add message Callback."},
                  vOpenEndpoint},
                 {"stale", [&] { leaveStaleEvent(); }, 1, {}, createdAnew},
                 {"stale, cannot be opened",
                  [&] { m_oPlatform.fail("osCreateEvent", 32); },
                  0,
                  {"1 31003 failed to create event."},
                  foundStale + vClear},
                 {"stale, comes back",
                  [&] { leaveStaleEvent(), m_oPlatform.fail("osCreateEvent", 32, 2); },
                  0,
                  {"1 31003 failed to create event."},
                  {}}, // whether the old handle is killed once more does not matter
                 {"other failure", [&] { m_oPlatform.fail("osCreateEvent", 13); }, 1, {}, opened}};
    for (const auto& c : cases) {
        SCOPED_TRACE(c.m_szWhat);
        SetUp();
        c.m_fnArrange();
        CQelServer server;
        EXPECT_EQ(server.init(), c.m_nResult);
        EXPECT_EQ(takeLines(), c.m_vLines);
        if (!c.m_vCalls.empty()) {
            EXPECT_EQ(m_oPlatform.m_vCalls, c.m_vCalls);
        }
    }
}

TEST_F(CServerTest, ClearGivesBackTheEventOnceAndStopNeedsIt) {
    CQelServer server;
    EXPECT_EQ(server.stop(), 0xFFFFFFFF);
    server.init();
    m_oPlatform.fail("osSendEvent", 7);
    EXPECT_EQ(server.stop(), 7u);
    EXPECT_EQ(server.stop(), 0u);
    m_oPlatform.m_vCalls.clear();
    server.clear();
    EXPECT_EQ(m_oPlatform.m_vCalls, Lines{"osKillEvent 1"} + vClear);
    server.clear();
    EXPECT_EQ(m_oPlatform.m_vCalls, Lines{"osKillEvent 1"} + vClear + vClear);

    m_oPlatform.fail("osCreateEvent", 13); // no event held: nothing to send, nothing to kill
    EXPECT_EQ(server.init(), 1);
    EXPECT_EQ(server.stop(), 0xFFFFFFFF);
}

TEST_F(CFreshServerTest, WithoutMemoryEachObjectIsToldMissing) {
    inFreshProcess([this] {
        CQelServer server; // nothing but this exists yet
        nAllocationsLeft = 0;
        EXPECT_EQ(CQelServer::instance(), nullptr);
        EXPECT_EQ(server.processMessages(), 0);
        EXPECT_EQ(server.checkSignal(), 0);
        EXPECT_EQ(server.init(), 0);
        const std::string none = "1 31124 failed to new obj";
        EXPECT_EQ(takeLines(), (Lines{none, none, "1 31122 cannot get message framework", none,
                                      "2 31004 failed to find control object.", none,
                                      "1 31000 failed to add the initial feature list.", none,
                                      "1 31001 failed to init message framework."}));
        nAllocationsLeft = -1;
        EXPECT_EQ(server.init(), 1);
        EXPECT_EQ(m_oPlatform.callsOf("OvuMfwInitialize"), 2) << "by the constructor, and once more";
    });
}

TEST_F(CServerTest, LoopGoesOnWhateverReceivingSays) {
    CQelServer server;
    server.init();
    m_oPlatform.fail("OvuMfwProcessNextMessage", 7);
    EXPECT_EQ(server.processMessages(), 0);
    EXPECT_EQ(server.processMessages(), 1) << "none pending";
    EXPECT_EQ(takeLines(),
              (Lines{"1 31156 OvuMfwProcessNextMessage error = 7", "1 31009 failed to recv MFW message"}));
    m_oPlatform.deliver(6, std::string(24, '\xFF'));
    m_oPlatform.deliver(6, std::string(24, '\xFF'));
    EXPECT_EQ(server.processMessages(), 1);
    EXPECT_EQ(m_oPlatform.m_vIncoming.size(), 1u) << "one message a turn";
    takeLines();

    m_oPlatform.fail("OvuMfwProcessNextMessage", 7, 1, 5);
    m_oPlatform.m_fnReceiveEvent = [this] { return m_oPlatform.m_vWaits.size() == 5; };
    EXPECT_EQ(server.run(), 1) << "the result of the last log call";
    const Lines lines = takeLines();
    ASSERT_EQ(lines.size(), 12u);
    EXPECT_EQ(Lines(lines.end() - 2, lines.end()),
              (Lines{"4 31010 recv stop event", "4 31120 main thread exited"}));
}

TEST_F(CServerTest, TurnsWaitByTheMillisecondsWithinTheSecond) {
    const struct {
        uint32_t m_nStartUs; // within the second
        uint32_t m_nTakesUs;
        uint32_t m_nWait;
    } turns[] = {{0, 0, 35},        {0, 10000, 25},  {0, 29000, 6},   {0, 30000, 5},
                 {0, 34000, 5},     {0, 40000, 5},   {900, 9200, 25}, {995000, 10000, 5},
                 {999000, 1000, 5}, {0, 1010000, 25}}; // a whole second more is not seen
    CQelServer server;
    server.init();
    const uint64_t second = m_oPlatform.m_nMicroseconds;
    size_t turn = 0;
    m_oPlatform.m_nMicroseconds = second + turns[0].m_nStartUs;
    m_oPlatform.m_fnOnReceive = [&] { m_oPlatform.m_nMicroseconds += turns[turn].m_nTakesUs; };
    m_oPlatform.m_fnReceiveEvent = [&] {
        if (++turn == std::size(turns)) {
            return true;
        }
        m_oPlatform.m_nMicroseconds = second + turns[turn].m_nStartUs;
        return false;
    };
    server.run();
    ASSERT_EQ(m_oPlatform.m_vWaits.size(), std::size(turns));
    for (size_t i = 0; i < std::size(turns); ++i) {
        EXPECT_EQ(m_oPlatform.m_vWaits[i], turns[i].m_nWait) << "turn " << i + 1;
    }
}

// Something to audit and something to settle always stands ready; the log tells when each was done.
TEST_F(CServerTest, AuditThenTimeoutRunBeforeTheMessageOfEvery214thTurn) {
    inFreshProcess([this] {
        CQelServer server;
        server.init();
        CQelControl& control = *CQelControl::instance();
        auto* comp = new CComponent(&control);
        comp->init({0, 0, 0, 0, 1, 0x77}, "Voice", 0, nullptr);
        comp->m_bMonitor = 1;
        control.addComponent(comp);
        std::map<int, std::string> passes; // what ran in a turn before its message was received
        int turn = 0;
        m_oPlatform.m_fnOnReceive = [&] {
            ++turn;
            for (const SLogged& line : m_oPlatform.takeLog()) {
                passes[turn] += line.m_nEvent == 31107 ? "audit " : line.m_nEvent == 31115 ? "timeout " : "";
            }
            if (turn == 1 || turn == 300) {
                for (const char* name : {"Voice", "Nobody"}) { // to be told; settled at once
                    auto* entry = new CFeatureEntry(&control);
                    entry->m_nCode = static_cast<uint32_t>(turn);
                    entry->addCompName(name);
                    control.addFeature(entry);
                }
            }
        };
        m_oPlatform.m_fnReceiveEvent = [&] { return turn == 430; };
        server.run();
        EXPECT_EQ(passes, (std::map<int, std::string>{{214, "audit timeout "}, {428, "audit timeout "}}));
    });
}

// Whatever call fails, and however late: the daemon says so or goes on, and can be cleared and started again.
TEST_F(CServerTest, AnyFailingCallLeavesAServerThatStartsAgain) {
    for (const char* function :
         {"OvuMfwInitialize", "OvuMfwGetProcessHandle", "OvuMfwRegisterCallback", "OvuMfwDeregisterCallback",
          "OvuMfwCleanup", "OvuMfwProcessNextMessage", "osCreateEvent", "osOpenEvent", "osKillEvent"}) {
        for (int n = 1;; ++n) {
            SetUp();
            leaveStaleEvent();
            const int before = m_oPlatform.callsOf(function);
            m_oPlatform.fail(function, 7, n);
            CQelServer server;
            server.clear();
            const bool isUp = server.init() == 1;
            if (isUp) {
                m_oPlatform.m_fnReceiveEvent = [this] { return m_oPlatform.m_vWaits.size() >= 3; };
                EXPECT_EQ(server.run(), 1);
            } else {
                EXPECT_EQ(takeLines().back().substr(0, 4), "1 31") << function << n;
            }
            server.clear();
            if (m_oPlatform.callsOf(function) - before < n) {
                break;
            }
            m_oPlatform.fail(function, 0);
            EXPECT_EQ(server.init(), 1) << function << n;
            ASSERT_LT(n, 50) << function;
        }
    }
}

} // namespace
