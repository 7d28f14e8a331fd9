#include "ctl/CFeatureNames.h"
#include "ctl/check_names.h"
#include "features/world.h"
#include "source/CEntryNames.h"
#include "support/files.h"
#include "support/scarce_memory.h"

#include <sys/stat.h>

namespace {

using namespace std::string_literals;

// Configured before anything can ask for it: the daemon reads its path once.
const CTestDirectory oDirectory;
const std::string sPath = oDirectory.file("names");
[[maybe_unused]] const int nConfigured = setenv("QEL_DESCRIPTION", sPath.c_str(), 1);

using CDescriptionTest = CHeartTest;

TEST_F(CDescriptionTest, NamesFollowTheFile) {
    const std::tuple<std::string, uint32_t, const char*> cases[] = {
        {" 7, Hunt Groups ,extra", 7, " Hunt Groups "},
        {"42\n", 42, "before"},
        {"1,a\r\n\n12,b\r3,c", 12, "b"},
        {",12,,Paging", 12, "Paging"},
        {"+12abc,Paging", 12, "Paging"},
        {"0x0C,Paging", 12, "before"},
        {"12,First\n12,Second", 12, "Second"},
        {"# note,text", 0, "text"},
        {"-1,Top", 4294967295, "Top"},
        {"12,a\0\n12,b"s, 12, "a"},
        {"1,x\n2,y\r\r12,a\n1,x\r", 12, "a"},
        {"12,\"a,b\"", 12, "\"a"}};
    for (const auto& [file, code, name] : cases) {
        put(sPath, file);
        CFeatureEntry entry(nullptr);
        entry.m_nCode = code;
        entry.m_sName = CString("before");
        EXPECT_EQ(entry.setupName(), 1);
        EXPECT_STREQ(entry.m_sName.c_str(), name) << file;
        const std::string shown(CFeatureNames::parse(file).find(code));
        EXPECT_EQ(shown.empty() ? "before" : shown, name) << "qelctl reads it otherwise: " << file;
    }
    EXPECT_EQ(takeLines(), CTexts());
}

TEST_F(CDescriptionTest, WhatIsNoFileHoldsUpNobody) {
    const std::function<void()> aKinds[] = {[] {}, [] { std::filesystem::create_directory(sPath); },
                                            [] { mkfifo(sPath.c_str(), 0600); }};
    for (const auto& make : aKinds) {
        std::filesystem::remove(sPath);
        make();
        EXPECT_EQ(CFeatureEntry(nullptr).setupName(), 0);
        EXPECT_EQ(takeLines(), CTexts{"4 31142 cannot open " + sPath});
    }
    std::filesystem::remove(sPath);
}

TEST_F(CDescriptionTest, TheCheckTellsWhatTheDaemonPassesOver) {
    const std::pair<std::string, const char*> cases[] = {
        {"\r\n1,a\r2,b\n\n,,3,c,,d\n 4,\"e\"", ""},
        {"1,a\r\n\r\n2\r\n", "F:3: '2' gives no feature a name: write CODE,NAME\n"},
        {"1,a\r\r# b,c", "F:3: '# b' is no code from 0 to 4294967295: the daemon takes it for 0\n"},
        {"12x,a\n", "F:1: '12x' is no code from 0 to 4294967295: the daemon takes it for 12\n"},
        {"4294967297,a", "F:1: '4294967297' is no code from 0 to 4294967295: the daemon takes it for 1\n"},
        {"1,a\n2,b\n1,c", "F:3: code 1 stands twice: first in line 1; the last one counts\n"},
        {"1,a\n2\0,b"s, "F:2: '2' gives no feature a name: write CODE,NAME\n"
                        "F: byte 6 is 0: for the daemon the file ends there\n"},
        {"\n,\n", "F: holds no name: write a line CODE,NAME for each feature\n"}};
    for (const auto& [file, errors] : cases) {
        std::string told;
        for (const SListError& error : checkDescriptions(file)) {
            told += printListError("F", error) + "\n";
        }
        EXPECT_EQ(told, errors) << file;
    }
}

// A file that is read where none can be opened leaves a line.
TEST_F(CDescriptionTest, OnlyNewAndNamelessFeaturesReadTheFile) {
    CEntryNames names;
    const auto named = [&names](std::initializer_list<uint32_t> codes, size_t scarce = 0) {
        CFreshList list;
        std::string text;
        for (const uint32_t code : codes) {
            list.push_back({std::unique_ptr<CFeatureEntry>(fresh(code, 1)), false});
        }
        {
            const CScarceMemory memory(scarce);
            names.giveTo(list);
        }
        for (const SFreshFeature& feature : list) {
            text += feature.m_pEntry->m_sName.c_str() + ";"s;
        }
        return text;
    };
    const std::string longName = "A name of more than fifteen characters";
    put(sPath, "1,One\n2,Two\n3," + longName);
    EXPECT_EQ(named({1, 2}), "One;Two;");
    {
        const CNoDescriptors none;
        EXPECT_EQ(named({1, 3, 2}), "One;;Two;");
    }
    EXPECT_EQ(takeLines(),
              (CTexts{"4 31142 cannot open " + sPath, "2 31178 description file " + sPath +
                                                          ": cannot be read; 1 features go without a name"}));
    EXPECT_EQ(named({3, 2}), longName + ";Two;");
    put(sPath, "2,Zwei\n3," + longName);
    EXPECT_EQ(named({2}), "Zwei;") << "the file has changed";
    EXPECT_EQ(named({3}), longName + ";") << "not of the list before";
    bool hasFailed = true;
    for (size_t nth = 1; hasFailed; ++nth) {
        const std::string some = named({2, 3}, nth);
        hasFailed = CScarceMemory::hasFailed();
        EXPECT_EQ(takeLines().empty(), some == "Zwei;" + longName + ";") << nth << some;
        EXPECT_EQ(named({3}), longName + ";") << nth;
    }
}

} // namespace
