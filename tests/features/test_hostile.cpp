// Messages that lie about themselves, and bytes that are no message at all.
#include "world.h"

#include "messaging/wire.h"

#include <random>

namespace {

using CHostileTest = CHeartTest;

TEST_F(CHostileTest, ANameThatDoesNotFitIsNotStored) {
    CComponent* voice = component(control(), "Voice", 0x20);
    size_t registered = 1;
    for (const size_t length : {17u, 18u, 19u, 20u}) {
        const std::string name(length, 'n');
        for (int i = 0; i < 2; ++i) { // it is not found the second time either
            announce(name, 77, 0x21);
            EXPECT_EQ(platform().logged(31015), CTexts{"CompNameMsgType " + name});
            ASSERT_EQ(control().components().m_vItems.size(), ++registered);
            EXPECT_STREQ(control().components().m_vItems.back()->m_szName, "");
            EXPECT_EQ(told(), CTexts{"33: 0 0 0 0"});
        }
        initList(0x20, name);
        EXPECT_STREQ(voice->m_szName, "Voice");
        told();
    }
    announce("sixteen_letters_", 77, 0x22);
    EXPECT_NE(control().findCompByName("sixteen_letters_"), nullptr);
}

TEST_F(CHostileTest, WithoutANameThereIsNoComponentWithoutAProcessIdThereIs) {
    announce("", 77, 0x21);
    EXPECT_EQ(platform().m_vLog.back(), (SLogged{2, 31016, "Name Msg has no name"}));
    EXPECT_TRUE(control().components().m_vItems.empty());
    EXPECT_TRUE(told().empty());
    announce("Voice", 0, 0x21);
    EXPECT_EQ(platform().logged(31016), CTexts{"Name Msg has no process id"});
    EXPECT_EQ(told(), CTexts{"33: 0 0 0 0"});
}

TEST_F(CHostileTest, NoMorePairsAreTakenThanThereAreAndFit) {
    std::string pairs;
    for (uint32_t i = 0; i < 150; ++i) {
        pairs += words({i + 1, i + 2}); // the answer 0, 0 would make a pair of code 0 out of date
    }
    struct {
        uint32_t m_nClaimed;
        size_t m_nBytes;
        uint32_t m_nTaken;
    } const rows[] = {{0xFFFFFFFF, 150 * 8, 100},
                      {4000000000, 2 * 8, 2},
                      {101, 101 * 8, 100},
                      {100, 100 * 8, 100},
                      {3, 2 * 8 + 7, 2},
                      {2, 150 * 8, 2},
                      {5, 0, 0}};
    for (const auto& row : rows) {
        announce("Voice", 77, 0x21, row.m_nClaimed, pairs.substr(0, row.m_nBytes));
        const CComponent& voice = *control().findCompByMFW(0x21);
        ASSERT_EQ(voice.m_nKnownCount, row.m_nTaken) << row.m_nClaimed;
        for (uint32_t i = 0; i < row.m_nTaken; ++i) {
            ASSERT_TRUE(voice.m_aKnown[i].m_nCode == i + 1 && voice.m_aKnown[i].m_nData == i + 2) << i;
        }
        EXPECT_EQ(platform().logged(31017).size(), row.m_nTaken < row.m_nClaimed ? 1u : 0u);
        EXPECT_EQ(told(), CTexts{"33: 0 0 0 0"});
    }
}

TEST_F(CHostileTest, AReplyTextIsLoggedWholeAndStoredIfItFits) {
    announce("Voice", 77, 0x21);
    const auto send = [](size_t length, bool ends) {
        told();
        receive(header(1, WriteReplyMsgType, 0x21) + words({0, 3}) + std::string(length, 't') +
                (ends ? std::string(1, '\0') : ""));
        EXPECT_EQ(platform().logged(31030), CTexts{"WriteReplyMsgType (3 " + std::string(length, 't') + ")"});
        return std::string(control().findCompByMFW(0x21)->m_szReplyText);
    };
    EXPECT_EQ(send(3, true), "ttt");
    EXPECT_EQ(send(501, true), "ttt");
    EXPECT_EQ(send(600, false), "ttt");
    EXPECT_EQ(send(5000, false), "ttt"); // goes on past the smallest record there can be
    EXPECT_EQ(send(500, false), std::string(500, 't'));
    EXPECT_EQ(control().findCompByMFW(0x21)->m_nReplyStatus, 3u);
}

std::string hostileBody(std::mt19937& random) {
    const auto below = [&random](uint32_t limit) { return static_cast<uint32_t>(random() % limit); };
    std::string body(below(below(16) == 0 ? 3000 : 100), '\0');
    for (char& byte : body) {
        byte = static_cast<char>(below(4) == 0 ? below(256) : 0);
    }
    if (below(8) != 0) { // a head that leads somewhere
        const uint32_t messageClass = below(12) == 0 ? 11 : below(2);
        const std::string head = header(messageClass, below(8), below(6)).substr(0, body.size());
        body.replace(0, head.size(), head);
    }
    return body;
}

TEST_F(CHostileTest, RandomBytesReadAndWriteNothingOutOfBounds) {
    platform().m_bKeepLog = platform().m_bKeepSent = false;
    for (uint32_t seed = 0; seed < 500; ++seed) {
        std::mt19937 random(seed);
        for (const uint32_t code : {0u, 1u, 256u}) {
            feature(control(), code, 10, CFeatureEntry::fsNewAdd, {""});
        }
        for (int i = 0; i < 600; ++i) {
            receive(hostileBody(random));
            if (random() % 16 == 0) {
                platform().advance(6);
                control().audit();
                control().timeout();
            }
        }
        empty(control());
    }
}

} // namespace
