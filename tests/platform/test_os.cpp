// Process state, named events, the lightweight mutex and the runtime directory.
#include "base/COswLightweightMutex.h"
#include "processes.h"

#include <sys/stat.h>

namespace {

using COsTest = CPlatformTest;

// What a dead daemon leaves, and its signal to another process: among the command line's tests.
TEST_F(COsTest, signalsPileUpOrBlockOrAKillTakesTheNewerEventOrALoopSpins) {
    uint32_t handle = 0;
    uint32_t second = 0;
    ASSERT_TRUE(osCreateEvent("stop", 0, &handle) == 0 && osOpenEvent("stop", &second) == 0);
    EXPECT_EQ(osCreateEvent("stop", 0, &handle), OS_ERROR_EXISTS);
    for (int i = 0; i < 100000; ++i) { // more than a full pipe takes
        ASSERT_EQ(osSendEvent(handle), 0);
    }
    EXPECT_TRUE(osReceiveEvent(second, 0) == 0 && osReceiveEvent(second, 20) != 0);
    EXPECT_EQ(osKillEvent(handle), 0);
    EXPECT_EQ(osOpenEvent("stop", &handle), ENOENT);
    EXPECT_EQ(osCreateEvent("stop", 0, &handle), 0);
    EXPECT_EQ(osKillEvent(second), 0); // of the old event: the newer one keeps the name
    EXPECT_EQ(osOpenEvent("stop", &handle), 0);
    const auto begin = std::chrono::steady_clock::now();
    EXPECT_NE(osReceiveEvent(second, 50), 0);
    EXPECT_GE(std::chrono::steady_clock::now() - begin, std::chrono::milliseconds(50));
}

TEST_F(COsTest, threadsEnterTogetherOrSleepForever) {
    COswLightweightMutex mutex;
    long counter = 0;
    const auto work = [&] {
        for (int n = 0; n < 20000; ++n) {
            const CScopedLock lock(mutex);
            ++counter;
            if (n % 64 == 0) {
                std::this_thread::yield(); // so that others find it held, and go to sleep
            }
        }
    };
    { const std::jthread threads[] = {std::jthread(work), std::jthread(work), std::jthread(work)}; }
    EXPECT_EQ(counter, 60000);
    EXPECT_TRUE(mutex.trylock() == 1 && mutex.trylock() == 0);
    EXPECT_TRUE(mutex.unlock() == 1 && mutex.unlock() == 0);
}

TEST_F(COsTest, longPathOrTightUmaskKeepsProcessesApart) {
    const std::string deep = file(std::string(200, 'd'));
    setenv("QEL_RUNTIME_DIR", deep.c_str(), 1);
    const mode_t before = umask(0077);
    CChild peer = startPeer("deep", [](const CLine& line) {
        uint32_t handle = 0;
        int state = 0;
        line.tell(osCreateEvent("stop", 0, &handle) == 0 && osGetProcessState("me", &state) == 0 ? 'e' : '?');
        return hang(line);
    });
    umask(before);
    ASSERT_EQ(peer.hear(), 'e');
    int state = 0;
    EXPECT_EQ(osGetProcessState("me", &state), 0);
    EXPECT_EQ(state, OS_PROCESS_RUNNING);
    openEndpoint();
    EXPECT_EQ(sendText(peer.handle(), 1, "hello"), 0);
    using enum std::filesystem::perms;
    for (const auto& left : std::filesystem::directory_iterator(deep)) {
        EXPECT_NE(left.status().permissions() & others_write, none) << left;
    }
    EXPECT_EQ(std::filesystem::status(deep).permissions(), owner_all);
}

} // namespace
