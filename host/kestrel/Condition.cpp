#include "kestrel/Condition.h"

#include "kestrel/Mutex.h"

#include <cerrno>
#include <time.h>

namespace Kestrel {

Condition::Condition()
{
    pthread_condattr_t attr;
    pthread_condattr_init(&attr);
    pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
    pthread_cond_init(&m_cond, &attr);
    pthread_condattr_destroy(&attr);
}

Condition::~Condition()
{
    pthread_cond_destroy(&m_cond);
}

bool Condition::wait(Mutex &mutex, unsigned long milliseconds)
{
    timespec deadline;
    clock_gettime(CLOCK_MONOTONIC, &deadline);
    deadline.tv_sec += time_t(milliseconds / 1000);
    deadline.tv_nsec += long(milliseconds % 1000) * 1000000L;
    if (deadline.tv_nsec >= 1000000000L) {
        deadline.tv_sec += 1;
        deadline.tv_nsec -= 1000000000L;
    }
    // pthread_cond_timedwait releases and re-takes the mutex, also a recursive one held once.
    const int rc = pthread_cond_timedwait(&m_cond, &mutex.m_mutex, &deadline);
    return rc != ETIMEDOUT;
}

void Condition::wakeOne()
{
    pthread_cond_signal(&m_cond);
}

void Condition::wakeAll()
{
    pthread_cond_broadcast(&m_cond);
}

void Condition::wakeAll(Mutex &mutex)
{
    mutex.lock();
    pthread_cond_broadcast(&m_cond);
    mutex.unlock();
}

} // namespace Kestrel
