#include "kestrel/Mutex.h"

#include "KestrelTestUtil.h"

#include <gtest/gtest.h>

using Kestrel::Mutex;

// Only a recursive mutex lets its holder in again, and then needs as many unlocks.
TEST(Mutex, HolderTakesItAgainOnlyWhenRecursive)
{
    for (bool recursive : {false, true}) {
        Mutex mutex(recursive);
        EXPECT_FALSE(heldElsewhere(mutex));
        mutex.lock();
        EXPECT_TRUE(heldElsewhere(mutex));
        ASSERT_EQ(mutex.tryLock(), recursive);
        if (recursive)
            mutex.unlock();
        EXPECT_TRUE(heldElsewhere(mutex)) << recursive;
        mutex.unlock();
        EXPECT_FALSE(heldElsewhere(mutex)) << recursive;
    }
}
