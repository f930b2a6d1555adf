#pragma once
#include "kestrel/kestrel_export.h"

#include <memory>

namespace Kestrel {

class Task;

// A pool of threads that runs Tasks at their scheduled times (see Task). Its threads start with
// the first task and are named "BGThread".
//
// instance() is the process-wide pool. It shuts down when the process exits (static destruction):
// runs in progress are finished, no new run starts, pending tasks get canceled(), and the threads
// are joined. A task that never returns from doTask() therefore holds up the exit. After that
// shutdown, instance() hands out a pool that is already shut down, whose addTask() cancels at once.
class KESTREL_EXPORT BGThread
{
public:
    explicit BGThread(unsigned threads = 2);
    virtual ~BGThread();   // shutdown()
    BGThread(const BGThread &) = delete;
    BGThread &operator=(const BGThread &) = delete;

    static std::shared_ptr<BGThread> instance();

    // Queues a task; the pool keeps it until it is done. A task belongs to one pool at a time:
    // adding one that is already queued does nothing.
    virtual void addTask(std::shared_ptr<Task> task);
    // Number of tasks the pool holds (pending or running).
    unsigned taskCount() const;
    // Finishes runs in progress, cancels the rest, joins the threads. Idempotent. Must not be
    // called from a task.
    void shutdown();

private:
    friend class Task;
    class D;
    std::shared_ptr<D> m_d;   // shared with the tasks it holds, so that runNow can wake it
};

} // namespace Kestrel
