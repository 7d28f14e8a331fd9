#include "features/CFeatureEntry.h"
#include "server/stand_ins.h"

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <unistd.h>

namespace {

using namespace std::string_literals;

// Configured before anything can ask for it: the daemon reads its path once.
const std::string sPath = [] {
    std::string path = testing::TempDir() + "qel-names-" + std::to_string(getpid());
    setenv("QEL_DESCRIPTION", path.c_str(), 1);
    return path;
}();

class CDescriptionTest : public CServerTestBase {
protected:
    void TearDown() override { std::filesystem::remove(sPath); }
};

TEST_F(CDescriptionTest, NamesFollowTheFile) {
    const struct {
        std::string m_sFile;
        uint32_t m_nCode;
        const char* m_szName;
    } cases[] = {{"101,Conference Calling", 101, "Conference Calling"},
                 {" 7,Hunt Groups,extra", 7, "Hunt Groups"},
                 {"42\n", 42, "before"},
                 {"", 0, "before"},
                 {"1,a\r\n\r\n12,b\r\n", 12, "b"},
                 {"1,a\n\n12,b\n3,c", 12, "b"},
                 {"1,a\r12,b\r", 12, "b"},
                 {"12,,Paging", 12, "Paging"},
                 {",12,Paging", 12, "Paging"},
                 {"12, Paging ", 12, " Paging "},
                 {"  12,Paging", 12, "Paging"},
                 {"+12,Paging", 12, "Paging"},
                 {"12abc,Paging", 12, "Paging"},
                 {"0x0C,Paging", 12, "before"},
                 {"0x0C,Paging", 0, "Paging"},
                 {"12,First\n12,Second", 12, "Second"},
                 {"# note,text", 0, "text"},
                 {"# note,text", 12, "before"},
                 {"-1,Top", 4294967295, "Top"},
                 {"12,a\0\n12,b"s, 12, "a"},
                 {"12,\"a,b\"", 12, "\"a"}};
    for (const auto& c : cases) {
        std::ofstream(sPath, std::ios::binary) << c.m_sFile;
        CFeatureEntry entry(nullptr);
        entry.m_nCode = c.m_nCode;
        entry.m_sName = CString("before");
        EXPECT_EQ(entry.setupName(), 1);
        EXPECT_STREQ(entry.m_sName.c_str(), c.m_szName) << c.m_sFile;
    }
    EXPECT_TRUE(takeLines().empty());
}

TEST_F(CDescriptionTest, MissingFileIsToldForEachEntryAndMissingMemoryIsNot) {
    CFeatureEntry entry(nullptr);
    const std::string told = "4 31142 cannot open " + sPath;
    EXPECT_EQ(entry.setupName(), 0);
    EXPECT_EQ(entry.setupName(), 0);
    EXPECT_EQ(takeLines(), (Lines{told, told}));

    std::ofstream(sPath) << "0,name";
    nAllocationsLeft = 1; // enough for the path, not for the contents
    EXPECT_EQ(entry.setupName(), 0);
    EXPECT_TRUE(takeLines().empty());
    EXPECT_STREQ(entry.m_sName.c_str(), "");
}

} // namespace
