#include "integration/daemon.h"

namespace {

using CExchangeTest = CDaemonTest;

// A body as words in hexadecimal.
std::string inHex(const std::string& body) {
    std::string hex;
    for (size_t i = 0; i < body.size(); ++i) {
        hex += fmt::format("{}{:02x}", i > 0 && i % 4 == 0 ? " " : "", static_cast<uint8_t>(body[i]));
    }
    return hex;
}

TEST_F(CExchangeTest, ATypicalExchangeIsTheSameToTheByte) {
    writeList(feature(0x101, 5, "Phone") + feature(0x102, 6, "Phone") +
              feature(0x104, 1, "Phone", "sourced = true") + feature(0x105, 1, "Another"));
    startDaemon();
    // What is sent, and what comes of it: each as type, tag, code, data, extra.
    using CAnswers = std::vector<std::array<uint32_t, 5>>;
    const auto exchange = [&](const std::string& body, const CAnswers& answers) {
        send(body);
        for (const auto& [type, tag, code, data, extra] : answers) {
            EXPECT_EQ(inHex(receiveText()),
                      fmt::format("00000000 00000024 {:08x} 00000000 {:08x} 00000000 {:08x} {:08x} {:08x}",
                                  type, tag, code, data, extra));
        }
    };
    exchange(nameMessage(0xA1, "Phone"), {{0, 0xA1}});
    exchange(request(nGetFeature, 0xA2), {{0, 0xA2, 0x101, 5}});
    exchange(request(nStartMonitor, 0xA3), {{0, 0xA3}, {1, 0xA3, 0x102, 6}});
    exchange(reply(nWriteReply, 0xA4, 1), {{0, 0xA4, 0x102, 6}, {1, 0xA4, 0x104, 1}});
    exchange(reply(nWriteReply, 0xA5, 1), {{0, 0xA5, 0x104, 1}});

    writeList(feature(0x101, 5, "Phone") + feature(0x104, 2, "Phone", "sourced = true") +
              feature(0x105, 1, "Another"));
    ASSERT_TRUE(eventually([&] { return featuresInForce().count(0x102) == 0; }));
    exchange(request(nStartMonitor, 0xA6), {{0, 0xA6}, {1, 0xA6, 0x101, 5}}); // does not wait for the audit
    exchange(reply(nWriteReply, 0xA7, 1), {{0, 0xA7, 0x101, 5}, {3, 0xA7, 0x102, 6}});
    exchange(reply(nWriteReply, 0xA8, 1), {{0, 0xA8, 0x102, 6}, {2, 0xA8, 0x104, 1, 2}});
    exchange(reply(nWriteReply, 0xA9, 1), {{0, 0xA9, 0x104, 2}});

    exchange(reply(nShutdown, 0xAA, 1), {}); // neither this nor what comes of a stranger is answered
    exchange(request(nGetFeature, 0xAB), {});
    exchange(std::string(200000, '\xFF'), {});
    for (const int type : {7, 9}) {
        EXPECT_EQ(sendText(m_nHandle, static_cast<uint16_t>(type), "stranger"), 0);
    }
    exchange(nameMessage(0xAC, "Phone"), {{0, 0xAC}});
    stopDaemon();
}

TEST_F(CExchangeTest, AChangedListIsTakenAndToldAndABadOneIsNot) {
    setenv("QEL_STATE_DIR", file("state").c_str(), 1);
    startDaemon();
    EXPECT_EQ(featuresInForce(), (Features{{1, 1}}));
    EXPECT_EQ(countInLog(": failed to get Mfw Handle for anchor\n"), 1u) << "a list looks for the well-known";
    writeList(feature(2, 7, "Nobody") + feature(3, 8, "Fax"));
    EXPECT_TRUE(eventually([&] { return featuresInForce() == Features{{2, 7}, {3, 8}}; }));

    // Fax is dropped: withdrawn, and back when it has left the table.
    writeList(feature(2, 7, "Nobody") + feature(3, 8, "Voice"));
    EXPECT_TRUE(eventually([&] { return countInLog(": deleted feature 3 8\n") == 1; }));
    EXPECT_TRUE(eventually([&] { return featuresInForce() == Features{{2, 7}, {3, 8}}; }));

    writeList("\n[[feature]]\ncode = \"five\"\n");
    EXPECT_TRUE(eventually([&] { return countInLog("features.toml:3:") > 0; }));
    EXPECT_EQ(featuresInForce(), (Features{{2, 7}, {3, 8}}));
    stopDaemon();
    startDaemon(); // with the bad one
    EXPECT_EQ(featuresInForce(), (Features{{2, 7}, {3, 8}}));
    stopDaemon();
}

// 100,000 features where no sanitizer slows the reading down; as a file beside the message in any case.
TEST_F(CExchangeTest, ALongListReachesOAMWhole) {
    std::string list;
    Features features;
    for (uint32_t code = 1; code <= QEL_LONG_LIST; ++code) {
        list += feature(code, code % 7 + 1, "Phone");
        features[code] = code % 7 + 1;
    }
    writeList(list);
    startDaemon();
    EXPECT_TRUE(featuresInForce() == features);
    ASSERT_FALSE(oReceived.empty());
    EXPECT_EQ(oReceived.back().text().substr(0, 28), words({0, 0, 11, 0, 1, 0, QEL_LONG_LIST}));
    stopDaemon();
}

// Each has its answer, and leaves what comes behind it unread.
TEST_F(CExchangeTest, EveryOneOfManyThatAnnounceAtOnceIsAnsweredAndHungOnesDelayNobody) {
    writeList(feature(1, 1, "ALL"));
    std::vector<CChild> hung;
    for (uint32_t tag = 0; tag < 128; ++tag) {
        const std::string name = fmt::format("Component{}", tag);
        hung.push_back(startPeer(name, [&](const CLine& line) {
            line.hear();
            const bool isAnswered =
                findDaemon() && ask(nameMessage(tag, name)) == words({0, 36, 0, 0, tag, 0, 0, 0, 0});
            send(request(nStartMonitor, tag));
            line.tell(isAnswered ? 'y' : 'n');
            return hang(line);
        }));
    }
    startDaemon();
    std::ranges::for_each(hung, [](const CChild& component) { component.tell('g'); });
    for (const CChild& component : hung) {
        EXPECT_EQ(component.hear(), 'y');
    }
    ASSERT_TRUE(eventually([&] { return countInLog("recv nQelClientStartMonitorMsgType") == hung.size(); }));
    for (int i = 0; i < 30; ++i) { // long enough for an audit to come in between
        const auto start = std::chrono::steady_clock::now();
        EXPECT_NE(ask(nameMessage(1, "Healthy")), "none");
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    }
    stopDaemon();
}

} // namespace
