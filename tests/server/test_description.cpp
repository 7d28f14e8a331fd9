#include "ctl/CFeatureNames.h"
#include "features/world.h"
#include "support/files.h"

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

} // namespace
