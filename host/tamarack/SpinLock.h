#pragma once

#include <atomic>
#include <thread>

namespace Tamarack {

// A one-flag lock for the few instructions that copy an attribute's value. Never held while
// calling out of the attribute (listeners, other attributes). Usable with std::lock_guard.
class SpinLock
{
public:
    void lock()
    {
        for (int spins = 0; m_flag.test_and_set(std::memory_order_acquire); ++spins)
            if (spins >= 64)
                std::this_thread::yield();
    }
    void unlock() { m_flag.clear(std::memory_order_release); }

private:
    std::atomic_flag m_flag = ATOMIC_FLAG_INIT;
};

} // namespace Tamarack
