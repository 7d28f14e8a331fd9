#include "base/CFile.h"

#include <cstdlib>
#include <fcntl.h>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

namespace {

class CFileTest : public ::testing::Test {
protected:
    void TearDown() override { std::filesystem::remove_all(m_sPath); }

    void put(const std::string& text, std::ios::openmode mode = std::ios::trunc) const {
        std::ofstream(m_sPath, std::ios::out | mode) << text;
    }
    std::string contents() const {
        std::ifstream file(m_sPath);
        return {std::istreambuf_iterator<char>(file), {}};
    }
    const char* path() const { return m_sPath.c_str(); }

    const std::string m_sPath = ::testing::TempDir() + "qel-file-" + std::to_string(getpid());
};

TEST_F(CFileTest, ModesDifferInWhatTheyCreateKeepWriteAndRemove) {
    const struct {
        int m_nMode;
        bool m_bWrites;
        bool m_bCreates;
        unsigned m_nSize; // at opening "hello"
        const char* m_szAfter;
    } cases[] = {{-1, false, false, 5, "hello"}, {0, false, false, 5, "hello"},
                 {1, true, true, 0, "XY"},       {2, true, false, 5, "XYllo"},
                 {3, true, true, 5, "helloXY"},  {-2, true, true, 5, "helloXY"}};
    for (const auto& c : cases) {
        for (const int text : {0, 1, 2}) {
            SCOPED_TRACE(testing::Message() << "mode " << c.m_nMode << " text " << text);
            EXPECT_EQ(CFile(path(), c.m_nMode, text).isOpen(), c.m_bCreates ? 1 : 0) << "where there is none";
            put("hello");
            CFile file(path(), c.m_nMode, text);
            ASSERT_EQ(file.isOpen(), 1);
            EXPECT_EQ(file.size(), c.m_nSize);
            EXPECT_EQ(file.getPosition(), 0);
            EXPECT_EQ(file.write("XY", 2), c.m_bWrites ? 2u : 0u);
            EXPECT_EQ(contents(), c.m_szAfter) << "before it is closed: each write is flushed";
            EXPECT_EQ(file.size(), c.m_nSize + (c.m_bWrites ? 2 : 0));
            EXPECT_EQ(file.setBufferingMode(1), 0) << "0 means that the library agreed";
            EXPECT_EQ(file.remove(), c.m_bWrites ? 1 : 0);
            EXPECT_EQ(file.isOpen(), c.m_bWrites ? 0 : 1);
            std::filesystem::remove(m_sPath);
        }
    }
}

TEST_F(CFileTest, ReadsNoFurtherThanTheSizeKnown) {
    put("one\ntwo\nthree");
    CFile file(path(), CFile::nReadOnly, CFile::nText);
    put("-grown", std::ios::app);
    char buffer[64] = {};
    EXPECT_EQ(file.gets(buffer, 3), 1);
    EXPECT_STREQ(buffer, "on");
    EXPECT_EQ(file.gets(buffer, sizeof buffer), 1);
    EXPECT_STREQ(buffer, "e\n");
    EXPECT_EQ(file.getPosition(), 4);
    EXPECT_EQ(file.read(buffer, 4), 4u);
    EXPECT_EQ(file.read(buffer, sizeof buffer), 5u);
    EXPECT_EQ(std::string(buffer, 5), "three");
    EXPECT_EQ(file.read(buffer, sizeof buffer), 0u);
    EXPECT_EQ(file.seek(-1, SEEK_SET), 0);
    EXPECT_EQ(file.seek(11, SEEK_SET), 1);
    EXPECT_EQ(file.read(buffer, sizeof buffer), 2u);
    EXPECT_EQ(file.seekEnd(), 1);
    EXPECT_EQ(file.gets(buffer, sizeof buffer), 0);
}

TEST_F(CFileTest, OpeningThatFailsLeavesItClosed) {
    put("first");
    CFile file(path(), CFile::nAppend, CFile::nText);
    EXPECT_EQ(file.open("/none/file", CFile::nWrite, CFile::nText), 0);
    char buffer[4] = "abc";
    EXPECT_EQ(file.isOpen(), 0) << "the old file was closed before the new one failed";
    EXPECT_EQ(file.size() + file.read(buffer, 4) + file.write(buffer, 4), 0u);
    EXPECT_EQ(file.getPosition(), 0);
    EXPECT_EQ(file.seekEnd() + file.gets(buffer, 4) + file.setBufferingMode(1), 0);
    EXPECT_EQ(file.close() + file.remove(), 0);
    EXPECT_EQ(contents(), "first");
}

TEST_F(CFileTest, RemoveThatFailsReopensTheSamePath) {
    for (const int mode : {1, 2, 3}) {
        put("text");
        CFile file(path(), mode, CFile::nBinary);
        std::filesystem::remove(m_sPath); // so that there is nothing to delete
        EXPECT_EQ(file.remove(), 0) << mode;
        EXPECT_EQ(file.write("new", 3), 3u);
        EXPECT_EQ(contents(), "new");

        std::filesystem::remove(m_sPath); // nor can it be opened again
        std::filesystem::create_directories(m_sPath + "/in the way");
        EXPECT_EQ(file.remove(), 0);
        EXPECT_EQ(file.write("lost", 4), 0u);
        std::filesystem::remove_all(m_sPath);
    }
}

TEST_F(CFileTest, TimesAreThoseOfStatus) {
    EXPECT_EQ(CFile::getModificationTime(path()), 0);
    EXPECT_EQ(CFile::getCreationTime(path()), 0);
    put("text");
    const timespec times[] = {{1000, 0}, {2000, 0}};
    ASSERT_EQ(utimensat(AT_FDCWD, path(), times, 0), 0);
    EXPECT_EQ(CFile::getModificationTime(path()), 2000);
    EXPECT_GT(CFile::getCreationTime(path()), 1600000000) << "the status changed just now";
}

} // namespace
