#include "integration/daemon.h"

#include <filesystem>
#include <fstream>
#include <random>

namespace {

using CExchangeTest = CDaemonTest;

// Names, class 0; reply and shutdown, class 1.
enum : uint32_t { nName = 0, nGetFeature = 2, nStartMonitor = 3, nWriteReply = 5, nShutdown = 6 };

TEST_F(CExchangeTest, EveryByteOfATypicalExchange) {
    writeList(feature(0x101, 5, "Phone") + feature(0x102, 6, "Phone") + feature(0x104, 1, "Phone", true) +
              feature(0x105, 1, "Another"));
    startDaemon();
    openEndpoint();
    // word 0, length, type, sub-type, tag, handle; code, data, extra
    const std::string head = "00000000 00000024 ";
    const auto expect = [&](const std::string& rest) { EXPECT_EQ(receive(), head + rest); };
    const auto say = [&](const std::string& body) { send(body); };

    say(nameMessage(0xA1, "Phone"));
    expect("00000000 00000000 000000a1 00000000 00000000 00000000 00000000");
    say(request(nGetFeature, 0xA2));
    expect("00000000 00000000 000000a2 00000000 00000101 00000005 00000000");
    say(request(nStartMonitor, 0xA3));
    expect("00000000 00000000 000000a3 00000000 00000000 00000000 00000000");
    expect("00000001 00000000 000000a3 00000000 00000102 00000006 00000000");
    say(reply(nWriteReply, 0xA4, 1));
    expect("00000000 00000000 000000a4 00000000 00000102 00000006 00000000");
    expect("00000001 00000000 000000a4 00000000 00000104 00000001 00000000");
    say(reply(nWriteReply, 0xA5, 1));
    expect("00000000 00000000 000000a5 00000000 00000104 00000001 00000000");

    writeList(feature(0x101, 5, "Phone") + feature(0x104, 2, "Phone", true) + feature(0x105, 1, "Another"));
    ASSERT_TRUE(eventually([&] { return featuresInForce().count(0x102) == 0; }));
    say(request(nStartMonitor, 0xA6)); // does not wait for the audit
    expect("00000000 00000000 000000a6 00000000 00000000 00000000 00000000");
    expect("00000001 00000000 000000a6 00000000 00000101 00000005 00000000");
    say(reply(nWriteReply, 0xA7, 1));
    expect("00000000 00000000 000000a7 00000000 00000101 00000005 00000000");
    expect("00000003 00000000 000000a7 00000000 00000102 00000006 00000000");
    say(reply(nWriteReply, 0xA8, 1));
    expect("00000000 00000000 000000a8 00000000 00000102 00000006 00000000");
    expect("00000002 00000000 000000a8 00000000 00000104 00000001 00000002");
    say(reply(nWriteReply, 0xA9, 1));
    expect("00000000 00000000 000000a9 00000000 00000104 00000002 00000000");

    say(reply(nShutdown, 0xAA, 1)); // neither this nor what comes of a stranger is answered
    say(request(nGetFeature, 0xAB));
    say(nameMessage(0xAC, "Phone"));
    expect("00000000 00000000 000000ac 00000000 00000000 00000000 00000000");
    stopDaemon();
}

// Nothing but the loop's own audit can tell of it.
TEST_F(CExchangeTest, NewFeatureReachesAMonitoringComponentByItself) {
    startDaemon();
    openEndpoint();
    ask(nameMessage(0xB1, "Phone"));
    ask(request(nStartMonitor, 0xB2));
    writeList(feature(1, 1, "Nobody") + feature(0x201, 9, "Phone"));
    EXPECT_EQ(receive(), "00000000 00000024 00000001 00000000 000000b2 00000000 00000201 00000009 00000000");
    stopDaemon();
}

TEST_F(CExchangeTest, ListChangesInPlaceAndByRenameAndABadOneChangesNothing) {
    using Features = std::map<uint32_t, uint32_t>;
    startDaemon();
    openEndpoint();
    EXPECT_EQ(featuresInForce(), (Features{{1, 1}}));
    writeList(feature(2, 7, "Phone") + feature(3, 8, "Fax"));
    EXPECT_TRUE(eventually([&] { return featuresInForce() == Features{{2, 7}, {3, 8}}; }));

    std::ofstream(m_sDirectory + "/new.toml") << feature(4, 9, "Phone");
    std::filesystem::rename(m_sDirectory + "/new.toml", m_sDirectory + "/features.toml");
    EXPECT_TRUE(eventually([&] { return featuresInForce() == Features{{4, 9}}; }));

    writeList("\n[[feature]]\ncode = \"five\"\n");
    EXPECT_TRUE(eventually([&] { return countInLog("features.toml:3:") > 0; }));
    EXPECT_EQ(featuresInForce(), (Features{{4, 9}}));
    stopDaemon();
}

// 100,000 features where no sanitizer slows the reading down; as a file beside the message in any case.
TEST_F(CExchangeTest, LongListReachesOAMWhole) {
    std::string list;
    std::map<uint32_t, uint32_t> features;
    for (uint32_t code = 1; code <= QEL_LONG_LIST; ++code) {
        list += feature(code, code % 7 + 1, "Phone");
        features[code] = code % 7 + 1;
    }
    writeList(list);
    ASSERT_NO_FATAL_FAILURE(startDaemon());
    openEndpoint();
    EXPECT_TRUE(featuresInForce() == features);
    ASSERT_FALSE(oReceived.empty());
    EXPECT_EQ(oReceived.back().m_nLength, 24u + 4 + 16 * QEL_LONG_LIST);
    EXPECT_EQ(inHex(oReceived.back().text().substr(0, 28)),
              "00000000 00000000 0000000b 00000000 00000001 00000000 " + inHex(words({QEL_LONG_LIST})));
    stopDaemon();
}

TEST_F(CExchangeTest, HostileBytesAreToldAndDoNoMore) {
    std::vector<std::string> bodies{"",
                                    "x",
                                    std::string(23, '\0'),
                                    std::string(24, '\xFF'),
                                    std::string(200000, '\xFF'),
                                    words({0, 0, 11}),
                                    words({0, 0, 0, 6, 1, 1}),
                                    words({0, 0, 1, 7, 1, 1})};
    std::mt19937 random(5);
    for (uint32_t i = 0; i < 20; ++i) {
        bodies.emplace_back(random() % 600, '\0');
        for (char& byte : bodies.back()) {
            byte = static_cast<char>(random());
        }
        const std::string plausible = words({0, 0, i % 2, static_cast<uint32_t>(random() % 7)});
        bodies.back().replace(0, std::min(bodies.back().size(), plausible.size()), plausible);
    }
    startDaemon();
    openEndpoint();
    bodies.push_back(nameMessage(1, std::string(20, 'N'), 0xFFFFFFFF)); // no NUL; four billion pairs
    bodies.push_back(reply(nWriteReply, 2, 0).substr(0, 32) + std::string(60000, 'T'));
    bodies.push_back(nameMessage(3, "Phone", 0xFFFFFFFF));
    for (const std::string& body : bodies) {
        send(body);
    }
    for (const uint16_t type : std::initializer_list<uint16_t>{0, 7, 9, 65535}) {
        EXPECT_EQ(sendText(m_nHandle, type, "stranger"), 0);
    }
    send(oamRequest(0xEE)); // the last in the queue
    while (receive().find("000000ee") == std::string::npos) {
        ASSERT_TRUE(m_pDaemon->isRunning());
    }
    EXPECT_EQ(countInLog(": cbQelServer received a message from "), bodies.size() + 1);
    EXPECT_EQ(countInLog("Length = 200000\n"), 1u);
    EXPECT_EQ(countInLog(": CompNameMsgType NNNNNNNNNNNNNNNNNNNN\n"), 1u);
    EXPECT_EQ(countInLog(": WriteReplyMsgType (0 " + std::string(60000, 'T') + ")\n"), 1u);
    stopDaemon();
}

} // namespace
