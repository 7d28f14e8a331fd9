#include "base/CFile.h"
#include "base/CFileDescriptor.h"
#include "base/CFileReplacement.h"
#include "base/CString.h"
#include "support/files.h"

#include <csignal>
#include <cstring>
#include <fcntl.h>
#include <sys/resource.h>

namespace {

int nextDescriptor() {
    const int next = dup(STDIN_FILENO);
    close(next);
    return next;
}

struct CFileTest : testing::Test {
    ~CFileTest() override { EXPECT_EQ(nextDescriptor(), m_nNext) << "a file stays open"; }

    const int m_nNext = nextDescriptor();
    const CTestDirectory m_oDirectory;
    const std::string m_sPath = m_oDirectory.file("file");
};

TEST_F(CFileTest, ModesDifferInWhatTheyCreateKeepWriteAndRemove) {
    // Mode; whether it writes, and creates; the size at opening "hello", and what stands there after a write.
    const std::tuple<int, int, int, uint32_t, const char*> modes[] = {
        {-1, 0, 0, 5, "hello"}, {0, 0, 0, 5, "hello"},   {1, 1, 1, 0, "XY"},
        {2, 1, 0, 5, "XYllo"},  {3, 1, 1, 5, "helloXY"}, {-2, 1, 1, 5, "helloXY"}};
    for (const auto& [mode, writes, creates, size, after] : modes) {
        for (const int text : {0, 1, 2}) {
            SCOPED_TRACE(testing::Message() << mode << " " << text);
            EXPECT_EQ(CFile(m_sPath.c_str(), mode, text).isOpen(), creates);
            put(m_sPath, "hello");
            CFile file(m_sPath.c_str(), mode, text);
            EXPECT_EQ(file.size(), size);
            EXPECT_EQ(file.write("XY", 2), writes != 0 ? 2u : 0u);
            EXPECT_EQ(contents(m_sPath), after) << "before it is closed: each write is flushed";
            EXPECT_EQ(file.size(), size + (writes != 0 ? 2u : 0u));
            EXPECT_EQ(file.setBufferingMode(1), 0) << "0 means that the library agreed";
            EXPECT_EQ(file.remove(), writes);
            std::filesystem::remove(m_sPath);
        }
    }
}

TEST_F(CFileTest, ReadsNoFurtherThanTheSizeKnown) {
    put(m_sPath, "one\ntwo\nthree");
    CFile file(m_sPath.c_str(), CFile::nReadOnly, CFile::nText);
    put(m_sPath, "one\ntwo\nthree-grown");
    char buffer[64] = {};
    EXPECT_EQ(file.gets(buffer, 2), 1);
    EXPECT_EQ(file.getPosition(), 1);
    EXPECT_EQ(file.read(buffer, sizeof buffer), 12u);
    EXPECT_STREQ(buffer, "ne\ntwo\nthree");
    EXPECT_EQ(file.read(buffer, sizeof buffer), 0u);
    EXPECT_EQ(file.seek(-1, SEEK_SET), 0);
    EXPECT_EQ(file.seekEnd(), 1);
    EXPECT_EQ(file.gets(buffer, sizeof buffer), 0);
    file.seek(0, SEEK_SET);
    EXPECT_EQ(file.gets(buffer, 0) + file.gets(buffer, 1), 0) << "there is room for no character";
    EXPECT_EQ(file.gets(buffer, UINT32_MAX), 1);
    EXPECT_STREQ(buffer, "one\n");
}

TEST_F(CFileTest, ALargeFileIsReadUpToTheLargestSize) {
    for (const uint64_t size : {(uint64_t{1} << 31) + 2, uint64_t{UINT32_MAX}, uint64_t{1} << 32}) {
        put(m_sPath, "");
        std::filesystem::resize_file(m_sPath, size); // a hole: takes no room
        CFile file(m_sPath.c_str(), CFile::nReadOnly, CFile::nBinary);
        EXPECT_EQ(file.size(), std::min<uint64_t>(size, UINT32_MAX));
        EXPECT_EQ(file.seek(INT32_MAX, SEEK_SET), 1);
        char buffer[4];
        EXPECT_EQ(file.read(buffer, 2), 2u) << "across 2 GiB";
        const auto last = static_cast<long>(size - INT32_MAX - 3);
        EXPECT_EQ(file.seek(last, SEEK_CUR), 1);
        EXPECT_EQ(file.read(buffer, 4), size > UINT32_MAX ? 0u : 1u);
    }
    EXPECT_EQ(CFile(m_oDirectory.path().c_str(), CFile::nReadOnly, CFile::nText).size(), 0u);
}

TEST_F(CFileTest, OnlyWhatReachedTheFileCountsAsWritten) {
    const std::string text(10000, 'x');
    rlimit limit{};
    getrlimit(RLIMIT_FSIZE, &limit);
    const rlimit small{6000, limit.rlim_max};
    const auto handler = std::signal(SIGXFSZ, SIG_IGN);
    setrlimit(RLIMIT_FSIZE, &small);
    for (const int mode : {1, 2, 3}) {
        put(m_sPath, "hello");
        CFile file(m_sPath.c_str(), mode, CFile::nBinary);
        const uint32_t before = file.size();
        const uint32_t room = mode == CFile::nAppend ? 5995 : 6000;
        EXPECT_EQ(file.write(text.data(), 10000), room) << mode;
        EXPECT_EQ(file.write("more", 4), 0u) << mode;
        EXPECT_EQ(file.size(), before + room) << mode;
        EXPECT_EQ(std::filesystem::file_size(m_sPath), 6000u) << mode;
    }
    EXPECT_EQ(CFileReplacement(m_sPath).write(text, nullptr),
              "cannot write " + m_oDirectory.file(".file.partial") + ": File too large");
    setrlimit(RLIMIT_FSIZE, &limit);
    std::signal(SIGXFSZ, handler);
}

TEST_F(CFileTest, AFailedOpeningClosesItAndAFailedRemovalOpensItAnew) {
    CFile file(m_sPath.c_str(), CFile::nAppend, CFile::nText);
    EXPECT_EQ(file.open("/none/file", CFile::nWrite, CFile::nText), 0);
    char buffer[4] = "abc";
    EXPECT_EQ(file.isOpen() + file.seekEnd() + file.gets(buffer, 4) + file.close() + file.remove() +
                  file.setBufferingMode(1),
              0);
    EXPECT_EQ(file.getPosition(), 0);
    EXPECT_EQ(file.size() + file.read(buffer, 4) + file.write(buffer, 4), 0u);
    for (const int mode : {1, 2, 3}) {
        put(m_sPath, "text");
        file.open(m_sPath.c_str(), mode, CFile::nBinary);
        std::filesystem::remove(m_sPath); // so that there is nothing to delete
        EXPECT_EQ(file.remove(), 0) << mode;
        EXPECT_EQ(file.write("new", 3), 3u) << mode << ": it is open again";
        EXPECT_EQ(file.size(), 3u) << mode;
    }
}

TEST_F(CFileTest, AFileIsReplacedAsAWholeOrNotAtAllAndNothingElseStays) {
    const mode_t mask = umask(0077);
    const std::string partial = m_oDirectory.file(".file.partial");
    struct stat like {};
    ASSERT_EQ(stat(m_oDirectory.path().c_str(), &like), 0); // of mode 0700
    put(m_sPath, "old");
    {
        CFileReplacement file(m_sPath);
        EXPECT_EQ(file.write("dropped", nullptr), "");
    }
    EXPECT_FALSE(std::filesystem::exists(partial));
    EXPECT_EQ(contents(m_sPath), "old");
    for (const struct stat* alike : std::initializer_list<const struct stat*>{nullptr, &like}) {
        put(partial, "left by a power failure");
        CFileReplacement file(m_sPath);
        EXPECT_EQ(file.write("new", alike), "");
        EXPECT_EQ(file.publish(), "");
        EXPECT_EQ(contents(m_sPath), "new");
        struct stat status {};
        EXPECT_EQ(stat(m_sPath.c_str(), &status), 0);
        EXPECT_EQ(status.st_mode & 07777, alike != nullptr ? 0700u : 0644u);
        put(partial, "");
    }
    { const CFileReplacement idle(m_sPath); }
    EXPECT_TRUE(std::filesystem::exists(partial)) << "of the next one, who is writing";
    umask(mask);
    ++like.st_uid; // only the owner differs
    CFileReplacement given(m_sPath);
    const bool isRoot = geteuid() == 0; // who may give it away
    EXPECT_EQ(given.write("", &like),
              isRoot ? "" : "cannot give owner and mode to " + partial + ": Operation not permitted");
    struct stat status {};
    EXPECT_EQ(stat(partial.c_str(), &status), 0);
    EXPECT_EQ(status.st_uid, isRoot ? like.st_uid : geteuid());
    EXPECT_EQ(CFileReplacement("/none/file").write("", nullptr),
              "cannot create /none/.file.partial: No such file or directory");
    EXPECT_EQ(CFileReplacement("/none/file").publish(),
              "cannot rename a file to /none/file: No such file or directory");
    EXPECT_EQ(syncDirectory("/none"), "cannot write to the disk /none: No such file or directory");
    EXPECT_EQ(syncDirectory(m_oDirectory.path()), "");
}

TEST_F(CFileTest, ADescriptorIsClosedEvenIfItIsTheFirst) {
    const int input = dup(STDIN_FILENO);
    close(STDIN_FILENO);
    EXPECT_EQ(CFileDescriptor(open("/dev/null", O_RDONLY | O_CLOEXEC)).get(), STDIN_FILENO);
    EXPECT_EQ(fcntl(STDIN_FILENO, F_GETFD), -1);
    dup2(input, STDIN_FILENO);
    close(input);
}

TEST(CStringTest, TokenizeDropsEmptyTokensAndReturnsTheRestAtDelimitersOnDemand) {
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

TEST(CStringTest, StrchrComparesWholeBytesAndFindsTheEnd) {
    EXPECT_TRUE(CString(nullptr).empty());
    const char text[] = "ab\377b\0b";
    const std::pair<int, int> cases[] = {{'a', 0},  {'b', 1},        {0377, 2}, {0, 4},         {'c', -1},
                                         {256, -1}, {'b' + 256, -1}, {-1, -1},  {'b' - 256, -1}};
    for (const auto& [c, position] : cases) {
        EXPECT_EQ(CString::strchr(text, c), position < 0 ? nullptr : text + position) << c;
    }
}

TEST(CStringTest, Convert2DigitsWritesAsManyBytesAsAskedAndNoMore) {
    const unsigned char bytes[] = {1, 23, 255, 0, 100};
    const std::pair<int, const char*> cases[] = {{-1, ""},      {0, ""},        {1, "1"},
                                                 {3, "123255"}, {4, "1232550"}, {5, "1232550100"}};
    for (const auto& [count, digits] : cases) {
        char out[16];
        std::fill_n(out, sizeof out, '?');
        CString::convert2Digits(bytes, count, out);
        EXPECT_STREQ(out, digits);
        EXPECT_EQ(out[std::strlen(digits) + 1], '?') << count;
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

} // namespace
