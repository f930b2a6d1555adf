#pragma once
#include "kestrel/kestrel_export.h"

#include <pthread.h>

namespace Kestrel {

class Condition;

// A mutual exclusion lock, plain or recursive. A recursive mutex may be locked again by the thread
// that holds it and is released by as many unlocks. Not copyable.
class KESTREL_EXPORT Mutex
{
public:
    explicit Mutex(bool recursive = false);
    ~Mutex();                 // must not be held
    Mutex(const Mutex &) = delete;
    Mutex &operator=(const Mutex &) = delete;

    void lock();
    bool tryLock();           // true if taken
    void unlock();            // only by the holder
    bool isRecursive() const { return m_recursive; }

private:
    friend class Condition;
    pthread_mutex_t m_mutex;
    bool m_recursive;
};

// Holds a Mutex for its scope; unlock() and relock() let a caller step out in the middle.
class KESTREL_EXPORT MutexLocker
{
public:
    explicit MutexLocker(Mutex &mutex) : m_mutex(mutex) { m_mutex.lock(); }
    ~MutexLocker()
    {
        if (m_locked)
            m_mutex.unlock();
    }
    MutexLocker(const MutexLocker &) = delete;
    MutexLocker &operator=(const MutexLocker &) = delete;

    void unlock()
    {
        if (m_locked) {
            m_locked = false;
            m_mutex.unlock();
        }
    }
    void relock()
    {
        if (!m_locked) {
            m_mutex.lock();
            m_locked = true;
        }
    }
    Mutex &mutex() const { return m_mutex; }

private:
    Mutex &m_mutex;
    bool m_locked = true;
};

} // namespace Kestrel
