#include "base/CString.h"

#include <gtest/gtest.h>

namespace {

TEST(CStringTest, TokenizeDropsEmptyTokensAndReturnsTheRestFromEachDelimiterOnDemand) {
    using Tokens = std::vector<std::string>;
    const struct {
        const char* m_szText;
        const char* m_szDelimiters;
        int m_nFlag;
        Tokens m_vTokens;
    } cases[] = {{"a,,b,", ",", 0, {"a", "b"}},
                 {",a", ",", 0, {"a"}},
                 {",,,", ",", 0, {}},
                 {"", ",", 0, {}},
                 {"a,b", nullptr, 0, {}},
                 {"a,b", "", 0, {"a,b"}},
                 {"x\r\ny", "\r\n", 0, {"x", "y"}},
                 {"x\r\ny", "\n", 0, {"x\r", "y"}},
                 {"a\377b", "\377", 0, {"a", "b"}},
                 {"a,b", ",", 1, {"a", ",b", "b"}},
                 {"a,,b,", ",", 7, {"a", ",,b,", ",b,", "b", ","}}};
    for (const auto& c : cases) {
        Tokens tokens;
        const auto flag = static_cast<CString::EReturnTokensFlag>(c.m_nFlag);
        for (const CString& token : CString(c.m_szText).tokenize(c.m_szDelimiters, flag)) {
            tokens.emplace_back(token.c_str());
        }
        EXPECT_EQ(tokens, c.m_vTokens) << c.m_szText;
    }
}

TEST(CStringTest, CompareIgnoresCaseAndWhatOnlyOneTextHas) {
    const struct {
        const char* m_szOne;
        const char* m_szOther;
        int m_nResult;
    } cases[] = {{"Hello", "hELLO", 0},
                 {"ab", "ABC", 0},
                 {"ABC", "ab", 0},
                 {"", "x", 0},
                 {"x", "", 0},
                 {"b", "A", 33},
                 {"B", "a", -31},
                 {"a1x", "A2", '1' - '2'},
                 {"\344", "a", 0344 - 'a'}};
    for (const auto& c : cases) {
        EXPECT_EQ(CString(c.m_szOne).compareIgnoreCase(c.m_szOther), c.m_nResult) << c.m_szOne;
        EXPECT_EQ(CString(c.m_szOne).compareIgnoreCase(CString(c.m_szOther)), c.m_nResult) << c.m_szOne;
    }
}

TEST(CStringTest, SearchAndDigitsTakeBytesAsUnsigned) {
    const char* text = "ab\377b";
    EXPECT_EQ(CString::strchr(text, 'b'), text + 1);
    EXPECT_EQ(CString::strchr(text, 0xFF), text + 2);
    EXPECT_EQ(CString::strchr(text, 0), text + 4);
    for (const int c : {int{'c'}, -1, 256 + 'b', 256}) {
        EXPECT_EQ(CString::strchr(text, c), nullptr) << c;
    }
    const unsigned char bytes[] = {1, 23, 255};
    char out[10] = "#########";
    CString::convert2Digits(bytes, 3, out);
    EXPECT_STREQ(out, "123255");
    CString::convert2Digits(bytes, -1, out);
    EXPECT_STREQ(out, "");
}

} // namespace
