#include "fake/fake_platform.h"
#include "features/CQelControl.h"
#include "source/CFeatureLoader.h"
#include "source/CListWatch.h"
#include "support/files.h"
#include "support/scarce_memory.h"

#include <atomic>
#include <fmt/format.h>
#include <sys/resource.h>
#include <thread>

#include <random>

namespace {

using namespace std::chrono_literals;

std::string feature(const std::string& lines) {
    return "[[feature]]\n" + lines + "\n";
}

std::string errorsOf(const std::string& text) {
    std::string errors;
    for (const SListError& error : parseFeatureList(text).m_vErrors) {
        errors += printListError("F", error) + "\n";
    }
    return errors;
}

TEST(FeatureList, TakesEveryFormOfAGoodList) {
    const SFeatureList list =
        parseFeatureList("\xEF\xBB\xBF#" + std::string(200000, '#') +
                         "\ncount = 3\n"
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
    EXPECT_EQ(list.m_vFeatures[2].m_vComponents[0], "[[feature]]");
}

// Each text has one fault; its line, and what the operator needs to find it.
TEST(FeatureList, TellsEachFaultWithItsLine) {
    const std::string rest = "data = 1\ncomponents = []";
    const std::string good = feature("code = 1\n" + rest);
    const std::string names = "[[feature]]\ncode = 1\ndata = 1\ncomponents = ";
    const struct {
        std::string m_sText, m_sLine, m_sTelling;
    } aCases[] = {
        {"", "F: ", "count = 0"},
        {"count = '1'\n" + good, "F:1: ", "'count' must be an integer, not string"},
        {"cuont = 1\n" + good, "F:1: ", "did you mean 'count'?"},
        {good + "serial = 1\n", "F:5: ", "above the first [[feature]]"},
        {"serial = 0\n" + good, "F:1: ", "'serial' must be from 1 to 9223372036854775807"},
        {"issued = 2026-11-23T10:00:00+01:00\n" + good, "F:1: ", "must be a date and time in UTC"},
        {"issued = '2026-11-23'\n" + good, "F:1: ", "such as 2024-03-14T13:04:05Z, not string"},
        {"scope = []\n" + good, "F:1: ", "'scope' is empty"},
        {"scope = [\n'berlin', 'a/b']\n" + good, "F:2: ", "'a/b' in the scope is no name"},
        {"scope = ['a', 'a']\n" + good, "F:1: ", "'a' is named twice in the scope"},
        {feature("code = 1\nsuorced = true\n" + rest), "F:3: ", "did you mean 'sourced'?"},
        {feature("code = 99999999999999999999\n" + rest), "F:2: ", "'code' must be from 0 to 4294967295"},
        {feature("code = 1\nsourced = 1\n" + rest), "F:3: ", "must be true or false, not integer"},
        {names + "'Voice'", "F:4: ", "must be an array of strings, not string"},
        {names + "['']", "F:4: ", "name is empty"},
        {names + "['SeventeenLettersX']", "F:4: ", "longer than 16"},
        {names + "[\"a\\u0007\"]", "F:4: ", "'a?' has a control character"},
        {names + "['A',\n 'A']", "F:5: ", "'A' is named twice"},
        {names + fmt::format("[{}]", fmt::join(std::vector<std::string>(257, "'A'"), ",")),
         "F:4: ", "more than 256 names"},
        {feature("code = 0\ndata = 0\ncomponents = []"), "F:1: ", "ends the list"},
        {good + good, "F:5: ", "code 1 with data 1 stands twice: first in line 1"},
        {good + feature("x = " + std::string(100000, '[')), "F:6: ", "nested too deep"},
        {feature("a" + std::string(100000, '.')), "F:2: ", "nested too deep"},
        {good + names + "'''\n" + std::string(70000, 'x'), "F:5: ", "is a string left open?"},
        {good + "# \u00DC\xE4\xB8n", "F:5: ", "column 4: byte 0xE4 is not UTF-8: save the file as UTF-8"},
        {good + '\0' + good, "F:5: ", "column 1: byte 0x00 is not text"},
        {good + "#\U0010FFFF\xED\xA0\x80", "F:5: ", "column 3: byte 0xED"},
    };
    for (const auto& fault : aCases) {
        SCOPED_TRACE(fault.m_sText.substr(0, 100));
        const std::string errors = errorsOf(fault.m_sText);
        EXPECT_TRUE(errors.starts_with(fault.m_sLine)) << errors;
        EXPECT_NE(errors.find(fault.m_sTelling), errors.npos) << errors;
        EXPECT_EQ(errors.find('\n'), errors.size() - 1) << "one fault, one line:\n" << errors;
    }
}

TEST(FeatureList, TellsAllFaultsInOneGo) {
    EXPECT_EQ(
        errorsOf("count = 1\n[[feature]]\ncode = \n[[feature]]\ncode = 1\ndata = 4294967296\n"
                 "components = [1]\n[[feature]]\n[[feature]]\nx = \"\n[[feature]]\nx = '\ny = 1"),
        "F:1: 'count' is 1, but the file has 5 features\n"
        "F:3: not TOML: ends too early (key-value pair)\n"
        "F:6: 'data' must be from 0 to 4294967295\n"
        "F:7: a component name must be a string, not integer\n"
        "F:8: 'code' is missing\nF:8: 'data' is missing\nF:8: 'components' is missing\n"
        "F:10: not TOML: ends too early (string)\nF:12: not TOML: not closed in its line (literal string)\n");
    const std::vector<std::string> many(2 * nMaxListErrors, "[[feature]]\nx");
    const SFeatureList list = parseFeatureList(fmt::format("count = 1\n{}", fmt::join(many, "\n")));
    EXPECT_EQ(list.m_nErrors, many.size() + 1);
    ASSERT_EQ(list.m_vErrors.size(), nMaxListErrors);
    EXPECT_EQ(list.m_vErrors[0].m_nLine, 1u) << "found last, told first";
}

std::string mutated(std::string text, std::mt19937& random) {
    static const std::string aForeign[] = {"\xE4", {'\0'}, "\u00E4", "\"\"\"", "[[", "{", ".", "\\U", "\n"};
    const auto below = [&random](size_t end) { return end == 0 ? 0 : random() % end; };
    const std::string part = below(2) == 0 ? text.substr(below(text.size()), below(80)) : aForeign[below(9)];
    const std::vector<std::string> parts(below(4) == 0 ? below(400) : 1, part);
    return text.replace(below(text.size()), below(2) * below(80), fmt::format("{}", fmt::join(parts, "")));
}

// Allocations stand for time: they are linear in the text. Where they fail, that is no fault of the list.
TEST(FeatureList, AnythingIsGoodOrHasAnErrorInOneLine) {
    std::mt19937 random(20260723);
    std::string text;
    for (int round = 0; round < 4000; ++round) {
        text = mutated(round % 8 == 0 ? contents(QEL_EXAMPLE_LIST) : text, random);
        const CScarceMemory memory(round % 2 == 0 ? 1 + random() % 999 : 2000 + 2 * text.size());
        try {
            for (const SListError& error : parseFeatureList(text).m_vErrors) {
                ASSERT_LT(error.m_sText.size(), 300u);
                ASSERT_EQ(error.m_sText.find('\n'), text.npos);
            }
            ASSERT_FALSE(CScarceMemory::hasFailed());
        } catch (const std::bad_alloc&) {
            ASSERT_EQ(round % 2, 0) << text;
        }
    }
}

// Judged by the list taken last. Kept data cannot change to 0: as pending data, 0 tells that there is none.
TEST(FeatureLoader, ABadUnchangedOrUndeliverableListIsNotTaken) {
    const struct {
        const char *m_sText, *m_sLogged; // of the file, and right behind its path; none: the list is taken
    } aLists[] = {
        {"code = 1\ndata = 10\ncomponents = []", ""},
        {"code = 1\n\n# moved down\ndata = 10\ncomponents = []", ": unchanged"},
        {"code = x\ndata = -1\ncomponents = []", ":3: not TOML"},
        {"code = 1\ndata = 10\ncomponents = []", ": unchanged"},
        {"code = 1\ndata = 10\ncomponents = ['Voice']", ""},
        {"code = 1\ndata = 0\ncomponents = []\nsourced = true", ""},
        {"code = 1\ndata = 7\ncomponents = []\nsourced = true", ""},
        {"code = 1\ndata = 0\ncomponents = []\nsourced = true", ":2: the data"},
        {"code = 1\ndata = 0\ncomponents = []", ""},
        {"code = 1\ndata = 7\ncomponents = []", ""},
        {"code = 1\ndata = 0\ncomponents = []\nsourced = true", ""},
    };
    const CTestDirectory directory;
    const std::string path = directory.file("list");
    CQelControl control;
    CFeatureLoader loader(path);
    EXPECT_EQ(readFeatureList("/dev/zero").m_vErrors.at(0).m_sText, "is not a regular file");
    for (const auto& list : aLists) {
        CFakePlatform::get().reset();
        put(path, std::string("# a list\n[[feature]]\n") + list.m_sText);
        EXPECT_EQ(loader.load(control).m_bNew, *list.m_sLogged == '\0') << list.m_sText;
        const auto log = CFakePlatform::get().takeLog();
        EXPECT_NE((log.empty() ? path : log[0].m_sText).find(path + list.m_sLogged), path.npos);
    }
}

TEST(CListWatch, EveryWayToReplaceTheFileIsSeen) {
    const CTestDirectory directory;
    const std::filesystem::path path = directory.file("features.toml");
    const std::filesystem::path real = directory.file("etc") / std::filesystem::path("real");
    CListWatch watch(path);
    CListWatch late(real);
    std::optional<CListWatch> poor;
    {
        const CNoDescriptors none;
        poor.emplace(path);
        EXPECT_FALSE(poor->isAtRest());
    }
    EXPECT_FALSE(poor->wait(1ms));
    EXPECT_TRUE(poor->isAtRest()) << "descriptors are there again";
    put(path, "1");
    EXPECT_TRUE(watch.wait(10s)) << "created";
    put(path, "2");
    EXPECT_TRUE(watch.wait(10s)) << "written in place";
    put(directory.file("new"), "3");
    EXPECT_FALSE(watch.wait(1ms)) << "another file";
    std::filesystem::rename(directory.file("new"), path);
    EXPECT_TRUE(watch.wait(10s)) << "renamed over";
    for (const char* text : {"4", "after the directory went and came again"}) {
        std::filesystem::remove_all(real.parent_path());
        late.wait(1ms);
        std::filesystem::create_directory(real.parent_path());
        late.wait(1ms);
        put(real, text);
        EXPECT_TRUE(late.wait(10s)) << text;
    }
    std::filesystem::remove(path);
    std::filesystem::create_symlink(real, path);
    EXPECT_FALSE(watch.wait(1ms)) << "replaced by a link just now";
    EXPECT_TRUE(watch.wait(1ms)) << "replaced by a link, and standing still since";
    put(real, "5");
    EXPECT_TRUE(watch.wait(10s)) << "written behind the link";
    EXPECT_FALSE(watch.wait(1ms)) << "reported once";
    put(directory.file("new"), "6");
    std::filesystem::rename(directory.file("new"), real);
    EXPECT_FALSE(watch.wait(10s)) << "replaced behind the link just now";
    EXPECT_TRUE(watch.wait(1ms)) << "replaced behind the link, and standing still since";
    put(real, "7");
    EXPECT_TRUE(watch.wait(10s)) << "written after that";
    std::filesystem::remove(path);
    EXPECT_FALSE(watch.wait(1ms)) << "removed just now";
    EXPECT_FALSE(watch.isAtRest());
    EXPECT_TRUE(watch.wait(1ms)) << "removed";
    put(path, "8");
    EXPECT_TRUE(watch.wait(10s)) << "created anew";
    EXPECT_TRUE(watch.isAtRest());
}

// The daemon's own log often lies beside the list.
TEST(CListWatch, FilesWrittenBesideTheListDoNotWakeTheWatch) {
    const CTestDirectory directory;
    const std::string path = directory.file("features.toml");
    const std::string other = directory.file("log");
    put(path, "1");
    put(other, "");
    CListWatch watch(path);
    const auto switches = [] {
        rusage usage{};
        getrusage(RUSAGE_THREAD, &usage);
        return usage.ru_nvcsw;
    };
    const auto before = switches();
    std::atomic<int> lines = 0;
    std::jthread writer([&] {
        for (; lines < 200; ++lines) {
            std::this_thread::sleep_for(1ms);
            put(other, "a line");
        }
    });
    EXPECT_FALSE(watch.wait(200ms));
    const auto slept = switches() - before; // and so was woken; an emulator sleeps at times of its own
    EXPECT_LT(slept, lines / 2);
}

} // namespace
