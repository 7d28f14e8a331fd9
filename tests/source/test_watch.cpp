#include "source/CListWatch.h"
#include "support/files.h"

namespace {

using namespace std::chrono_literals;
namespace fs = std::filesystem;

TEST(CListWatch, EveryWayToReplaceTheFileIsSeen) {
    const CTestDirectory directory;
    const fs::path path = directory.file("features.toml");
    const fs::path real = directory.file("etc") / fs::path("real");
    CListWatch watch(path);
    CListWatch late(real);
    put(path, "1");
    EXPECT_TRUE(watch.wait(10s)) << "created";
    put(path, "2");
    EXPECT_TRUE(watch.wait(10s)) << "written in place";
    put(directory.file("new"), "3");
    EXPECT_FALSE(watch.wait(1ms)) << "another file";
    fs::rename(directory.file("new"), path);
    EXPECT_TRUE(watch.wait(10s)) << "renamed over";
    for (const char* text : {"4", "after the directory went and came again"}) {
        fs::remove_all(real.parent_path());
        late.wait(1ms);
        fs::create_directory(real.parent_path());
        late.wait(1ms);
        put(real, text);
        EXPECT_TRUE(late.wait(10s)) << text;
    }
    fs::remove(path);
    fs::create_symlink(real, path);
    EXPECT_TRUE(!watch.wait(1ms) && watch.wait(1ms)) << "replaced by a link, and standing still since";
    put(real, "5");
    EXPECT_TRUE(!watch.wait(1ms) && watch.wait(1ms)) << "written behind the link, and standing still since";
    EXPECT_FALSE(watch.wait(1ms)) << "reported once";
}

} // namespace
