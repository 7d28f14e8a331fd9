#include "ctl/COamQuery.h"
#include "ctl/describe.h"
#include "ctl/events.h"
#include "fake/fake_platform.h"

#include <gtest/gtest.h>

using CBytes = std::vector<uint8_t>;

static CBytes bytes(std::string_view hex) {
    std::string text = fromHex(hex);
    return CBytes(text.begin(), text.end());
}

TEST(ActiveList, IsWalkedByItsLengthNotByItsCount) {
    CBytes answer = bytes("00000000 00000000 0000000b 00000000 00000001 00000000 00000003" // three slots
                          "00000003 00000009 00000100 00000002 6869 00000002 00000007 00000005 00000000");
    auto features = parseActiveList(answer.data(), answer.size());
    ASSERT_TRUE(features);
    ASSERT_EQ(features->size(), 2u);
    EXPECT_EQ(features->at(0).m_nData, 256u);
    EXPECT_EQ(features->at(1).m_nCode, 7u);
    for (size_t length = 0; length < answer.size(); ++length) { // whole only at a record's end
        CBytes part(answer.data(), answer.data() + length);
        EXPECT_EQ(parseActiveList(part.data(), length).has_value(), length == 28 || length == 46) << length;
    }
    std::fill_n(&answer[40], 4, 0xFF); // a text of 4 GB
    EXPECT_FALSE(parseActiveList(answer.data(), answer.size()));
}

TEST(Describe, HostileBytesAreNeitherPrintedRawNorReadPastTheEnd) {
    CBytes modify = bytes("00000000 00000024 00000002 00000000 00000000 00000000 00000001 00000002 00000003");
    const CFeatureNames names = CFeatureNames::parse("1,a\x1bname");
    EXPECT_EQ(describeReceived(modify.data(), 36, names).m_sDetail, "code 1 data 2 new data 3 \"a?name\"");
    EXPECT_EQ(describeReceived(modify.data(), 35).m_sKind, "unknown");
    CBytes announcement(60);                    // with one pair
    std::fill_n(&announcement[28], 20, '\033'); // a name without an end
    std::fill_n(&announcement[48], 4, 0xFF);    // 4 billion pairs
    EXPECT_EQ(describeSent(announcement.data(), 60).m_sDetail, "as ???????????????????? pid 0 holding 0:0");
    for (size_t length = 0; length < announcement.size(); ++length) {
        CBytes part(announcement.data(), announcement.data() + length);
        EXPECT_FALSE(describeSent(part.data(), length).m_sKind.empty());
    }
}

// A line as the format prints it, with values that look like parts of a line.
static std::string printed(std::string_view format) {
    std::string line;
    for (size_t i = 0; i < format.size(); ++i) {
        if (format[i] != '%') {
            line += format[i];
            continue;
        }
        i = format.find_first_not_of("lz", i + 1);
        line += format[i] == 's' ? "/a.b: (c 1)" : format[i] == 'd' ? "-12" : "12";
    }
    return line;
}

TEST(Explain, EachLineIsFoundAmongAllWithItsValues) {
    size_t lines = 0;
    for (uint32_t number = 31000; number < 31500; ++number) {
        for (const SEventMatch& event : findEvents(number)) {
            const std::string line =
                "Nov 1 10:00:00 host QelServerD.log[1]: " + printed(event.m_pEvent->m_sText);
            bool isFound = false;
            for (const SEventMatch& found : findEvents(line)) {
                isFound = isFound || found.m_pEvent == event.m_pEvent;
            }
            EXPECT_TRUE(isFound) << line;
            ++lines;
        }
    }
    EXPECT_GT(lines, 100u);
    const auto found = findEvents("feature (7): got reply failed from comp (a: b) 3");
    ASSERT_EQ(found.size(), 1u);
    EXPECT_EQ(found[0].m_vValues, (std::vector<std::string_view>{"7", "a: b", "3"}));
    EXPECT_TRUE(findEvents("hello").empty());
    EXPECT_TRUE(findNearEvents("hello").empty());
    EXPECT_TRUE(findNearEvents(5).empty());
    EXPECT_EQ(findNearEvents("reply failed").at(0).m_pEvent->m_nNumber, 31130u);
}
