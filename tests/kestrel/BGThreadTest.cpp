#include "kestrel/BGThread.h"

#include "kestrel/Task.h"
#include "common/TraceCapture.h"
#include "KestrelTestUtil.h"

#include <gtest/gtest.h>

#include <QStringList>

#include <atomic>
#include <mutex>

using Kestrel::BGThread;
using Kestrel::FunctionTask;
using Kestrel::Task;

namespace {

// Records the pool's calls in order, and signals when the task ended one way or the other.
struct RecordingTask : Task
{
    explicit RecordingTask(std::function<void(RecordingTask &)> body) : body(std::move(body)) {}
    void doTask() override { record("run"); body(*this); }
    void initialize() override { record("initialize"); }
    void canceled() override { record("canceled"); ended.set_value(); }
    void finished() override { record("finished"); ended.set_value(); }
    void record(const QString &call)
    {
        std::lock_guard<std::mutex> lock(mutex);
        log << call;
        if (call == "run")
            runThread = std::this_thread::get_id();
    }
    bool waitEnded() const { return ready(endedFuture); }
    QStringList calls() const { std::lock_guard<std::mutex> lock(mutex); return log; }
    int runs() const { return calls().count("run"); }
    std::thread::id lastRunThread() const { std::lock_guard<std::mutex> lock(mutex); return runThread; }

    std::function<void(RecordingTask &)> body;
    mutable std::mutex mutex;
    QStringList log;             // guarded by mutex
    std::thread::id runThread;   // of the last run; guarded by mutex
    std::promise<void> ended;
    std::future<void> endedFuture = ended.get_future();
};

// Ends on its first run, which is due in an hour.
std::shared_ptr<RecordingTask> farTask()
{
    auto task = std::make_shared<RecordingTask>([](RecordingTask &t) { t.setState(Task::Done); });
    task->scheduleFromNowSecs(3600);
    return task;
}

const QStringList s_oneRun{"initialize", "run", "finished"};

} // namespace

// A task runs at the times it sets until a run sets Done, or throws (which is logged). A task that
// doesn't reschedule is due again at once, yet must let in the tasks that became due before.
TEST(BGThread, TasksRunOnTheSharedPoolUntilTheySetDoneOrThrow)
{
    TraceCapture trace;
    auto rescheduled = std::make_shared<RecordingTask>([](RecordingTask &t) {
        if (t.runs() < 3)
            t.scheduleFromNowSecs(0.01);
        else
            t.setState(Task::Done);
    });
    auto throwing = std::make_shared<RecordingTask>([](RecordingTask &) { throw std::runtime_error("disk gone"); });
    auto busy = [&] {
        return std::make_shared<RecordingTask>([rescheduled](RecordingTask &t) {
            if (rescheduled->runs() == 3)
                t.setState(Task::Done);
        });
    };
    const std::shared_ptr<RecordingTask> tasks[] = {busy(), busy(), rescheduled, throwing};   // busy ones fill the pool
    ASSERT_EQ(BGThread::instance(), BGThread::instance());
    for (const auto &task : tasks)
        BGThread::instance()->addTask(task);
    for (const auto &task : tasks)
        ASSERT_TRUE(task->waitEnded());
    EXPECT_EQ(rescheduled->calls(), (QStringList{"initialize", "run", "run", "run", "finished"}));
    EXPECT_EQ(throwing->calls(), s_oneRun);
    EXPECT_GT(tasks[0]->runs(), 2);
    EXPECT_EQ(trace.count("BGThread::runTask # Task failed, ending it: disk gone"), 1);
}

TEST(BGThread, DueTasksRunInTimeOrderThenByPriority)
{
    std::mutex mutex;
    QStringList order;
    std::atomic<bool> queued{false};
    BGThread pool(1);
    // Holds the only thread until the others are queued.
    pool.addTask(std::make_shared<FunctionTask>([&](Task &t) {
        eventually([&] { return queued.load(); });
        t.setState(Task::Done);
    }));
    const std::tuple<const char *, float, double> tasks[] = {
        {"late", 5.f, 0.3}, {"soon", 1.f, 0.15}, {"nowLow", 1.f, 0}, {"nowHigh", 2.f, 0}};
    for (const auto &[name, priority, delay] : tasks) {
        auto task = std::make_shared<FunctionTask>([&, name = name](Task &t) {
            std::lock_guard<std::mutex> lock(mutex);
            order << name;
            t.setState(Task::Done);
        }, priority);
        if (delay > 0)   // the others are all due at once, at the same time
            task->scheduleFromNowSecs(delay);
        pool.addTask(task);
    }
    queued = true;
    ASSERT_TRUE(eventually([&] { return pool.taskCount() == 0; }));
    std::lock_guard<std::mutex> lock(mutex);
    EXPECT_EQ(order, (QStringList{"nowHigh", "nowLow", "soon", "late"}));
}

TEST(BGThread, RunNowBringsAPendingTaskForwardOnThePoolOrOnTheCaller)
{
    auto onPool = farTask(), onCaller = farTask();
    BGThread pool(1);
    pool.addTask(onPool);
    pool.addTask(onCaller);
    pool.addTask(onCaller);   // already queued: ignored
    EXPECT_EQ(pool.taskCount(), 2u);
    onCaller->runNow(true);
    EXPECT_EQ(onCaller->calls(), s_oneRun);
    EXPECT_EQ(onCaller->lastRunThread(), std::this_thread::get_id());
    EXPECT_EQ(onPool->runs(), 0);
    onPool->runNow(false);
    ASSERT_TRUE(onPool->waitEnded());
    EXPECT_EQ(onPool->calls(), s_oneRun);
    EXPECT_NE(onPool->lastRunThread(), std::this_thread::get_id());
    EXPECT_TRUE(eventually([&] { return pool.taskCount() == 0; }));
    onCaller->runNow(true);   // done: nothing more
    EXPECT_EQ(onCaller->runs(), 1);
}

TEST(BGThread, RunNowWithWaitWaitsForTheRunInProgress)
{
    std::promise<void> started, release;
    auto task = std::make_shared<RecordingTask>([&, releaseFuture = release.get_future().share()](RecordingTask &t) {
        if (t.runs() > 1) {
            t.setState(Task::Done);
        } else {
            started.set_value();
            releaseFuture.wait();
            t.scheduleFromNowSecs(3600);
        }
    });
    BGThread pool(1);
    pool.addTask(task);
    ASSERT_TRUE(ready(started.get_future()));
    std::thread::id caller;
    auto runNow = std::async(std::launch::async, [&] { caller = std::this_thread::get_id(); task->runNow(true); });
    EXPECT_EQ(runNow.wait_for(std::chrono::milliseconds(100)), std::future_status::timeout)
        << "runNow(true) returned while the pool's run was still going";
    release.set_value();
    ASSERT_TRUE(ready(runNow));
    EXPECT_EQ(task->calls(), (QStringList{"initialize", "run", "run", "finished"}));
    EXPECT_EQ(task->lastRunThread(), caller);
}

// A task the pool had picked, run to its end by runNow(true) before the pool marked it running,
// was run by the pool once more: a server's removal task then joined a connection it had given
// away (a crash at exit). Racy by nature; each round is one chance.
TEST(BGThread, ATaskDoneThroughRunNowIsNotRunAgainByThePool)
{
    BGThread pool(2);
    std::atomic<int> extraRuns{0};
    for (int round = 0; round < 2000; ++round) {
        auto runs = std::make_shared<std::atomic<int>>(0);
        auto task = std::make_shared<FunctionTask>([runs, &extraRuns](Task &t) {
            if (++*runs > 1)
                ++extraRuns;
            t.setState(Task::Done);
        });
        pool.addTask(task);
        task->runNow(true);
    }
    pool.shutdown();
    EXPECT_EQ(extraRuns.load(), 0);
}

TEST(BGThread, ShutdownFinishesTheRunInProgressAndCancelsTheRest)
{
    std::atomic<int> stage{0};
    auto pending = farTask(), late = farTask();
    BGThread pool(1);
    pool.addTask(std::make_shared<FunctionTask>([&](Task &t) {
        stage = 1;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        stage = 2;
        t.setState(Task::Done);
    }));
    pool.addTask(pending);
    ASSERT_TRUE(eventually([&] { return stage > 0; }));
    pool.shutdown();
    EXPECT_EQ(stage, 2) << "shutdown() returned before the run in progress ended";
    pool.addTask(late);
    EXPECT_EQ(pool.taskCount(), 0u);
    EXPECT_EQ(pending->calls() + late->calls(), (QStringList{"canceled", "canceled"}));
}
