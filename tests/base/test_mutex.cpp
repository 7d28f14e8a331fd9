#include "base/COswLightweightMutex.h"
#include "fake/fake_platform.h"

#include <gtest/gtest.h>

namespace {

TEST(MutexTest, ScopedLockUnlocksOnEveryWayOutAndOnlyWhatItLocked) {
    CFakePlatform& platform = CFakePlatform::get();
    COswLightweightMutex mutex;
    try {
        const CScopedLock lock(mutex);
        EXPECT_EQ(mutex.trylock(), 0);
        throw 1;
    } catch (int) {
        EXPECT_EQ(mutex.lock(), 1);
    }
    platform.fail("osUnlockLwtMutex", 22);
    EXPECT_EQ(mutex.unlock(), 0);
    EXPECT_EQ(mutex.unlock(), 1);
    platform.fail("osLockLwtMutex", 22);
    { const CScopedLock lock(mutex); }
    EXPECT_EQ(platform.callsOf("osUnlockLwtMutex"), 3) << "what was not locked was not unlocked";
}

} // namespace
