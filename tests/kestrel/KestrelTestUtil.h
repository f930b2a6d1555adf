#pragma once
#include "kestrel/Mutex.h"

#include <chrono>
#include <functional>
#include <future>
#include <thread>

// How long a threaded test waits for what should happen at once: reached only when it fails.
const auto s_patience = std::chrono::seconds(10);

// `within` is longer only for work that takes long on a busy machine (transfers of many MiB).
inline bool eventually(const std::function<bool()> &condition, std::chrono::milliseconds within = s_patience)
{
    for (const auto deadline = std::chrono::steady_clock::now() + within; !condition();) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

template <typename Future>
bool ready(const Future &future) { return future.wait_for(s_patience) == std::future_status::ready; }

// True when another thread can't take the mutex right now.
inline bool heldElsewhere(Kestrel::Mutex &mutex)
{
    return std::async(std::launch::async, [&] { return !mutex.tryLock() || (mutex.unlock(), false); }).get();
}
