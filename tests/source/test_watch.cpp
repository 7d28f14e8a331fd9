#include "features/CFeatureEntry.h"
#include "features/CQelControl.h"
#include "messaging/wire.h"
#include "platform/mfw.h"
#include "source/CFeatureSource.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

using namespace std::chrono_literals;

// The daemon's main loop, as far as the source needs it: messages, and the pass that removes withdrawn
// features.
template <typename Condition>
bool loopUntil(CQelControl& control, Condition condition) {
    const auto end = std::chrono::steady_clock::now() + 20s;
    while (!condition() && std::chrono::steady_clock::now() < end) {
        OvuMfwProcessNextMessage(50);
        control.timeout();
    }
    return condition();
}

void write(const std::filesystem::path& path, uint32_t data, const char* names) {
    std::ofstream(path) << "[[feature]]\ncode = 1\ndata = " << data << "\ncomponents = [" << names << "]\n";
}

TEST(FeatureSource, ListChangesReachTheTableWhileTheLoopRuns) {
    std::string pattern = std::filesystem::temp_directory_path() / "qelXXXXXX";
    const std::filesystem::path directory = mkdtemp(pattern.data());
    const auto path = directory / "features.toml";
    setenv("QEL_FEATURE_LIST", path.c_str(), 1);
    setenv("QEL_RUNTIME_DIR", (directory / "run").c_str(), 1);
    setenv("QEL_LOG_FILE", (directory / "log").c_str(), 1);
    std::filesystem::create_directory(directory / "run");
    CQelControl& control = *CQelControl::instance();
    const auto dataOf1 = [&control](uint32_t data) {
        const CFeatureEntry* entry = control.findFeatureByCodeData(1, data);
        return entry != nullptr && entry->m_eStatus != CFeatureEntry::fsDeleted;
    };

    EXPECT_FALSE(CFeatureSource::instance().supply(control)) << "there is no list yet";
    write(path, 10, "'Voice', 'Gateway'");
    EXPECT_TRUE(CFeatureSource::instance().supply(control));
    EXPECT_TRUE(dataOf1(10));

    ASSERT_EQ(OvuMfwInitialize(), 0);
    CFeatureSource::instance().startWatching();
    uint32_t self = 0;
    ASSERT_EQ(OvuMfwGetProcessHandle(nullptr, &self), 0);
    const sOvuMfwMessage stray = {};
    EXPECT_EQ(OvuMfwSendMessage(self, nQelSourceMfwMsgId, 0, &stray, 4), 0);
    EXPECT_EQ(OvuMfwProcessNextMessage(5000), 0);
    EXPECT_TRUE(dataOf1(10)) << "a stray note changes nothing";

    write(path, 20, "'Voice', 'Gateway'");
    EXPECT_TRUE(loopUntil(control, [&] { return dataOf1(20); })) << "written in place";
    write(directory / "new", 30, "'Voice', 'Gateway'");
    std::filesystem::rename(directory / "new", path);
    EXPECT_TRUE(loopUntil(control, [&] { return dataOf1(30); })) << "renamed over";
    write(path, 30, "'Voice'");
    const auto hasOneName = [&control] {
        const CFeatureEntry* entry = control.findFeatureByCode(1);
        return entry != nullptr && entry->m_vCompNames.size() == 1;
    };
    EXPECT_TRUE(loopUntil(control, hasOneName)) << "held back, then placed upon a later note";

    OvuMfwCleanup();
    ASSERT_EQ(OvuMfwInitialize(), 0);
    CFeatureSource::instance().startWatching();
    write(path, 40, "'Voice'");
    EXPECT_TRUE(loopUntil(control, [&] { return dataOf1(40); })) << "with the framework initialised anew";
    OvuMfwCleanup();
    std::filesystem::remove_all(directory);
}

} // namespace
