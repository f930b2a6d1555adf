#include "kestrel/Condition.h"

#include "kestrel/Mutex.h"
#include "KestrelTestUtil.h"

#include <gtest/gtest.h>

#include <vector>

using Kestrel::Condition;
using Kestrel::Mutex;
using Kestrel::MutexLocker;

// A timed-out wait comes back false holding the mutex. Three waiters can only all count themselves
// if wait() releases it meanwhile.
TEST(Condition, TimeOutComesBackWithTheMutexHeldAndWakeAllWakesEveryWaiter)
{
    for (bool recursive : {false, true}) {
        SCOPED_TRACE(recursive ? "recursive, wakeAll(mutex)" : "plain, wakeAll() under the mutex");
        Mutex mutex(recursive);
        Condition condition;
        mutex.lock();
        EXPECT_FALSE(condition.wait(mutex, 0));
        const auto start = std::chrono::steady_clock::now();
        EXPECT_FALSE(condition.wait(mutex, 50));
        EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));
        EXPECT_TRUE(heldElsewhere(mutex));
        mutex.unlock();
        int waiting = 0;
        bool go = false;
        std::vector<std::future<bool>> waiters;
        for (int i = 0; i < 3; ++i)
            waiters.push_back(std::async(std::launch::async, [&] {
                MutexLocker locker(mutex);
                ++waiting;
                bool woken = true;
                while (!go && woken)
                    woken = condition.wait(mutex, 10000);
                return woken;
            }));
        ASSERT_TRUE(eventually([&] { MutexLocker locker(mutex); return waiting == 3; }));
        mutex.lock();
        go = true;
        if (!recursive)
            condition.wakeAll();
        mutex.unlock();
        if (recursive)
            condition.wakeAll(mutex);
        for (auto &w : waiters)
            EXPECT_TRUE(ready(w) && w.get()) << "a waiter timed out instead of being woken";
    }
}
