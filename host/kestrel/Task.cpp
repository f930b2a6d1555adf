#include "kestrel/Task.h"

#include "kestrel/BGThreadPrivate.h"
#include "kestrel/Trace.h"

#include <algorithm>
#include <exception>

namespace Kestrel {

Task::Task(float priority)
    : m_d(std::make_unique<D>(priority))
{
}

Task::~Task() = default;

int Task::state() const
{
    return m_d->state.load();
}

void Task::setState(int state)
{
    m_d->state.store(state);
}

float Task::priority() const
{
    return m_d->priority;
}

void Task::scheduleFromNowSecs(double seconds)
{
    const auto now = TaskClock::now();
    const auto delay = std::chrono::duration_cast<TaskClock::duration>(
        std::chrono::duration<double>(std::max(0.0, seconds)));
    {
        std::lock_guard<std::mutex> lock(m_d->mutex);
        m_d->due = now + delay;
    }
    // A pool asleep until a later time must see the earlier one.
    if (auto pool = m_d->pool.lock())
        pool->wake();
}

void Task::runNow(bool wait)
{
    std::unique_lock<std::mutex> lock(m_d->mutex);
    if (m_d->retired)
        return;
    m_d->due = TaskClock::time_point::min();
    if (!wait) {
        auto pool = m_d->pool.lock();
        lock.unlock();
        if (pool)
            pool->wake();
        return;
    }
    // A run already under way is waited for; then this thread makes the run of its own, so that
    // the call can't hang on a pool whose threads are all busy.
    m_d->runEnded.wait(lock, [this] { return !m_d->running || m_d->retired; });
    if (m_d->retired)
        return;
    m_d->running = true;
    lock.unlock();
    BGThread::D::runTask(*this);
}

FunctionTask::FunctionTask(std::function<void(Task &)> function, float priority)
    : Task(priority), m_function(std::move(function))
{
}

FunctionTask::~FunctionTask() = default;

void FunctionTask::doTask()
{
    if (m_function)
        m_function(*this);
    else
        setState(Done);
}

} // namespace Kestrel
