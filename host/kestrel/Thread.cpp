#include "kestrel/Thread.h"

#include "kestrel/Trace.h"

#include <chrono>
#include <condition_variable>
#include <exception>
#include <mutex>
#include <pthread.h>
#include <system_error>
#include <thread>

namespace Kestrel {

class Thread::D
{
public:
    QString name;
    std::mutex mutex;                  // guards the rest
    std::condition_variable changed;   // signalled when started or running changes
    std::thread thread;                // joinable from run() until a waitEnd joins it
    bool running = false;              // from run() until childLoop() has returned
    bool started = false;              // the thread of the current run is about to call childLoop()
};

namespace {

// Linux limits thread names to 15 bytes and a NUL.
void nameCurrentThread(const QString &name)
{
    QByteArray bytes = name.toUtf8().left(15);
    pthread_setname_np(pthread_self(), bytes.constData());
}

} // namespace

Thread::Thread(const QString &name)
    : m_d(std::make_shared<D>())
{
    m_d->name = name;
}

Thread::~Thread()
{
    std::unique_lock<std::mutex> lock(m_d->mutex);
    if (!m_d->thread.joinable())
        return;
    if (m_d->thread.get_id() == std::this_thread::get_id()) {
        // The thread is deleting its own object. It can't join itself; the rest of its run touches
        // only D, which it shares, so letting it go is safe.
        Trace::error("Thread::~Thread # Thread %s destroyed from itself", qUtf8Printable(m_d->name));
        m_d->thread.detach();
        return;
    }
    if (m_d->running)
        Trace::warning("Thread::~Thread # Thread %s still running, waiting for it", qUtf8Printable(m_d->name));
    std::thread thread = std::move(m_d->thread);
    lock.unlock();
    thread.join();
}

bool Thread::run()
{
    std::unique_lock<std::mutex> lock(m_d->mutex);
    if (m_d->running) {
        Trace::warning("Thread::run # Thread %s is already running", qUtf8Printable(m_d->name));
        return false;
    }
    // An earlier run that ended without a waitEnd: its thread has left childLoop() and no longer
    // takes the mutex, so joining here is quick and can't deadlock.
    if (m_d->thread.joinable())
        m_d->thread.join();
    m_d->running = true;
    m_d->started = false;
    std::shared_ptr<D> d = m_d;
    try {
        m_d->thread = std::thread([this, d] {
            nameCurrentThread(d->name);
            {
                std::lock_guard<std::mutex> startLock(d->mutex);
                d->started = true;
                d->changed.notify_all();
            }
            try {
                childLoop();
            } catch (const std::exception &e) {
                Trace::error("Thread::run # Uncaught exception in thread %s: %s", qUtf8Printable(d->name), e.what());
            } catch (...) {
                Trace::error("Thread::run # Uncaught exception in thread %s", qUtf8Printable(d->name));
            }
            // `this` may be gone by now (an object deleted by its own thread); only d is used.
            std::lock_guard<std::mutex> endLock(d->mutex);
            d->running = false;
            d->changed.notify_all();
        });
    } catch (const std::system_error &e) {
        m_d->running = false;
        Trace::error("Thread::run # Failed to start thread %s: %s", qUtf8Printable(m_d->name), e.what());
        return false;
    }
    // Returning only once the thread is on its way into childLoop() keeps an object that is
    // destroyed right after run() from having its derived part gone before the virtual call.
    m_d->changed.wait(lock, [this] { return m_d->started; });
    return true;
}

bool Thread::isRunning() const
{
    std::lock_guard<std::mutex> lock(m_d->mutex);
    return m_d->running;
}

bool Thread::waitEnd(int milliseconds)
{
    std::unique_lock<std::mutex> lock(m_d->mutex);
    if (m_d->thread.joinable() && m_d->thread.get_id() == std::this_thread::get_id()) {
        Trace::warning("Thread::waitEnd # Thread %s can't wait for itself", qUtf8Printable(m_d->name));
        return false;
    }
    if (milliseconds <= 0)
        m_d->changed.wait(lock, [this] { return !m_d->running; });
    else if (!m_d->changed.wait_for(lock, std::chrono::milliseconds(milliseconds), [this] { return !m_d->running; }))
        return false;
    if (!m_d->thread.joinable())
        return true;
    std::thread thread = std::move(m_d->thread);
    lock.unlock();
    thread.join();
    return true;
}

const QString &Thread::name() const
{
    return m_d->name;
}

} // namespace Kestrel
