#include "integration/daemon.h"

#include <random>

namespace {

using CExchangeTest = CDaemonTest;

TEST_F(CExchangeTest, AByteOfATypicalExchangeIsAnother) {
    writeList(feature(0x101, 5, "Phone") + feature(0x102, 6, "Phone") +
              feature(0x104, 1, "Phone", "sourced = true") + feature(0x105, 1, "Another"));
    startDaemon();
    // word 0, length, type, sub-type, tag, handle; code, data, extra
    const auto expect = [&](const std::string& rest) { EXPECT_EQ(receive(), "00000000 00000024 " + rest); };

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

TEST_F(CExchangeTest, ListChangeIsMissedOrABadOneTakenOrNobodyTold) {
    startDaemon();
    EXPECT_EQ(featuresInForce(), (Features{{1, 1}}));
    writeList(feature(2, 7, "Nobody") + feature(3, 8, "Fax"));
    EXPECT_TRUE(eventually([&] { return featuresInForce() == Features{{2, 7}, {3, 8}}; }));

    std::ofstream(file("new.toml")) << feature(4, 9, "Nobody");
    std::filesystem::rename(file("new.toml"), file("features.toml"));
    EXPECT_TRUE(eventually([&] { return featuresInForce() == Features{{4, 9}}; }));

    writeList("\n[[feature]]\ncode = \"five\"\n");
    EXPECT_TRUE(eventually([&] { return countInLog("features.toml:3:") > 0; }));
    EXPECT_EQ(featuresInForce(), (Features{{4, 9}}));

    ask(nameMessage(0xB1, "Phone"));
    ask(request(nStartMonitor, 0xB2));
    writeList(feature(4, 9, "Nobody") +
              feature(0x201, 9, "Phone")); // only the loop's own audit can tell of it
    EXPECT_EQ(receive(), "00000000 00000024 00000001 00000000 000000b2 00000000 00000201 00000009 00000000");
    stopDaemon();
}

// 100,000 features where no sanitizer slows the reading down; as a file beside the message in any case.
TEST_F(CExchangeTest, LongListIsCutOnItsWayToOAM) {
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
    EXPECT_EQ(oReceived.back().m_nLength, 24u + 4 + 16 * QEL_LONG_LIST);
    EXPECT_EQ(inHex(oReceived.back().text().substr(0, 28)),
              "00000000 00000000 0000000b 00000000 00000001 00000000 " + inHex(words({QEL_LONG_LIST})));
    stopDaemon();
}

TEST_F(CExchangeTest, HostileBytesStopTheDaemonOrAreNotTold) {
    std::vector<std::string> bodies{"",
                                    "x",
                                    std::string(23, '\0'),
                                    std::string(200000, '\xFF'),
                                    words({0, 0, 11}),
                                    words({0, 0, 0, 6, 1, 1}),
                                    words({0, 0, 1, 7, 1, 1})};
    std::mt19937 random(5);
    for (uint32_t i = 0; i < 20; ++i) { // of any content behind a class and a sub-type that there are
        bodies.push_back(words({0, 0, i % 2, static_cast<uint32_t>(random() % 7)}));
        std::generate_n(std::back_inserter(bodies.back()), random() % 600,
                        [&] { return static_cast<char>(random()); });
    }
    bodies.push_back(nameMessage(1, std::string(20, 'N'), 0xFFFFFFFF)); // no NUL; four billion pairs
    bodies.push_back(reply(nWriteReply, 2, 0).substr(0, 32) + std::string(60000, 'T'));
    startDaemon();
    for (const std::string& body : bodies) {
        send(body);
    }
    for (const int type : {0, 7, 9, 65535}) {
        EXPECT_EQ(sendText(m_nHandle, static_cast<uint16_t>(type), "stranger"), 0);
    }
    send(oamRequest(0xEE)); // the last in the queue
    for (std::string text = "none"; text.find("000000ee") == std::string::npos; text = receive()) {
        ASSERT_NE(text, "");
    }
    EXPECT_EQ(countInLog(": cbQelServer received a message from "), bodies.size() + 2);
    EXPECT_EQ(countInLog("Length = 200000\n"), 1u);
    EXPECT_EQ(countInLog(": CompNameMsgType NNNNNNNNNNNNNNNNNNNN\n"), 1u);
    EXPECT_EQ(countInLog(": WriteReplyMsgType (0 " + std::string(8192, 'T') + ")\n"), 1u); // its beginning
    stopDaemon();
}

class CManyTest : public CDaemonTest {
protected:
    // Starts so many components, then the daemon; all say `say` at the same moment, which tells whether it
    // went well, and read nothing more.
    void startAll(uint32_t count, const std::function<bool(uint32_t tag, const std::string& name)>& say) {
        for (uint32_t i = 0; i < count; ++i) {
            const std::string name = fmt::format("Component{}", i);
            m_vComponents.push_back(startPeer(name, [&](const CLine& line) {
                line.hear();
                line.tell(findDaemon() && say(0x100 + i, name) ? 'y' : 'n');
                return hang(line);
            }));
        }
        startDaemon();
        for (const CChild& component : m_vComponents) {
            component.tell('g');
        }
        for (const CChild& component : m_vComponents) {
            EXPECT_EQ(component.hear(), 'y');
        }
    }

    std::vector<CChild> m_vComponents;
};

TEST_F(CManyTest, OneOfSixtyFourThatAnnounceAtTheSameMomentGetsNoAnswer) {
    startAll(64, [this](uint32_t tag, const std::string& name) {
        return ask(nameMessage(tag, name)) == inHex(words({0, 36, 0, 0, tag, 0, 0, 0, 0}));
    });
    stopDaemon();
}

TEST_F(CManyTest, TwoHundredThatNeverReadDelayAHealthyOne) {
    writeList(feature(1, 1, "ALL"));
    startAll(200, [this](uint32_t tag, const std::string& name) {
        return sendText(m_nHandle, 6, nameMessage(tag, name)) == 0;
    });
    ASSERT_TRUE(eventually([&] { return countInLog(": CompNameMsgType Component") == 200; }));
    for (int i = 0; i < 30; ++i) { // long enough for an audit to come in between
        const auto start = std::chrono::steady_clock::now();
        EXPECT_NE(ask(nameMessage(1, "Healthy")), "");
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::seconds(1));
    }
    stopDaemon();
}

} // namespace
