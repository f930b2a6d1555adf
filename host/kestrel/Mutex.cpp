#include "kestrel/Mutex.h"

#include "kestrel/Trace.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>

namespace Kestrel {

Mutex::Mutex(bool recursive)
    : m_recursive(recursive)
{
    pthread_mutexattr_t attr;
    pthread_mutexattr_init(&attr);
    pthread_mutexattr_settype(&attr, recursive ? PTHREAD_MUTEX_RECURSIVE : PTHREAD_MUTEX_NORMAL);
    pthread_mutex_init(&m_mutex, &attr);
    pthread_mutexattr_destroy(&attr);
}

Mutex::~Mutex()
{
    pthread_mutex_destroy(&m_mutex);
}

void Mutex::lock()
{
    const int rc = pthread_mutex_lock(&m_mutex);
    if (rc != 0) {
        // Only a corrupted mutex or a deadlock the library detects gets here; going on unlocked
        // would corrupt whatever the mutex guards.
        Trace::error("Mutex::lock # pthread_mutex_lock failed: %s", std::strerror(rc));
        std::abort();
    }
}

bool Mutex::tryLock()
{
    return pthread_mutex_trylock(&m_mutex) == 0;
}

void Mutex::unlock()
{
    pthread_mutex_unlock(&m_mutex);
}

} // namespace Kestrel
