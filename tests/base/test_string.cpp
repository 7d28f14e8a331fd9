#include "base/CString.h"

#include <gtest/gtest.h>

namespace {

TEST(CStringTest, TokenizeDropsEmptyTokensAndReturnsTheRestFromEachDelimiterOnDemand) {
    using Tokens = std::vector<std::string>;
    const std::tuple<const char*, const char*, int, Tokens> cases[] = {
        {",a,,b,", ",", 0, {"a", "b"}},    {",,,", ",", 0, {}},
        {"a,b", nullptr, 0, {}},           {"x\r\ny", "\r\n", 0, {"x", "y"}},
        {"a\377b", "\377", 0, {"a", "b"}}, {"a,,b,", ",", 1, {"a", ",,b,", ",b,", "b", ","}}};
    for (const auto& [text, delimiters, flag, expected] : cases) {
        Tokens tokens;
        for (const CString& token : CString(text).tokenize(delimiters, CString::EReturnTokensFlag(flag))) {
            tokens.emplace_back(token.c_str());
        }
        EXPECT_EQ(tokens, expected) << text;
    }
}

TEST(CStringTest, CompareIgnoresCaseAndWhatOnlyOneTextHas) {
    const std::tuple<const char*, const char*, int> cases[] = {
        {"Hello", "hELLO", 0}, {"ab", "ABC", 0}, {"ABC", "ab", 0},         {"", "x", 0},
        {"b", "A", 33},        {"B", "a", -31},  {"a1x", "A2", '1' - '2'}, {"\344", "a", 0344 - 'a'}};
    for (const auto& [one, other, result] : cases) {
        EXPECT_EQ(CString(one).compareIgnoreCase(CString(other)), result) << one;
    }
}

TEST(CStringTest, SearchAndDigitsTakeBytesAsUnsigned) {
    const char* text = "ab\377b";
    EXPECT_EQ(CString::strchr(text, 0xFF), text + 2);
    EXPECT_EQ(CString::strchr(text, 0), text + 4);
    EXPECT_EQ(CString::strchr(text, -1), nullptr);
    char out[10] = "#########";
    CString::convert2Digits(reinterpret_cast<const unsigned char*>("\1\27\377"), 3, out);
    EXPECT_STREQ(out, "123255");
}

} // namespace
