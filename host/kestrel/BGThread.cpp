#include "kestrel/BGThread.h"

#include "kestrel/BGThreadPrivate.h"
#include "kestrel/Thread.h"
#include "kestrel/Trace.h"

#include <algorithm>
#include <cstdlib>
#include <exception>

namespace Kestrel {

class BGThread::D::Worker : public Thread
{
public:
    explicit Worker(BGThread::D &pool) : Thread(QStringLiteral("BGThread")), m_pool(pool) {}
    ~Worker() override { waitEnd(0); }

protected:
    void childLoop() override { m_pool.workerLoop(); }

private:
    BGThread::D &m_pool;   // outlives the worker: shutdown() joins before D goes
};

namespace {

// The process-wide pool. The state is never destroyed, so that instance() stays callable during
// static destruction; the pool itself is shut down by an exit handler registered on first use,
// which runs before the destructors of everything constructed earlier (Trace among them).
struct Instance
{
    std::mutex mutex;                    // guards the rest
    std::shared_ptr<BGThread> pool;
    bool exited = false;
};

Instance &instanceState()
{
    static Instance *state = new Instance;
    return *state;
}

void shutdownInstanceAtExit()
{
    Instance &state = instanceState();
    std::shared_ptr<BGThread> pool;
    {
        std::lock_guard<std::mutex> lock(state.mutex);
        state.exited = true;
        pool.swap(state.pool);
    }
    if (pool)
        pool->shutdown();
}

} // namespace

BGThread::D::D(unsigned threadCount)
    : threads(threadCount ? threadCount : 1)
{
}

BGThread::D::~D() = default;

void BGThread::D::cancelTask(Task &task)
{
    Task::D &d = *task.m_d;
    {
        std::lock_guard<std::mutex> lock(d.mutex);
        if (d.retired || d.running)
            return;
        d.retired = true;
        d.pool.reset();
    }
    try {
        task.canceled();
    } catch (...) {
        Trace::error("BGThread::cancel # Task's canceled() threw");
    }
}

void BGThread::D::wake()
{
    std::lock_guard<std::mutex> lock(mutex);
    changed.notify_all();
}

// Each pool thread: pick the due task with the earliest time (then the higher priority, then the
// older), claim it, run it without the pool lock, repeat until the pool stops.
void BGThread::D::workerLoop()
{
    std::unique_lock<std::mutex> lock(mutex);
    while (!stopping) {
        std::shared_ptr<Task> best;
        TaskClock::time_point bestDue;
        float bestPriority = 0.f;
        uint64_t bestOrder = 0;
        std::vector<std::shared_ptr<Task>> released;
        for (auto it = tasks.begin(); it != tasks.end();) {
            Task::D &d = *(*it)->m_d;
            bool retired;
            {
                std::lock_guard<std::mutex> taskLock(d.mutex);
                retired = d.retired;
                const bool better = !best || d.due < bestDue ||
                                    (d.due == bestDue && (d.priority > bestPriority ||
                                                          (d.priority == bestPriority && d.order < bestOrder)));
                if (!retired && !d.running && better) {
                    best = *it;
                    bestDue = d.due;
                    bestPriority = d.priority;
                    bestOrder = d.order;
                }
            }
            if (retired) {
                released.push_back(std::move(*it));
                it = tasks.erase(it);
            } else {
                ++it;
            }
        }
        if (!released.empty()) {
            // The pool may hold the last reference: a task's destructor runs without the pool lock.
            best.reset();
            lock.unlock();
            released.clear();
            lock.lock();
            continue;
        }
        if (!best) {
            changed.wait(lock);
            continue;
        }
        if (bestDue > TaskClock::now()) {
            changed.wait_until(lock, bestDue);
            continue;
        }
        {
            std::lock_guard<std::mutex> taskLock(best->m_d->mutex);
            // Picked under the task's lock, which was let go since: a runNow(true) may have run it
            // meanwhile, or be running it now. A retired task must not run again.
            if (best->m_d->retired || best->m_d->running)
                continue;
            best->m_d->running = true;
        }
        lock.unlock();
        runTask(*best);
        best.reset();   // a task may be released here, by its last owner, outside the pool lock
        lock.lock();
    }
}

BGThread::BGThread(unsigned threads)
    : m_d(std::make_shared<D>(threads))
{
}

BGThread::~BGThread()
{
    shutdown();
}

std::shared_ptr<BGThread> BGThread::instance()
{
    Instance &state = instanceState();
    std::lock_guard<std::mutex> lock(state.mutex);
    if (state.pool)
        return state.pool;
    if (state.exited) {
        // Late callers during exit get a pool that cancels whatever they add.
        auto stopped = std::make_shared<BGThread>();
        stopped->shutdown();
        return stopped;
    }
    state.pool = std::make_shared<BGThread>();
    static const bool registered = std::atexit(shutdownInstanceAtExit) == 0;
    if (!registered)
        Trace::warning("BGThread::instance # Can't register the exit handler; the pool isn't shut down at exit");
    return state.pool;
}

void BGThread::addTask(std::shared_ptr<Task> task)
{
    if (!task)
        return;
    Task::D &d = *task->m_d;
    std::unique_lock<std::mutex> lock(m_d->mutex);
    if (m_d->stopping) {
        lock.unlock();
        D::cancelTask(*task);
        return;
    }
    {
        std::lock_guard<std::mutex> taskLock(d.mutex);
        if (d.retired)
            return;
        if (auto owner = d.pool.lock()) {
            if (owner != m_d)
                Trace::warning("BGThread::addTask # Task already belongs to another pool");
            return;
        }
        d.pool = m_d;
        d.order = m_d->nextOrder++;
    }
    m_d->tasks.push_back(std::move(task));
    if (m_d->workers.empty()) {
        for (unsigned i = 0; i < m_d->threads; ++i) {
            m_d->workers.push_back(std::make_unique<D::Worker>(*m_d));
            m_d->workers.back()->run();
        }
    }
    m_d->changed.notify_all();
}

unsigned BGThread::taskCount() const
{
    std::lock_guard<std::mutex> lock(m_d->mutex);
    unsigned count = 0;
    for (const auto &task : m_d->tasks) {
        std::lock_guard<std::mutex> taskLock(task->m_d->mutex);
        count += task->m_d->retired ? 0 : 1;
    }
    return count;
}

void BGThread::shutdown()
{
    std::vector<std::unique_ptr<D::Worker>> workers;
    {
        std::lock_guard<std::mutex> lock(m_d->mutex);
        m_d->stopping = true;
        workers.swap(m_d->workers);
        m_d->changed.notify_all();
    }
    // Runs in progress end first; the workers' destructors join.
    workers.clear();
    std::vector<std::shared_ptr<Task>> tasks;
    {
        std::lock_guard<std::mutex> lock(m_d->mutex);
        tasks.swap(m_d->tasks);
    }
    for (const auto &task : tasks)
        D::cancelTask(*task);
}

// Runs one claimed task on the current thread: initialize() on the first run, doTask(), finished()
// when the run left it done. Then clears the claim and wakes the runNow(true) waiters and the pool.
void BGThread::D::runTask(Task &task)
{
    Task::D &d = *task.m_d;
    bool first;
    {
        std::lock_guard<std::mutex> lock(d.mutex);
        first = !d.initialized;
        d.initialized = true;
    }
    try {
        if (first)
            task.initialize();
        task.doTask();
    } catch (const std::exception &e) {
        // A task that throws would most likely throw again; it is ended rather than repeated.
        Trace::error("BGThread::runTask # Task failed, ending it: %s", e.what());
        task.setState(Task::Done);
    } catch (...) {
        Trace::error("BGThread::runTask # Task failed, ending it");
        task.setState(Task::Done);
    }
    const bool done = task.state() == Task::Done;
    if (done) {
        try {
            task.finished();
        } catch (...) {
            Trace::error("BGThread::runTask # Task's finished() threw");
        }
    }
    std::shared_ptr<BGThread::D> pool;
    {
        std::lock_guard<std::mutex> lock(d.mutex);
        d.running = false;
        d.retired = d.retired || done;
        // A run that didn't move its time forward is due again now, behind tasks that waited.
        d.due = std::max(d.due, TaskClock::now());
        d.runEnded.notify_all();
        pool = d.pool.lock();
    }
    if (pool)
        pool->wake();
}


} // namespace Kestrel
