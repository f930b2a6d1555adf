#pragma once
// Internal to Kestrel: the bookkeeping that Task and BGThread share. Not part of the interface.

#include "kestrel/BGThread.h"
#include "kestrel/Task.h"

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <memory>
#include <mutex>
#include <vector>

namespace Kestrel {

using TaskClock = std::chrono::steady_clock;

// Lock order: BGThread::D::mutex, then Task::D::mutex. Neither is held while a task's virtual
// operations run.
class Task::D
{
public:
    explicit D(float p) : priority(p) {}

    const float priority;
    std::atomic<int> state{Task::Pending};

    std::mutex mutex;                       // guards the rest
    std::condition_variable runEnded;       // signalled when running turns false
    TaskClock::time_point due = TaskClock::time_point::min();   // the next run; min = at once
    bool running = false;                   // claimed by a pool thread or a runNow(true) caller
    bool initialized = false;               // initialize() has been called
    bool retired = false;                   // finished() or canceled() was called: never runs again
    std::weak_ptr<BGThread::D> pool;        // the pool that holds the task, if any
    uint64_t order = 0;                     // queueing order, the last tie-break
};

class BGThread::D
{
public:
    class Worker;

    explicit D(unsigned threadCount);
    ~D();

    void workerLoop();
    void wake();
    // Runs a task whose running flag the caller has set, on the calling thread.
    static void runTask(Task &task);
    // Ends a task that isn't running without a run, and tells it so by canceled().
    static void cancelTask(Task &task);

    const unsigned threads;
    std::mutex mutex;                       // guards the rest
    std::condition_variable changed;        // a task was added, became due earlier, or ended a run
    std::vector<std::shared_ptr<Task>> tasks;
    std::vector<std::unique_ptr<Worker>> workers;   // started with the first task
    bool stopping = false;
    uint64_t nextOrder = 0;
};

} // namespace Kestrel
