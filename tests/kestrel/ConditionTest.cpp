#include "kestrel/Condition.h"

#include "kestrel/Mutex.h"

#include <gtest/gtest.h>

#include <chrono>
#include <future>
#include <thread>

using Kestrel::Condition;
using Kestrel::Mutex;

namespace {

bool heldElsewhere(Mutex &mutex)
{
    return std::async(std::launch::async, [&] {
               if (!mutex.tryLock())
                   return true;
               mutex.unlock();
               return false;
           }).get();
}

} // namespace

class ConditionTimeout : public ::testing::TestWithParam<bool>
{
};

TEST_P(ConditionTimeout, ComesBackFalseWithTheMutexHeld)
{
    Mutex mutex(GetParam());
    Condition condition;
    mutex.lock();
    const auto start = std::chrono::steady_clock::now();
    EXPECT_FALSE(condition.wait(mutex, 50));
    EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(45));
    EXPECT_TRUE(heldElsewhere(mutex));
    mutex.unlock();
    EXPECT_FALSE(heldElsewhere(mutex));
}

INSTANTIATE_TEST_SUITE_P(Kinds, ConditionTimeout, ::testing::Values(false, true),
                         [](const auto &info) { return info.param ? "Recursive" : "Plain"; });

TEST(Condition, ZeroTimeoutReturnsAtOnce)
{
    Mutex mutex;
    Condition condition;
    mutex.lock();
    EXPECT_FALSE(condition.wait(mutex, 0));
    mutex.unlock();
}

TEST(Condition, WaitReleasesTheMutexMeanwhile)
{
    Mutex mutex(true);
    Condition condition;
    bool flag = false;
    auto waiter = std::async(std::launch::async, [&] {
        mutex.lock();
        while (!flag)
            condition.wait(mutex, 10000);
        mutex.unlock();
        return true;
    });
    // The waiter holds the mutex only outside wait(), so this lock can't block for long.
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    mutex.lock();
    flag = true;
    mutex.unlock();
    condition.wakeAll(mutex);
    ASSERT_EQ(waiter.wait_for(std::chrono::seconds(10)), std::future_status::ready);
    EXPECT_TRUE(waiter.get());
}

TEST(Condition, WakeAllWakesEveryWaiter)
{
    Mutex mutex;
    Condition condition;
    int waiting = 0;
    bool go = false;
    std::vector<std::future<bool>> waiters;
    for (int i = 0; i < 3; ++i) {
        waiters.push_back(std::async(std::launch::async, [&] {
            mutex.lock();
            ++waiting;
            bool woken = true;
            while (!go && woken)
                woken = condition.wait(mutex, 10000);
            mutex.unlock();
            return woken;
        }));
    }
    for (int spins = 0; spins < 1000; ++spins) {
        mutex.lock();
        const bool all = waiting == 3;
        mutex.unlock();
        if (all)
            break;
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    mutex.lock();
    go = true;
    condition.wakeAll();
    mutex.unlock();
    for (auto &w : waiters) {
        ASSERT_EQ(w.wait_for(std::chrono::seconds(10)), std::future_status::ready);
        EXPECT_TRUE(w.get()) << "a waiter timed out instead of being woken";
    }
}
