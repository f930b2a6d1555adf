#pragma once
#include "kestrel/kestrel_export.h"

#include <functional>
#include <memory>

namespace Kestrel {

class BGThread;

// One unit of work for a BGThread pool. The pool calls initialize() before the first run, then
// doTask() at the scheduled time, again and again until a run leaves the state Done; then
// finished() once, and the pool lets the task go. A run that doesn't move the scheduled time
// forward is run again as soon as the pool gets to it. A task still pending when its pool shuts
// down gets canceled() instead of finished().
//
// Threads: a task is run by one thread at a time, a pool thread or the caller of runNow(true).
// state(), setState() and scheduleFromNowSecs() may be called from any thread.
class KESTREL_EXPORT Task
{
public:
    // The state starts as Pending; doTask() sets Done to end the task.
    enum State { Pending = 0, Done = 2 };

    // Higher priority runs first among tasks that are due at the same time.
    explicit Task(float priority = 1.0f);
    virtual ~Task();
    Task(const Task &) = delete;
    Task &operator=(const Task &) = delete;

    virtual void doTask() = 0;
    virtual void initialize() {}
    virtual void canceled() {}
    virtual void finished() {}

    int state() const;
    void setState(int state);
    float priority() const;

    // The next run is due `seconds` from now (immediately for 0 or less).
    void scheduleFromNowSecs(double seconds);

    // Makes a pending task due at once. With wait false the pool's thread runs it. With wait true
    // the call returns only after one run that began after the call has ended (or at once if the
    // task is done): a run in progress on a pool thread is waited for, and the new run happens on
    // the calling thread, which therefore must not hold locks that the task takes.
    void runNow(bool wait);

private:
    friend class BGThread;
    class D;
    std::unique_ptr<D> m_d;
};

// A task whose doTask() calls a function with the task, so that the function can set the state
// or reschedule it.
class KESTREL_EXPORT FunctionTask : public Task
{
public:
    explicit FunctionTask(std::function<void(Task &)> function, float priority = 1.0f);
    ~FunctionTask() override;
    void doTask() override;

private:
    std::function<void(Task &)> m_function;
};

} // namespace Kestrel
