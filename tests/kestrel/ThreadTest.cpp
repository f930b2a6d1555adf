#include "kestrel/Thread.h"

#include "common/TraceCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <pthread.h>
#include <thread>

namespace {

class FunctionThread : public Kestrel::Thread
{
public:
    FunctionThread(const QString &name, std::function<void()> body) : Thread(name), m_body(std::move(body)) {}
    ~FunctionThread() override { waitEnd(0); }

protected:
    void childLoop() override { m_body(); }

private:
    std::function<void()> m_body;
};

// Spins until the flag is set, with a bound so that a broken test can't hang the suite.
void waitFor(const std::atomic<bool> &flag)
{
    for (int i = 0; i < 10000 && !flag; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
}

} // namespace

TEST(Thread, OsNameIsTheFirstFifteenBytes)
{
    struct Case { QString name; QByteArray expected; };
    const Case cases[] = {
        {"LoomyWriter", "LoomyWriter"},
        {"LoomyServerBase", "LoomyServerBase"},
        {"ABCDEFGHIJKLMNOPQRS", "ABCDEFGHIJKLMNO"},
    };
    for (const Case &c : cases) {
        char seen[32] = {};
        FunctionThread thread(c.name, [&] { pthread_getname_np(pthread_self(), seen, sizeof seen); });
        ASSERT_TRUE(thread.run());
        ASSERT_TRUE(thread.waitEnd(0));
        EXPECT_EQ(QByteArray(seen), c.expected);
    }
}

TEST(Thread, WaitEndWithALimitReportsARunningThread)
{
    std::atomic<bool> release{false};
    FunctionThread thread("limit", [&] { waitFor(release); });
    ASSERT_TRUE(thread.run());
    EXPECT_FALSE(thread.waitEnd(30));
    EXPECT_TRUE(thread.isRunning());
    release = true;
    EXPECT_TRUE(thread.waitEnd(10000));
    EXPECT_FALSE(thread.isRunning());
}

TEST(Thread, WaitEndZeroWaitsWithoutLimit)
{
    std::atomic<bool> finished{false};
    FunctionThread thread("nolimit", [&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        finished = true;
    });
    ASSERT_TRUE(thread.run());
    EXPECT_TRUE(thread.waitEnd(0));
    EXPECT_TRUE(finished);
}

TEST(Thread, NeverRunThreadHasEnded)
{
    FunctionThread thread("idle", [] {});
    EXPECT_FALSE(thread.isRunning());
    EXPECT_TRUE(thread.waitEnd(0));
    EXPECT_TRUE(thread.waitEnd(10));
}

TEST(Thread, RunsAgainAfterItEnded)
{
    std::atomic<int> runs{0};
    FunctionThread thread("again", [&] { ++runs; });
    ASSERT_TRUE(thread.run());
    ASSERT_TRUE(thread.waitEnd(0));
    ASSERT_TRUE(thread.run());
    ASSERT_TRUE(thread.waitEnd(0));
    // Also without a waitEnd in between: run() joins the ended thread itself.
    for (int i = 0; i < 1000 && thread.isRunning(); ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    ASSERT_TRUE(thread.run());
    ASSERT_TRUE(thread.waitEnd(0));
    EXPECT_EQ(runs, 3);
}

TEST(Thread, RunWhileRunningIsRefused)
{
    TraceCapture trace;
    std::atomic<bool> release{false};
    std::atomic<int> runs{0};
    FunctionThread thread("busy", [&] {
        ++runs;
        waitFor(release);
    });
    ASSERT_TRUE(thread.run());
    EXPECT_FALSE(thread.run());
    release = true;
    ASSERT_TRUE(thread.waitEnd(0));
    EXPECT_EQ(runs, 1);
    EXPECT_EQ(trace.count("Thread::run # Thread busy is already running"), 1);
}

TEST(Thread, CannotWaitForItself)
{
    TraceCapture trace;
    Kestrel::Thread *self = nullptr;
    std::atomic<int> result{-1};
    FunctionThread thread("selfwait", [&] { result = self->waitEnd(0) ? 1 : 0; });
    self = &thread;
    ASSERT_TRUE(thread.run());
    ASSERT_TRUE(thread.waitEnd(0));
    EXPECT_EQ(result, 0);
    EXPECT_EQ(trace.count("Thread::waitEnd # Thread selfwait can't wait for itself"), 1);
}

TEST(Thread, UncaughtExceptionEndsTheThreadWithALogLine)
{
    TraceCapture trace;
    FunctionThread thread("thrower", [] { throw std::runtime_error("boom"); });
    ASSERT_TRUE(thread.run());
    ASSERT_TRUE(thread.waitEnd(0));
    EXPECT_FALSE(thread.isRunning());
    EXPECT_EQ(trace.lines(Kestrel::Trace::Level::Error),
              QStringList{"Thread::run # Uncaught exception in thread thrower: boom"});
}

namespace {

std::atomic<bool> s_bareLoopEntered{false};
std::atomic<bool> s_bareLoopDone{false};

// Leaves the joining to ~Thread; its loop touches no member, so it may outlive the derived part.
class BareThread : public Kestrel::Thread
{
public:
    BareThread() : Thread("bare") {}

protected:
    void childLoop() override
    {
        s_bareLoopEntered = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        s_bareLoopDone = true;
    }
};

} // namespace

TEST(Thread, DestroyingARunningThreadJoinsIt)
{
    TraceCapture trace;
    s_bareLoopDone = false;
    auto thread = std::make_unique<BareThread>();
    ASSERT_TRUE(thread->run());
    waitFor(s_bareLoopEntered);
    thread.reset();
    EXPECT_TRUE(s_bareLoopDone);
    EXPECT_EQ(trace.count("Thread::~Thread # Thread bare still running, waiting for it"), 1);
}
