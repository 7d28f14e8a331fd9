#include "base/CFile.h"

#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <unistd.h>

namespace {

const std::string sPath = ::testing::TempDir() + "qel-file-" + std::to_string(getpid());

TEST(CFileTest, ModesDifferInWhatTheyCreateKeepWriteAndRemove) {
    // Mode; whether it writes, and creates; the size at opening "hello", and what stands there after a write.
    const std::tuple<int, int, int, uint32_t, const char*> modes[] = {
        {-1, 0, 0, 5, "hello"}, {0, 0, 0, 5, "hello"},   {1, 1, 1, 0, "XY"},
        {2, 1, 0, 5, "XYllo"},  {3, 1, 1, 5, "helloXY"}, {-2, 1, 1, 5, "helloXY"}};
    for (const auto& [mode, writes, creates, size, after] : modes) {
        for (const int text : {0, 1, 2}) {
            EXPECT_EQ(CFile(sPath.c_str(), mode, text).isOpen(), creates) << mode << text;
            std::ofstream(sPath) << "hello";
            CFile file(sPath.c_str(), mode, text);
            EXPECT_EQ(file.size(), size) << mode << text;
            EXPECT_EQ(file.write("XY", 2), writes * 2u) << mode << text;
            std::string found;
            std::getline(std::ifstream(sPath), found);
            EXPECT_EQ(found, after) << mode << text << ", before it is closed: each write is flushed";
            EXPECT_EQ(file.size(), size + writes * 2u) << mode << text;
            EXPECT_EQ(file.setBufferingMode(1), 0) << "0 means that the library agreed";
            EXPECT_EQ(file.remove(), writes) << mode << text;
            std::filesystem::remove(sPath);
        }
    }
}

TEST(CFileTest, ReadsNoFurtherThanTheSizeKnown) {
    std::ofstream(sPath) << "one\ntwo\nthree";
    CFile file(sPath.c_str(), CFile::nReadOnly, CFile::nText);
    std::ofstream(sPath, std::ios::app) << "-grown";
    char buffer[64] = {};
    EXPECT_EQ(file.gets(buffer, 3), 1);
    EXPECT_EQ(file.read(buffer, sizeof buffer), 11u);
    EXPECT_EQ(std::string(buffer, 11), "e\ntwo\nthree");
    EXPECT_EQ(file.read(buffer, sizeof buffer), 0u);
    EXPECT_EQ(file.seek(-1, SEEK_SET), 0);
    EXPECT_EQ(file.seekEnd(), 1);
    EXPECT_EQ(file.gets(buffer, sizeof buffer), 0);
    std::filesystem::remove(sPath);
}

TEST(CFileTest, FailedOpeningAndRemovingLeaveNothingHalfOpen) {
    CFile file(sPath.c_str(), CFile::nAppend, CFile::nText);
    EXPECT_EQ(file.open("/none/file", CFile::nWrite, CFile::nText), 0);
    char buffer[4] = "abc";
    EXPECT_EQ(file.isOpen() + file.seekEnd() + file.gets(buffer, 4) + file.close() + file.remove(), 0);
    EXPECT_EQ(file.size() + file.read(buffer, 4) + file.write(buffer, 4), 0u);
    for (const int mode : {1, 2, 3}) {
        std::ofstream(sPath) << "text";
        file.open(sPath.c_str(), mode, CFile::nBinary);
        std::filesystem::remove(sPath); // so that there is nothing to delete
        EXPECT_EQ(file.remove(), 0) << mode;
        EXPECT_EQ(file.write("new", 3), 3u) << mode << ": it is open again";
        std::filesystem::remove(sPath);
        std::filesystem::create_directories(sPath + "/in the way"); // nor can it be opened again
        EXPECT_EQ(file.remove(), 0) << mode;
        EXPECT_EQ(file.isOpen(), 0) << mode;
        std::filesystem::remove_all(sPath);
    }
}

} // namespace
