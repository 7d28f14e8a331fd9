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
    // word 0, length, type, sub-type, tag, handle; code, data, extra
    const auto expect = [&](const std::string& rest) {
        EXPECT_EQ(inHex(receiveText()), "00000000 00000024 " + rest);
    };

    send(nameMessage(0xA1, "Phone"));
    expect("00000000 00000000 000000a1 00000000 00000000 00000000 00000000");
    send(request(nGetFeature, 0xA2));
    expect("00000000 00000000 000000a2 00000000 00000101 00000005 00000000");
    send(request(nStartMonitor, 0xA3));
    expect("00000000 00000000 000000a3 00000000 00000000 00000000 00000000");
    expect("00000001 00000000 000000a3 00000000 00000102 00000006 00000000");
    send(reply(nWriteReply, 0xA4, 1));
    expect("00000000 00000000 000000a4 00000000 00000102 00000006 00000000");
    expect("00000001 00000000 000000a4 00000000 00000104 00000001 00000000");
    send(reply(nWriteReply, 0xA5, 1));
    expect("00000000 00000000 000000a5 00000000 00000104 00000001 00000000");

    writeList(feature(0x101, 5, "Phone") + feature(0x104, 2, "Phone", "sourced = true") +
              feature(0x105, 1, "Another"));
    ASSERT_TRUE(eventually([&] { return featuresInForce().count(0x102) == 0; }));
    send(request(nStartMonitor, 0xA6)); // does not wait for the audit
    expect("00000000 00000000 000000a6 00000000 00000000 00000000 00000000");
    expect("00000001 00000000 000000a6 00000000 00000101 00000005 00000000");
    send(reply(nWriteReply, 0xA7, 1));
    expect("00000000 00000000 000000a7 00000000 00000101 00000005 00000000");
    expect("00000003 00000000 000000a7 00000000 00000102 00000006 00000000");
    send(reply(nWriteReply, 0xA8, 1));
    expect("00000000 00000000 000000a8 00000000 00000102 00000006 00000000");
    expect("00000002 00000000 000000a8 00000000 00000104 00000001 00000002");
    send(reply(nWriteReply, 0xA9, 1));
    expect("00000000 00000000 000000a9 00000000 00000104 00000002 00000000");

    send(reply(nShutdown, 0xAA, 1)); // neither this nor what comes of a stranger is answered
    send(request(nGetFeature, 0xAB));
    send(nameMessage(0xAC, "Phone"));
    expect("00000000 00000000 000000ac 00000000 00000000 00000000 00000000");
    stopDaemon();
}

TEST_F(CExchangeTest, AChangedListIsTakenAndToldAndABadOneIsNot) {
    startDaemon();
    EXPECT_EQ(featuresInForce(), (Features{{1, 1}}));
    writeList(feature(2, 7, "Nobody") + feature(3, 8, "Fax"));
    EXPECT_TRUE(eventually([&] { return featuresInForce() == Features{{2, 7}, {3, 8}}; }));

    // Fax is dropped: withdrawn, and back when it has left the table.
    writeList(feature(2, 7, "Nobody") + feature(3, 8, "Voice"));
    EXPECT_TRUE(eventually([&] { return countInLog(": deleted feature 3 8\n") == 1; }));
    EXPECT_TRUE(eventually([&] { return featuresInForce() == Features{{2, 7}, {3, 8}}; }));

    writeList("\n[[feature]]\ncode = \"five\"\n");
    EXPECT_TRUE(eventually([&] { return countInLog("features.toml:3:") > 0; }));
    EXPECT_EQ(featuresInForce(), (Features{{2, 7}, {3, 8}}));

    ask(nameMessage(0xB1, "Phone"));
    ask(request(nStartMonitor, 0xB2));
    writeList(feature(0x201, 9, "Phone")); // only the loop's own audit can tell of it
    EXPECT_EQ(receiveText(), words({0, 36, 1, 0, 0xB2, 0, 0x201, 9, 0}));
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

TEST_F(CExchangeTest, HostileBytesAreToldAndStopNothing) {
    const std::vector<std::string> bodies = {
        "",
        std::string(23, '\0'),
        std::string(200000, '\xFF'),
        words({0, 0, 11}),
        words({0, 0, 1, 7, 1, 1}),
        nameMessage(1, std::string(20, 'N'), 0xFFFFFFFF), // no NUL; four billion pairs
        reply(nWriteReply, 2, 0).substr(0, 32) + std::string(60000, 'T'),
    };
    startDaemon();
    for (const std::string& body : bodies) {
        send(body);
    }
    for (const int type : {0, 7, 9, 65535}) {
        EXPECT_EQ(sendText(m_nHandle, static_cast<uint16_t>(type), "stranger"), 0);
    }
    send(oamRequest(0xEE)); // the last in the queue
    const std::string last = words({0, 0, 11, 0, 0xEE, 0});
    for (std::string text; !text.starts_with(last); text = receiveText()) {
        ASSERT_NE(text, "none");
    }
    EXPECT_EQ(countInLog(": cbQelServer received a message from "), bodies.size() + 2);
    EXPECT_EQ(countInLog("Type = 9, userDefinedId = 0, data[ 0 ] = 73, dataLength = 8\n"), 1u);
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
