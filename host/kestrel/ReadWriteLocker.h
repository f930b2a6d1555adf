#pragma once
#include <QReadWriteLock>

// Scope lockers for QReadWriteLock with the interface of QReadLocker/QWriteLocker.
//
// Qt's own lockers synchronise inside libQt5Core, which ThreadSanitizer cannot see when Qt isn't
// built with it; every access guarded by such a lock then shows up as a race. In builds with
// ThreadSanitizer these lockers tell it about the acquire and release on the lock's address, so
// its reports keep meaning something. In other builds they are the plain lockers.
#if defined(__SANITIZE_THREAD__)
#define KESTREL_TSAN 1
#elif defined(__has_feature)
#if __has_feature(thread_sanitizer)
#define KESTREL_TSAN 1
#endif
#endif

#ifdef KESTREL_TSAN
extern "C" void __tsan_acquire(void *addr);
extern "C" void __tsan_release(void *addr);
#endif

namespace Kestrel {

namespace Detail {
inline void annotateAcquire(QReadWriteLock *lock)
{
#ifdef KESTREL_TSAN
    __tsan_acquire(lock);
#else
    (void)lock;
#endif
}
inline void annotateRelease(QReadWriteLock *lock)
{
#ifdef KESTREL_TSAN
    __tsan_release(lock);
#else
    (void)lock;
#endif
}

template <bool Write>
class Locker
{
public:
    explicit Locker(QReadWriteLock *lock) : m_lock(lock) { relock(); }
    ~Locker() { unlock(); }
    Locker(const Locker &) = delete;
    Locker &operator=(const Locker &) = delete;

    void unlock()
    {
        if (!m_locked)
            return;
        m_locked = false;
        annotateRelease(m_lock);
        m_lock->unlock();
    }
    void relock()
    {
        if (m_locked)
            return;
        if (Write)
            m_lock->lockForWrite();
        else
            m_lock->lockForRead();
        annotateAcquire(m_lock);
        m_locked = true;
    }

private:
    QReadWriteLock *m_lock;
    bool m_locked = false;
};
} // namespace Detail

using ReadLocker = Detail::Locker<false>;
using WriteLocker = Detail::Locker<true>;

} // namespace Kestrel
