#include "kestrel/Mutex.h"

#include <gtest/gtest.h>

#include <thread>

using Kestrel::Mutex;
using Kestrel::MutexLocker;

namespace {

bool takenByAnotherThread(Mutex &mutex)
{
    bool got = false;
    std::thread other([&] {
        got = mutex.tryLock();
        if (got)
            mutex.unlock();
    });
    other.join();
    return !got;
}

} // namespace

TEST(Mutex, TryLockFailsWhileAnotherThreadHoldsIt)
{
    Mutex mutex;
    EXPECT_FALSE(takenByAnotherThread(mutex));
    mutex.lock();
    EXPECT_TRUE(takenByAnotherThread(mutex));
    mutex.unlock();
    EXPECT_FALSE(takenByAnotherThread(mutex));
}

TEST(Mutex, PlainMutexRefusesItsOwnHolder)
{
    Mutex mutex(false);
    mutex.lock();
    EXPECT_FALSE(mutex.tryLock());
    mutex.unlock();
}

TEST(Mutex, RecursiveMutexNeedsAsManyUnlocks)
{
    Mutex mutex(true);
    EXPECT_TRUE(mutex.isRecursive());
    mutex.lock();
    EXPECT_TRUE(mutex.tryLock());
    mutex.unlock();
    EXPECT_TRUE(takenByAnotherThread(mutex));
    mutex.unlock();
    EXPECT_FALSE(takenByAnotherThread(mutex));
}

TEST(MutexLocker, HoldsForItsScopeAndCanStepOut)
{
    Mutex mutex;
    {
        MutexLocker locker(mutex);
        EXPECT_TRUE(takenByAnotherThread(mutex));
        locker.unlock();
        EXPECT_FALSE(takenByAnotherThread(mutex));
        locker.relock();
        EXPECT_TRUE(takenByAnotherThread(mutex));
    }
    EXPECT_FALSE(takenByAnotherThread(mutex));
}
