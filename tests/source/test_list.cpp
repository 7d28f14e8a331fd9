#include "source/feature_list.h"

#include <gtest/gtest.h>

#include <sstream>
#include <string>

namespace {

std::string feature(const std::string& lines) {
    return "[[feature]]\n" + lines + "\n";
}

std::string many(int count, const std::string& text) {
    std::string result;
    for (int i = 0; i < count; ++i) {
        result += text;
    }
    return result;
}

std::string errorsOf(const std::string& text) {
    std::string errors;
    for (const SListError& error : parseFeatureList(text).m_vErrors) {
        errors += (errors.empty() ? "" : "\n") + printListError("F", error);
    }
    return errors;
}

TEST(FeatureList, TakesEveryFormOfAGoodList) {
    const SFeatureList list =
        parseFeatureList("# of the appliance\ncount = 3\n"
                         "[[feature]]\r\ncode = 1\r\ndata = 0xFFFF_FFFF\r\n"
                         "components = [ # two\n 'Voice',\n \"ALL\" ]\nsourced = true\n"
                         "[[ feature ]] # comment with '\"\ndata = 0\ncode = 1\ncomponents = []\n"
                         "[[feature]]\ncode = 0\ndata = 1\n"
                         "components = [\"\"\"\n[[feature]]\"\"\", 'SixteenLettersXX']");
    ASSERT_TRUE(list.isGood()) << list.m_vErrors[0].m_sText;
    ASSERT_EQ(list.m_vFeatures.size(), 3u);
    EXPECT_EQ(list.m_vFeatures[0].m_nData, 4294967295u);
    EXPECT_EQ(list.m_vFeatures[0].m_vComponents, (std::vector<std::string>{"Voice", "ALL"}));
    EXPECT_TRUE(list.m_vFeatures[0].m_bSourced);
    EXPECT_FALSE(list.m_vFeatures[1].m_bSourced);
    EXPECT_EQ(list.m_vFeatures[1].m_nLine, 10u);
    EXPECT_EQ(list.m_vFeatures[2].m_vComponents[0], "[[feature]]");
}

// Each text has one fault; its line, and what the operator needs to find it.
TEST(FeatureList, TellsEachFaultWithItsLine) {
    const std::string rest = "data = 1\ncomponents = []";
    const std::string good = feature("code = 1\n" + rest);
    const struct {
        std::string m_sText, m_sLine, m_sTelling;
    } aCases[] = {
        {"", "F: ", "count = 0"},
        {"count = 2\n" + good, "F:1: ", "'count' is 2, but the file has 1"},
        {"count = '1'\n" + good, "F:1: ", "'count' must be an integer, not string"},
        {"cuont = 1\n" + good, "F:1: ", "did you mean 'count'?"},
        {good + "[other]\n", "F:5: ", "unknown key 'other'"},
        {"[feature]\n", "F:1: ", "[[feature]]"},
        {"feature = [1]\n", "F:1: ", "must be a table, not integer"},
        {good + "count = 1\n", "F:5: ", "above the first [[feature]]"},
        {feature(rest), "F:1: ", "'code' is missing"},
        {feature("code = 1\ncomponents = []"), "F:1: ", "'data' is missing"},
        {feature("code = 1\ndata = 1"), "F:1: ", "'components' is missing"},
        {feature("code = 1\nsuorced = true\n" + rest), "F:3: ", "did you mean 'sourced'?"},
        {feature("code = 1\nunheardOf = true\n" + rest), "F:3: ", "unknown key 'unheardOf' in a feature"},
        {feature("code = -1\n" + rest), "F:2: ", "'code' must be from 0 to 4294967295"},
        {feature("code = 4294967296\n" + rest), "F:2: ", "'code' must be from 0 to 4294967295"},
        {feature("code = 99999999999999999999\n" + rest), "F:2: ", "'code' must be from 0 to 4294967295"},
        {feature("code = 1.0\n" + rest), "F:2: ", "'code' must be an integer, not floating"},
        {feature("code = 1\nsourced = 1\n" + rest), "F:3: ", "'sourced' must be true or false, not integer"},
        {feature("code = 1\ndata = 1\ncomponents = 'Voice'"),
         "F:4: ", "must be an array of strings, not string"},
        {feature("code = 1\ndata = 1\ncomponents = [\n'A',\n2]"), "F:6: ", "must be a string, not integer"},
        {feature("code = 1\ndata = 1\ncomponents = ['']"), "F:4: ", "name is empty"},
        {feature("code = 1\ndata = 1\ncomponents = ['SeventeenLettersX']"), "F:4: ", "longer than 16"},
        {feature("code = 1\ndata = 1\ncomponents = [\"a\\u0007\"]"), "F:4: ", "'a?' has a control character"},
        {feature("code = 1\ndata = 1\ncomponents = ['A', 'A']"), "F:4: ", "'A' is named twice"},
        {feature("code = 1\ndata = 1\ncomponents = [" + many(257, "'A',") + "]"),
         "F:4: ", "more than 256 names"},
        {feature("code = 0\ndata = 0\ncomponents = []"), "F:1: ", "ends the list"},
        {good + good, "F:5: ", "code 1 with data 1 stands twice: first in line 1"},
        {feature("code = 1 2\n" + rest), "F:2: ", "not TOML"},
        {feature("code = 1\ncode = 2\n" + rest), "F:3: ", "not TOML"},
        {feature("code = 1\ndata = 1\ncomponents = ['A'") + good, "F:4: ", "not TOML"},
        {good + feature("x = " + std::string(100000, '[')), "F:6: ", "nested too deep"},
        {feature("a" + std::string(100000, '.')), "F:2: ", "nested too deep"},
    };
    for (const auto& fault : aCases) {
        const std::string errors = errorsOf(fault.m_sText);
        EXPECT_TRUE(errors.starts_with(fault.m_sLine)) << fault.m_sText.substr(0, 100) << "\n" << errors;
        EXPECT_NE(errors.find(fault.m_sTelling), errors.npos) << fault.m_sText.substr(0, 100) << "\n"
                                                              << errors;
        EXPECT_EQ(errors.find('\n'), errors.npos) << "one fault, one line:\n" << errors;
    }
}

TEST(FeatureList, TellsAllFaultsInOneGo) {
    EXPECT_EQ(errorsOf("count = 1\n"
                       "[[feature]]\ncode = \n"
                       "[[feature]]\ncode = 1\ndata = -1\ncomponents = [1]\n"
                       "[[feature]]\nx = \"\n"),
              "F:1: 'count' is 1, but the file has 3 features\n"
              "F:3: not TOML: missing value after key-value separator '=' (expected value, but got nothing)\n"
              "F:6: 'data' must be from 0 to 4294967295\n"
              "F:7: a component name must be a string, not integer\n"
              "F:9: not TOML: the next token is not a valid string (here)");
}

TEST(FeatureList, NeedsAReadableRegularFile) {
    EXPECT_EQ(readFeatureList("/nowhere/list").m_vErrors.at(0).m_sText,
              "cannot be read: No such file or directory");
    EXPECT_EQ(readFeatureList("/dev/zero").m_vErrors.at(0).m_sText, "is not a regular file");
}

// Line numbers and the search for pairs given twice must not cost a look at all the lines before.
TEST(FeatureList, ReadsALongListWhole) {
    constexpr uint32_t nFeatures = 100000;
    std::ostringstream text;
    text << "count = " << nFeatures << "\n";
    for (uint32_t i = 0; i < nFeatures; ++i) {
        text << "[[feature]]\ncode = " << i / 2 << "\ndata = " << i % 2 + 1 << "\ncomponents = ['Voice']\n";
    }
    SFeatureList list = parseFeatureList(text.str());
    ASSERT_TRUE(list.isGood());
    ASSERT_EQ(list.m_vFeatures.size(), nFeatures);
    EXPECT_EQ(list.m_vFeatures.back().m_nCode, nFeatures / 2 - 1);
    EXPECT_EQ(list.m_vFeatures.back().m_nLine, 4 * nFeatures - 2);
}

} // namespace
