#include "kestrel/BGThread.h"

#include "kestrel/Task.h"
#include "common/TraceCapture.h"

#include <gtest/gtest.h>

#include <QStringList>

#include <atomic>
#include <chrono>
#include <future>
#include <mutex>
#include <thread>

using Kestrel::BGThread;
using Kestrel::FunctionTask;
using Kestrel::Task;

namespace {

const auto s_patience = std::chrono::seconds(10);

// Records the calls of the pool in order, and signals when the task ended one way or the other.
class RecordingTask : public Task
{
public:
    explicit RecordingTask(std::function<void(RecordingTask &)> body) : Task(1.0f), m_body(std::move(body)) {}

    void doTask() override
    {
        record("run");
        m_body(*this);
    }
    void initialize() override { record("initialize"); }
    void canceled() override
    {
        record("canceled");
        m_ended.set_value();
    }
    void finished() override
    {
        record("finished");
        m_ended.set_value();
    }

    bool waitEnded() { return m_endedFuture.wait_for(s_patience) == std::future_status::ready; }
    QStringList calls() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_calls;
    }
    int runs() const { return calls().count("run"); }
    std::thread::id lastRunThread() const
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_lastRunThread;
    }

private:
    void record(const char *call)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_calls << call;
        if (QByteArray(call) == "run")
            m_lastRunThread = std::this_thread::get_id();
    }

    std::function<void(RecordingTask &)> m_body;
    mutable std::mutex m_mutex;
    QStringList m_calls;
    std::thread::id m_lastRunThread;
    std::promise<void> m_ended;
    std::future<void> m_endedFuture = m_ended.get_future();
};

bool eventually(const std::function<bool()> &condition)
{
    const auto deadline = std::chrono::steady_clock::now() + s_patience;
    while (!condition()) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
    return true;
}

} // namespace

TEST(BGThread, InstanceIsOneProcessWidePool)
{
    EXPECT_EQ(BGThread::instance(), BGThread::instance());
    EXPECT_NE(BGThread::instance(), nullptr);
}

TEST(BGThread, RescheduledTaskRunsUntilItSetsDone)
{
    auto task = std::make_shared<RecordingTask>([](RecordingTask &t) {
        if (t.runs() < 3)
            t.scheduleFromNowSecs(0.01);
        else
            t.setState(Task::Done);
    });
    BGThread::instance()->addTask(task);
    ASSERT_TRUE(task->waitEnded());
    EXPECT_EQ(task->calls(), (QStringList{"initialize", "run", "run", "run", "finished"}));
}

TEST(BGThread, TaskThatDoesNotRescheduleRunsAgainAtOnce)
{
    auto task = std::make_shared<RecordingTask>([](RecordingTask &t) {
        if (t.runs() == 5)
            t.setState(Task::Done);
    });
    BGThread pool(1);
    pool.addTask(task);
    ASSERT_TRUE(task->waitEnded());
    EXPECT_EQ(task->runs(), 5);
    EXPECT_TRUE(eventually([&] { return pool.taskCount() == 0; }));
}

TEST(BGThread, DueTasksRunInTimeOrderThenByPriority)
{
    std::mutex mutex;
    QStringList order;
    std::promise<void> last;
    auto make = [&](const char *name, float priority, double delay) {
        auto task = std::make_shared<FunctionTask>(
            [&, name](Task &t) {
                std::lock_guard<std::mutex> lock(mutex);
                order << name;
                t.setState(Task::Done);
                if (order.size() == 4)
                    last.set_value();
            },
            priority);
        if (delay > 0)   // never scheduled: due at once, all at the same (earliest) time
            task->scheduleFromNowSecs(delay);
        return task;
    };
    BGThread pool(1);
    // Held back by a task that blocks the only thread until all four are queued.
    std::promise<void> queued;
    std::shared_future<void> queuedFuture = queued.get_future().share();
    pool.addTask(std::make_shared<FunctionTask>([queuedFuture](Task &t) {
        queuedFuture.wait();
        t.setState(Task::Done);
    }));
    pool.addTask(make("late", 5.f, 0.3));
    pool.addTask(make("soon", 1.f, 0.15));
    pool.addTask(make("nowLow", 1.f, -1));
    pool.addTask(make("nowHigh", 2.f, -1));
    queued.set_value();
    ASSERT_EQ(last.get_future().wait_for(s_patience), std::future_status::ready);
    EXPECT_EQ(order, (QStringList{"nowHigh", "nowLow", "soon", "late"}));
}

// A task that neither reschedules nor ends is due again at once; it must still let a task that
// became due before its next run have the thread.
TEST(BGThread, BusyTaskDoesNotStarveOthers)
{
    std::atomic<bool> otherRan{false};
    BGThread pool(1);
    auto busy = std::make_shared<FunctionTask>([&](Task &t) {
        if (otherRan)
            t.setState(Task::Done);
    });
    auto other = std::make_shared<FunctionTask>([&](Task &t) {
        otherRan = true;
        t.setState(Task::Done);
    });
    pool.addTask(busy);
    pool.addTask(other);
    EXPECT_TRUE(eventually([&] { return otherRan.load(); }));
    EXPECT_TRUE(eventually([&] { return pool.taskCount() == 0; }));
}

TEST(BGThread, RunNowWithoutWaitBringsAPendingTaskForward)
{
    auto task = std::make_shared<RecordingTask>([](RecordingTask &t) { t.setState(Task::Done); });
    task->scheduleFromNowSecs(3600);
    BGThread pool(1);
    pool.addTask(task);
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
    EXPECT_EQ(task->runs(), 0);
    task->runNow(false);
    ASSERT_TRUE(task->waitEnded());
    EXPECT_EQ(task->calls(), (QStringList{"initialize", "run", "finished"}));
}

TEST(BGThread, RunNowWithWaitRunsOnTheCallerAndFinishesFirst)
{
    auto task = std::make_shared<RecordingTask>([](RecordingTask &t) { t.setState(Task::Done); });
    task->scheduleFromNowSecs(3600);
    BGThread pool(1);
    pool.addTask(task);
    task->runNow(true);
    EXPECT_EQ(task->calls(), (QStringList{"initialize", "run", "finished"}));
    EXPECT_EQ(task->lastRunThread(), std::this_thread::get_id());
    EXPECT_TRUE(eventually([&] { return pool.taskCount() == 0; }));
    task->runNow(true);   // done: nothing more
    EXPECT_EQ(task->runs(), 1);
}

TEST(BGThread, RunNowWithWaitWaitsForTheRunInProgress)
{
    std::promise<void> started;
    std::promise<void> release;
    std::shared_future<void> releaseFuture = release.get_future().share();
    auto task = std::make_shared<RecordingTask>([&, releaseFuture](RecordingTask &t) {
        if (t.runs() == 1) {
            started.set_value();
            releaseFuture.wait();
            t.scheduleFromNowSecs(3600);
        } else {
            t.setState(Task::Done);
        }
    });
    BGThread pool(1);
    pool.addTask(task);
    ASSERT_EQ(started.get_future().wait_for(s_patience), std::future_status::ready);
    std::thread::id caller;
    auto runNow = std::async(std::launch::async, [&] {
        caller = std::this_thread::get_id();
        task->runNow(true);
    });
    EXPECT_EQ(runNow.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout)
        << "runNow(true) returned while the pool's run was still going";
    release.set_value();
    ASSERT_EQ(runNow.wait_for(s_patience), std::future_status::ready);
    EXPECT_EQ(task->runs(), 2);
    EXPECT_EQ(task->lastRunThread(), caller);
    EXPECT_EQ(task->calls().last(), "finished");
}

TEST(BGThread, ShutdownCancelsPendingTasksAndLaterAdditions)
{
    auto pending = std::make_shared<RecordingTask>([](RecordingTask &) {});
    pending->scheduleFromNowSecs(3600);
    auto late = std::make_shared<RecordingTask>([](RecordingTask &) {});
    {
        BGThread pool(2);
        pool.addTask(pending);
        pool.shutdown();
        pool.addTask(late);
        EXPECT_EQ(pool.taskCount(), 0u);
    }
    EXPECT_EQ(pending->calls(), QStringList{"canceled"});
    EXPECT_EQ(late->calls(), QStringList{"canceled"});
}

TEST(BGThread, ShutdownLetsTheRunInProgressFinish)
{
    std::promise<void> started;
    std::atomic<bool> runEnded{false};
    auto task = std::make_shared<FunctionTask>([&](Task &) {
        started.set_value();
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        runEnded = true;
    });
    BGThread pool(1);
    pool.addTask(task);
    ASSERT_EQ(started.get_future().wait_for(s_patience), std::future_status::ready);
    pool.shutdown();
    EXPECT_TRUE(runEnded);
}

TEST(BGThread, ThrowingTaskIsEndedWithALogLine)
{
    TraceCapture trace;
    auto task = std::make_shared<RecordingTask>([](RecordingTask &) { throw std::runtime_error("disk gone"); });
    BGThread pool(1);
    pool.addTask(task);
    ASSERT_TRUE(task->waitEnded());
    EXPECT_EQ(task->calls(), (QStringList{"initialize", "run", "finished"}));
    EXPECT_EQ(trace.count("BGThread::runTask # Task failed, ending it: disk gone"), 1);
}

TEST(BGThread, AddingAQueuedTaskAgainDoesNothing)
{
    auto task = std::make_shared<RecordingTask>([](RecordingTask &t) { t.setState(Task::Done); });
    task->scheduleFromNowSecs(3600);
    BGThread pool(1);
    pool.addTask(task);
    pool.addTask(task);
    EXPECT_EQ(pool.taskCount(), 1u);
    task->runNow(true);
    EXPECT_EQ(task->runs(), 1);
}
