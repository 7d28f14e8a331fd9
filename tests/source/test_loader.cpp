#include "fake/fake_platform.h"
#include "features/CQelControl.h"
#include "source/CFeatureLoader.h"
#include "source/CListWatch.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

namespace {

using namespace std::chrono_literals;

class CListFileTest : public testing::Test {
protected:
    CListFileTest() { CFakePlatform::get().reset(); }
    ~CListFileTest() override { std::filesystem::remove_all(m_oDirectory); }

    static std::string makeDirectory() {
        std::string pattern = std::filesystem::temp_directory_path() / "qelXXXXXX";
        return mkdtemp(pattern.data());
    }
    static void write(const std::filesystem::path& path, const std::string& text) {
        std::ofstream(path) << text;
    }

    std::string path() const { return m_oDirectory / "features.toml"; }

    // Hands the loader a list of one feature; true if it is taken.
    bool load(const std::string& code, const std::string& more) {
        write(path(), "# a list\n[[feature]]\ncode = " + code + "\n" + more);
        return m_oLoader.load(m_oControl).has_value();
    }

    std::filesystem::path m_oDirectory = makeDirectory();
    CQelControl m_oControl;
    CFeatureLoader m_oLoader{path()};
};

TEST_F(CListFileTest, BadOrUnchangedListIsNotHandedOver) {
    EXPECT_TRUE(load("1", "data = 10\ncomponents = []"));
    EXPECT_FALSE(load("1", "\n# moved down\ndata = 10\ncomponents = []"));
    EXPECT_EQ(CFakePlatform::get().logged(31173).size(), 1u);
    EXPECT_FALSE(load("x", "data = -1\ncomponents = []"));
    const auto errors = CFakePlatform::get().logged(31170);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(errors[0].starts_with(path() + ":3: ")) << errors[0];
    EXPECT_EQ(CFakePlatform::get().logged(31171).size(), 1u);
    EXPECT_FALSE(load("1", "data = 10\ncomponents = []")) << "the good list is still the one in force";
    EXPECT_TRUE(load("1", "data = 10\ncomponents = ['Voice']"));
}

TEST_F(CListFileTest, KeptDataCannotChangeToZero) {
    const std::string kept = "components = []\nsourced = true\n";
    EXPECT_TRUE(load("1", "data = 0\n" + kept));
    EXPECT_TRUE(load("1", "data = 7\n" + kept));
    EXPECT_FALSE(load("1", "data = 0\n" + kept));
    const auto errors = CFakePlatform::get().logged(31170);
    ASSERT_EQ(errors.size(), 1u);
    EXPECT_TRUE(errors[0].starts_with(path() + ":2: ")) << errors[0];
    EXPECT_TRUE(load("1", "data = 0\ncomponents = []")) << "told anew, not modified";
}

TEST_F(CListFileTest, EveryWayToReplaceTheFileIsSeen) {
    std::filesystem::create_directory(m_oDirectory / "late");
    write(m_oDirectory / "late" / "real", "1");
    CListWatch watch(path());
    EXPECT_FALSE(watch.wait(1ms));
    write(path(), "2");
    EXPECT_TRUE(watch.wait(10s)) << "created";
    write(path(), "3");
    EXPECT_TRUE(watch.wait(10s)) << "written in place";
    write(m_oDirectory / "new", "4");
    std::filesystem::rename(m_oDirectory / "new", path());
    EXPECT_TRUE(watch.wait(10s)) << "renamed over";
    write(m_oDirectory / "other", "5");
    EXPECT_FALSE(watch.wait(1ms)) << "another file";
    std::filesystem::remove(path());
    std::filesystem::create_symlink(m_oDirectory / "late" / "real", path());
    EXPECT_FALSE(watch.wait(1ms)) << "may still be changing";
    EXPECT_TRUE(watch.wait(1ms)) << "replaced by a link";
    write(m_oDirectory / "late" / "real", "6 and more");
    EXPECT_FALSE(watch.wait(1ms)) << "may still be changing";
    EXPECT_TRUE(watch.wait(1ms)) << "behind the link";
    EXPECT_FALSE(watch.wait(1ms)) << "reported once";
}

TEST_F(CListFileTest, DirectoryMayComeLateOrGoAndComeAgain) {
    const auto directory = m_oDirectory / "etc";
    CListWatch watch(directory / "features.toml");
    for (int i = 0; i < 2; ++i) {
        EXPECT_FALSE(watch.wait(1ms));
        std::filesystem::create_directory(directory);
        EXPECT_FALSE(watch.wait(1ms));
        write(directory / "features.toml", "1");
        EXPECT_TRUE(watch.wait(10s));
        std::filesystem::remove_all(directory);
        watch.wait(1ms);
        EXPECT_TRUE(watch.wait(1ms)) << "gone";
    }
}

} // namespace
