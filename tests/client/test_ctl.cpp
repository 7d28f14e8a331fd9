#include "ctl/CFeatureNames.h"
#include "ctl/COamQuery.h"
#include "ctl/describe.h"
#include "messaging/wire.h"

#include <cstring>
#include <gtest/gtest.h>

namespace {

using CBytes = std::vector<uint8_t>;

// An OAM answer of three slots and two records, the first with a text of two bytes.
const CBytes oAnswer = {
    0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 11, 0, 0, 0, 0, 0,   0,   0, 1, 0, 0, 0, 0, // header
    0, 0, 0, 3,                                                                  // slots
    0, 0, 0, 3, 0, 0, 0, 9, 0, 0, 1, 0,  0, 0, 0, 2, 'h', 'i',                   // record
    0, 0, 0, 2, 0, 0, 0, 7, 0, 0, 0, 5,  0, 0, 0, 0,
};

} // namespace

TEST(ActiveList, WalkedByTheCountOrPastTheEnd) {
    auto features = parseActiveList(oAnswer.data(), oAnswer.size());
    ASSERT_TRUE(features && features->size() == 2);
    EXPECT_EQ(features->at(0).m_nData, 256u);
    EXPECT_EQ(features->at(1).m_nCode, 7u);
    for (size_t length = 0; length < oAnswer.size(); ++length) { // whole only at a record's end
        CBytes part(oAnswer.begin(), oAnswer.begin() + static_cast<std::ptrdiff_t>(length));
        EXPECT_EQ(parseActiveList(part.data(), length).has_value(), length == 28 || length == 46) << length;
    }
    CBytes hostile = oAnswer;
    std::memset(&hostile[40], 0xFF, 4); // a text of 4 GB
    EXPECT_FALSE(parseActiveList(hostile.data(), hostile.size()));
}

TEST(FeatureNames, LinesReadOtherwiseThanByTheDaemon) {
    auto names =
        CFeatureNames::parse("101,Conference Calling\r 7,Hunt Groups,extra\n42\n12,First\n,12,,Second \n"
                             "# note,Zero\n-1,Last\n13abc,Digits\n");
    EXPECT_EQ(names.find(101), "Conference Calling");
    EXPECT_EQ(names.find(7), "Hunt Groups");
    EXPECT_EQ(names.find(42), "");
    EXPECT_EQ(names.find(12), "Second ");
    EXPECT_EQ(names.find(0), "Zero");
    EXPECT_EQ(names.find(4294967295u), "Last");
    EXPECT_EQ(names.find(13), "Digits");
}

TEST(Describe, HostileBytesPrintedRawOrReadPastTheEnd) {
    CQelServerMessage message;
    message.m_oHeader.m_nType = nQelServerModifyMsgType;
    message.m_nCode = 1;
    message.m_nData = 2;
    message.m_nExtra = 3;
    CBytes bytes(sizeof message);
    std::memcpy(bytes.data(), &message, sizeof message);
    EXPECT_EQ(describeReceived(bytes.data(), bytes.size()).m_sDetail, "code 1 data 2 new data 3");
    EXPECT_EQ(describeReceived(bytes.data(), 35).m_sKind, "unknown");

    CQelNameMessage name;
    name.m_nPairCount = 0xFFFFFFFF; // with one pair behind it, and a name without an end
    std::memset(name.m_szName, '\033', sizeof name.m_szName);
    CBytes announcement(sizeof name + sizeof(CQelPair));
    std::memcpy(announcement.data(), &name, sizeof name);
    EXPECT_EQ(describeSent(announcement.data(), announcement.size()).m_sDetail,
              "as ???????????????????? pid 0 holding 0:0");
    for (size_t length = 0; length < announcement.size(); ++length) {
        CBytes part(announcement.begin(), announcement.begin() + static_cast<std::ptrdiff_t>(length));
        EXPECT_FALSE(describeSent(part.data(), length).m_sKind.empty());
    }
}
