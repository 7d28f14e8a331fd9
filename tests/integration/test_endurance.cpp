#include "integration/daemon.h"

#include <chrono>
#include <csignal>
#include <cstdlib>
#include <filesystem>
#include <random>
#include <sstream>
#include <unistd.h>

namespace {

using CEnduranceTest = CDaemonTest;

enum : uint32_t { nGetFeature = 2, nStartMonitor = 3, nWriteReply = 5, nShutdown = 6 };

TEST_F(CEnduranceTest, SixtyFourThatAnnounceAtTheSameMomentAreAllAnswered) {
    startDaemon();
    std::vector<CChild> components;
    for (uint32_t i = 0; i < 64; ++i) {
        const std::string name = "Component" + std::to_string(i);
        components.push_back(startPeer(name, [&, i](const CLine& line) {
            line.hear();
            const std::string answer = ask(nameMessage(0x100 + i, name));
            const bool isMine = answer == inHex(words({0, 36, 0, 0, 0x100 + i, 0, 0, 0, 0}));
            line.tell(isMine ? 'y' : 'n');
            return 0;
        }));
    }
    for (const CChild& component : components) {
        component.tell('g');
    }
    for (const CChild& component : components) {
        EXPECT_EQ(component.hear(), 'y');
    }
    stopDaemon();
}

TEST_F(CEnduranceTest, TwoHundredThatNeverReadDelayNobody) {
    writeList(feature(1, 1, "ALL"));
    startDaemon();
    std::vector<CChild> hung;
    for (int i = 0; i < 200; ++i) {
        const std::string name = "Hung" + std::to_string(i);
        hung.push_back(startPeer(name, [&](const CLine& line) {
            send(nameMessage(1, name));
            return hang(line);
        }));
    }
    ASSERT_TRUE(eventually([&] { return countInLog(": CompNameMsgType Hung") == 200; }));
    openEndpoint();
    for (int i = 0; i < 30; ++i) { // long enough for an audit to come in between
        const auto start = std::chrono::steady_clock::now();
        EXPECT_NE(ask(nameMessage(1, "Healthy")), "");
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    }
    stopDaemon();
}

// Keeps the daemon at work with whatever a component can say, and reads only now and then.
int flood(const CLine&) {
    std::mt19937 random(7);
    for (;;) {
        uint32_t daemon = 0;
        if (OvuMfwGetProcessHandle("qelserver", &daemon) != 0) {
            usleep(1000);
            continue;
        }
        const uint32_t tag = static_cast<uint32_t>(random());
        const std::string bodies[] = {nameMessage(tag, "Phone"),   request(nGetFeature, tag),
                                      request(nStartMonitor, tag), reply(nWriteReply, tag, tag % 2),
                                      reply(nShutdown, tag, 0),    oamRequest(tag)};
        sendText(daemon, 6, bodies[random() % std::size(bodies)]);
        OvuMfwProcessNextMessage(1);
        oReceived.clear();
    }
}

// QEL_TEST_SIGTERMS in the environment: how often, 60 by default.
TEST_F(CEnduranceTest, TerminatedAtAnyMomentItExitsWithZero) {
    const char* times = std::getenv("QEL_TEST_SIGTERMS");
    writeList(feature(1, 1, "Phone") + feature(2, 2, "Phone", true) + feature(3, 3, "ALL"));
    const CChild one = startPeer("one", flood);
    const CChild other = startPeer("other", flood);
    std::mt19937 random(11);
    for (int i = times != nullptr ? std::atoi(times) : 60; i > 0; --i) {
        m_pDaemon = run({"-run"});
        ASSERT_TRUE(eventually([this] { return countInLog(": OvuServiceStartService return 0\n") == 1; }));
        usleep(static_cast<useconds_t>(random() % 120000));
        m_pDaemon->signal(random() % 4 == 0 ? SIGINT : SIGTERM);
        ASSERT_EQ(m_pDaemon->wait(), 0) << m_pDaemon->output();
        ASSERT_EQ(m_pDaemon->output(), "");

        std::istringstream lines(log());
        for (std::string text; std::getline(lines, text);) { // of two threads at the end
            ASSERT_TRUE(isLike(text, std::string(szStamp) + "*")) << text;
        }
        EXPECT_EQ(countInLog(": the Callback event is 'OVU_CALLBACK_NOTIFY_SERVICE_STOP'\n"), 1u);
        std::filesystem::remove(m_sDirectory + "/log");
    }
}

} // namespace
