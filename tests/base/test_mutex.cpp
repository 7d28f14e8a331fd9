#include "base/CArray.h"
#include "base/COswLightweightMutex.h"

#include "fake/fake_platform.h"

#include <gtest/gtest.h>

namespace {

TEST(MutexTest, ResultsAreOneForSuccess) {
    CFakePlatform& platform = CFakePlatform::get();
    platform.reset();
    COswLightweightMutex mutex;
    EXPECT_EQ(mutex.lock(), 1);
    EXPECT_EQ(mutex.trylock(), 0);
    platform.fail("osUnlockLwtMutex", 22);
    EXPECT_EQ(mutex.unlock(), 0);
    EXPECT_EQ(mutex.unlock(), 1);
    EXPECT_EQ(mutex.trylock(), 1);
}

TEST(MutexTest, ScopedLockUnlocksOnEveryWayOutAndOnlyWhatItLocked) {
    CFakePlatform& platform = CFakePlatform::get();
    platform.reset();
    COswLightweightMutex mutex;
    try {
        const CScopedLock lock(mutex);
        EXPECT_EQ(mutex.trylock(), 0);
        throw 1;
    } catch (int) {
        EXPECT_EQ(platform.callsOf("osUnlockLwtMutex"), 1);
    }
    platform.fail("osLockLwtMutex", 22);
    { const CScopedLock lock(mutex); }
    EXPECT_EQ(platform.callsOf("osUnlockLwtMutex"), 1);
}

TEST(CArrayTest, DelErasesTheFirstEqualPointerOnly) {
    int a = 0, b = 0, absent = 0;
    CArray<int*> array;
    array.m_vItems = {&a, &b, &a};
    EXPECT_EQ(array.del(&absent), 0);
    EXPECT_EQ(array.del(&a), 1);
    EXPECT_EQ(array.m_vItems, (std::vector<int*>{&b, &a}));
}

} // namespace
