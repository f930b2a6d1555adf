#pragma once
#include "kestrel/kestrel_export.h"

#include <pthread.h>

namespace Kestrel {

class Mutex;

// A condition variable for Kestrel::Mutex. Waits are measured on the monotonic clock, so a
// change of the wall clock neither shortens nor stretches them. As with any condition variable a
// wait may return early without a wake; callers re-check their predicate. Not copyable.
class KESTREL_EXPORT Condition
{
public:
    Condition();
    ~Condition();             // no thread may be waiting
    Condition(const Condition &) = delete;
    Condition &operator=(const Condition &) = delete;

    // The caller holds `mutex` exactly once (a recursive mutex too). Releases it, blocks until a
    // wake or for at most `milliseconds`, and takes it back before returning. Returns false when
    // the time ran out.
    bool wait(Mutex &mutex, unsigned long milliseconds);
    void wakeOne();
    void wakeAll();
    // Takes `mutex` around the wake, so that a waiter that checked its predicate under the mutex
    // can't miss it.
    void wakeAll(Mutex &mutex);

private:
    pthread_cond_t m_cond;
};

} // namespace Kestrel
