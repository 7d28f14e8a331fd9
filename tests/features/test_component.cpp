// One component: the bytes it is sent, the pairs it holds already, its pages, its own audit.
#include "world.h"

#include "messaging/CMFWServer.h"

namespace {

using enum CCompStatus::ECStatus;
using EFStatus = CFeatureEntry::EFStatus;

class CComponentTest : public CHeartTest {
protected:
    CComponentTest() : m_oVoice(*component(control(), "Voice")) { m_oVoice.m_oHeader.m_nTag = 0x01020304; }

    void holds(const std::vector<CQelPair>& pairs) { m_oVoice.setKnownPairs(pairs); }
    std::string heldPairs() const {
        std::string text;
        for (uint32_t i = 0; i < m_oVoice.m_nKnownCount; ++i) {
            text += std::to_string(m_oVoice.m_aKnown[i].m_nCode) + ":" +
                    std::to_string(m_oVoice.m_aKnown[i].m_nData) + " ";
        }
        return text;
    }
    // "code data", or "-" at the end.
    std::string page() {
        uint32_t code = 0;
        uint32_t data = 0;
        return m_oVoice.getNextFeatureList(&code, &data) ? std::to_string(code) + " " + std::to_string(data)
                                                         : "-";
    }

    CComponent& m_oVoice;
};

TEST_F(CComponentTest, EveryMessageIsThirtySixBytesOfBigEndianWords) {
    const std::string all[] = {
        "00000000 00000024 00000000 00000000 01020304 00000000 000000ce fffffffe 00000000",
        "00000000 00000024 00000001 00000000 01020304 00000000 000000ce fffffffe 00000000",
        "00000000 00000024 00000002 00000000 01020304 00000000 000000ce fffffffe 0a0b0c0d",
        "00000000 00000024 00000003 00000000 01020304 00000000 000000ce fffffffe 00000000",
        "00000000 00000024 00000004 00000000 01020304 00000000 000000ce fffffffe 00000000",
        "00000000 00000024 00000005 00000000 01020304 00000000 00000000 00000000 00000000",
    };
    for (uint32_t type = 0; type <= 5; ++type) {
        EXPECT_EQ(type == 2 ? m_oVoice.sendMessage(type, 206, 0xFFFFFFFE, 0x0A0B0C0D)
                            : m_oVoice.sendMessage(type, 206, 0xFFFFFFFE),
                  0);
        const std::string text = type == 5 ? "4 31121 unknown message type.\n" : "";
        EXPECT_EQ(transcript(), text + "-> 33: " + toHex(fromHex(all[type])) + "\n");
    }
    EXPECT_EQ(CComponent::fillMessageHeader(nullptr, 1, 0, 5), 0);
}

TEST_F(CComponentTest, ASendThatFailsReturnsTheReason) {
    platform().m_oDead.insert(0x21);
    EXPECT_EQ(m_oVoice.sendMessage(1, 7, 70), 111);
    m_oVoice.m_oHeader.m_nHandle = nNoHandle;
    EXPECT_EQ(m_oVoice.sendMessage(1, 7, 70), 6);
    EXPECT_EQ(transcript(), "-> failed\n"
                            "1 31155 OvuMfwSendMessage error = 111\n"
                            "4 31123 MFW cannot sendMessage\n"
                            "-> failed\n"
                            "4 31154 sendMessage invalid handle\n"
                            "4 31123 MFW cannot sendMessage\n");
}

TEST_F(CComponentTest, WhatIsHeldAlreadyIsNotSentButTakenAsAnswered) {
    CFeatureEntry& seven = *feature(control(), 7, 70);
    CCompStatus& status = *record(seven, m_oVoice, csEnabling);
    holds({{6, 60}, {7, 71}, {7, 70}});
    m_oVoice.m_nReplyStatus = 0;
    EXPECT_EQ(m_oVoice.sendMessage(1, 7, 70), 0);
    EXPECT_EQ(status.m_eStatus, csEnabled);
    EXPECT_EQ(m_oVoice.m_nReplyStatus, 1u);
    EXPECT_EQ(heldPairs(), "6:60 7:71 7:70 ");
    EXPECT_EQ(transcript(), "4 31108 already has feature (1, 7, 70) at comp Voice\n"
                            "4 31129 feature (7): got reply ok from comp (Voice) 2\n");
}

TEST_F(CComponentTest, WhatIsSentOfACodeMakesTheHeldPairOutOfDate) {
    const std::vector<CQelPair> pairs{{6, 60}, {7, 70}, {8, 80}, {7, 71}};
    struct {
        uint32_t m_nType, m_nCode, m_nData;
        const char* m_szLeft;
    } const cases[] = {
        {1, 9, 90, "6:60 7:70 8:80 7:71 "}, // another code
        {1, 7, 72, "6:60 7:71 8:80 "},      // other data: the last moves into the first's place
        {0, 7, 70, "6:60 7:71 8:80 "},      // any other type, even of the pair held
        {2, 6, 60, "7:71 7:70 8:80 "},      //
        {4, 8, 80, "6:60 7:70 7:71 "},
    };
    for (const auto& row : cases) {
        holds(pairs);
        m_oVoice.sendMessage(row.m_nType, row.m_nCode, row.m_nData);
        EXPECT_EQ(heldPairs(), row.m_szLeft) << row.m_nType << " " << row.m_nCode;
        EXPECT_EQ(told().size(), 1u);
    }
    holds({{6, 60}});
    m_oVoice.sendMessage(3, 6, 60);
    EXPECT_EQ(heldPairs(), ""); // the last one drops itself
}

TEST_F(CComponentTest, PagesHandOutWhatIsInForceAndCountAsAnswered) {
    CFeatureEntry& gone = *feature(control(), 1, 10, EFStatus::fsDeleted);
    CFeatureEntry& changed = *feature(control(), 2, 20, EFStatus::fsModify);
    CFeatureEntry& unknown = *feature(control(), 3, 30);
    CFeatureEntry& plain = *feature(control(), 4, 40);
    CFeatureEntry& late = *feature(control(), 5, 50, EFStatus::fsDeleted);
    changed.m_nNewData = 21;
    CCompStatus& atGone = *record(gone, m_oVoice, csEnabled);
    CCompStatus& atChanged = *record(changed, m_oVoice, csIdle);
    m_oVoice.addFeatureEntry(nullptr);
    m_oVoice.addFeatureEntry(&unknown);
    CCompStatus& atPlain = *record(plain, m_oVoice, csDisabled);
    record(late, m_oVoice, csIdle);
    platform().advance(5);
    for (const char* expected : {"2 21", "4 40", "-", "-"}) {
        EXPECT_EQ(page(), expected);
    }
    EXPECT_EQ(transcript(), "4 31108 no send, disabled feature (1, 10) at comp Voice\n"
                            "4 31108 moded feature (2, 21) at comp Voice\n"
                            "4 31116  at feature (2 2)\n"
                            "4 31108 Null status feature (3, 30) at comp Voice\n"
                            "4 31108 replied feature (4, 40) at comp Voice\n"
                            "4 31116  at feature (4 5)\n"
                            "4 31108 no send, disabled feature (5, 50) at comp Voice\n"
                            "4 31108 no send, disabled feature (5, 50) at comp Voice\n");
    EXPECT_EQ(atGone.m_eStatus, csDisabled);
    EXPECT_EQ(atChanged.m_eStatus, csModified);
    EXPECT_EQ(atPlain.m_eStatus, csEnabled);
    EXPECT_EQ(atGone.m_tStamp + atChanged.m_tStamp + atPlain.m_tStamp, 3u * 1000005);
    EXPECT_EQ(changed.m_nNewData, 0u); // committed for all
    EXPECT_EQ(changed.m_eStatus, EFStatus::fsActive);
    EXPECT_EQ(plain.m_eStatus, EFStatus::fsActive);
    m_oVoice.rewindFeatureList();
    EXPECT_EQ(page(), "2 21");
}

TEST_F(CComponentTest, TheFirstFeatureThatTakesTheEventIsFound) {
    record(*feature(control(), 1, 10), m_oVoice, csEnabled);
    CFeatureEntry& second = *feature(control(), 2, 20);
    CCompStatus& status = *record(second, m_oVoice, csDisabling);
    EXPECT_EQ(m_oVoice.notifyFeatureArray(), &second);
    EXPECT_EQ(status.m_nDisableTries, 1u);
    EXPECT_EQ(m_oVoice.replyFeatureArray(), &second); // a failure: 0 is not success
    EXPECT_EQ(status.m_eStatus, csDisableFailed);
    EXPECT_EQ(m_oVoice.replyFeatureArray(), nullptr);
    EXPECT_EQ(m_oVoice.delFeatureEntry(&second), 1);
    EXPECT_EQ(m_oVoice.delFeatureEntry(&second), 0);
    EXPECT_EQ(m_oVoice.delFeatureEntry(nullptr), 0);
    EXPECT_EQ(m_oVoice.findFeatureEntry(&second), 0);
    m_oVoice.removeFeatureArray();
    EXPECT_EQ(platform().logged(31117),
              (CTexts{"deleted feature (2, 20) from Voice", "removed feature (1) from Voice"}));
}

} // namespace
