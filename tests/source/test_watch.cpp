#include "features/CQelControl.h"
#include "platform/mfw.h"
#include "source/CFeatureSource.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

using namespace std::chrono_literals;
using std::ofstream;
namespace fs = std::filesystem;

class CListFileTest : public testing::Test {
protected:
    ~CListFileTest() override { fs::remove_all(m_oDirectory); }

    const fs::path m_oDirectory = mkdtemp((fs::temp_directory_path() / "qelXXXXXX").string().data());
    const fs::path m_oPath = m_oDirectory / "features.toml";
};

TEST_F(CListFileTest, EveryWayToReplaceTheFileIsSeen) {
    const auto real = m_oDirectory / "etc" / "real";
    CListWatch watch(m_oPath);
    CListWatch late(real);
    ofstream(m_oPath) << "1";
    EXPECT_TRUE(watch.wait(10s)) << "created";
    ofstream(m_oPath) << "2";
    EXPECT_TRUE(watch.wait(10s)) << "written in place";
    ofstream(m_oDirectory / "new") << "3";
    EXPECT_FALSE(watch.wait(1ms)) << "another file";
    fs::rename(m_oDirectory / "new", m_oPath);
    EXPECT_TRUE(watch.wait(10s)) << "renamed over";
    for (const char* text : {"4", "after the directory went and came again"}) {
        fs::remove_all(real.parent_path());
        late.wait(1ms);
        fs::create_directory(real.parent_path());
        late.wait(1ms);
        ofstream(real) << text;
        EXPECT_TRUE(late.wait(10s)) << text;
    }
    fs::remove(m_oPath);
    fs::create_symlink(real, m_oPath);
    EXPECT_TRUE(!watch.wait(1ms) && watch.wait(1ms)) << "replaced by a link, and standing still since";
    ofstream(real) << "5";
    EXPECT_TRUE(!watch.wait(1ms) && watch.wait(1ms)) << "written behind the link, and standing still since";
    EXPECT_FALSE(watch.wait(1ms)) << "reported once";
}

TEST_F(CListFileTest, ChangesReachTheTableWhileTheLoopRuns) {
    setenv("QEL_FEATURE_LIST", m_oPath.c_str(), 1);
    setenv("QEL_RUNTIME_DIR", m_oDirectory.c_str(), 1);
    setenv("QEL_LOG_FILE", (m_oDirectory / "log").c_str(), 1);
    CQelControl& control = *CQelControl::instance();
    const auto isInForce = [&control](uint32_t data, size_t names) {
        const CFeatureEntry* entry = control.findFeatureByCodeData(1, data);
        return entry != nullptr && entry->m_vCompNames.size() == names;
    };
    // The main loop, as far as the source needs it: messages, and the pass that removes withdrawn features.
    const auto comesIntoForce = [&](uint32_t data, size_t names) {
        ofstream(m_oPath) << "[[feature]]\ncode = 1\ndata = " << data << "\ncomponents = ["
                          << (names == 1 ? "'Voice'" : "'Voice', 'Gateway'") << "]\n";
        for (int i = 0; i < 400 && !isInForce(data, names); ++i) {
            OvuMfwProcessNextMessage(50);
            control.timeout();
        }
        return isInForce(data, names);
    };
    EXPECT_FALSE(CFeatureSource::instance().supply(control)) << "there is no list yet";
    ofstream(m_oPath) << "count = 0";
    EXPECT_TRUE(CFeatureSource::instance().supply(control));
    for (const char* fault : {"changes unseen", "unseen once the framework was initialised anew"}) {
        ASSERT_EQ(OvuMfwInitialize(), 0);
        CFeatureSource::instance().startWatching();
        EXPECT_TRUE(comesIntoForce(10, 2)) << fault;
        EXPECT_TRUE(comesIntoForce(10, 1)) << "held back, then not placed upon a later note";
        OvuMfwCleanup();
    }
}

} // namespace
