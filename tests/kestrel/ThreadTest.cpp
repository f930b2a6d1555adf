#include "kestrel/Thread.h"

#include "common/TraceCapture.h"
#include "KestrelTestUtil.h"

#include <gtest/gtest.h>

#include <atomic>
#include <pthread.h>

namespace {

// Runs a copy of its body, so that with joinFirst false the body may outlive the object and leave
// the joining to ~Thread.
struct FunctionThread : Kestrel::Thread
{
    FunctionThread(const QString &name, std::function<void()> body, bool joinFirst = true)
        : Thread(name), body(std::move(body)), joinFirst(joinFirst) {}
    ~FunctionThread() override { if (joinFirst) waitEnd(0); }
    void childLoop() override { const auto run = body; run(); }
    const std::function<void()> body;
    const bool joinFirst;
};

} // namespace

TEST(Thread, OsNameIsTheFirstFifteenBytes)
{
    char seen[32] = {};
    FunctionThread thread("ABCDEFGHIJKLMNOPQRS", [&] { pthread_getname_np(pthread_self(), seen, sizeof seen); });
    ASSERT_TRUE(thread.run() && thread.waitEnd(0));
    EXPECT_STREQ(seen, "ABCDEFGHIJKLMNO");
}

// run() joins an ended thread itself, with or without a waitEnd() before.
TEST(Thread, WaitEndGivesUpAfterItsLimitZeroMeansNoLimitAndAnEndedThreadRunsAgain)
{
    std::atomic<bool> release{false};
    std::atomic<int> runs{0};
    FunctionThread thread("limit", [&] {
        eventually([&] { return release.load(); });
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        ++runs;
    });
    EXPECT_TRUE(thread.waitEnd(0));   // never run: nothing to wait for
    ASSERT_TRUE(thread.run());
    EXPECT_FALSE(thread.waitEnd(30));
    EXPECT_TRUE(thread.isRunning());
    release = true;
    EXPECT_TRUE(thread.waitEnd(0));
    EXPECT_EQ(runs, 1);
    ASSERT_TRUE(thread.run());
    ASSERT_TRUE(eventually([&] { return !thread.isRunning(); }));
    ASSERT_TRUE(thread.run());
    ASSERT_TRUE(thread.waitEnd(0));
    EXPECT_EQ(runs, 3);
}

TEST(Thread, MisuseAndUncaughtExceptionsAreLogged)
{
    std::atomic<bool> release{false};
    Kestrel::Thread *self = nullptr;
    const std::tuple<const char *, std::function<void()>, const char *> cases[] = {
        {"busy", [&] { eventually([&] { return release.load(); }); }, "Thread::run # Thread busy is already running"},
        {"selfwait", [&] { EXPECT_FALSE(self->waitEnd(0)); }, "Thread::waitEnd # Thread selfwait can't wait for itself"},
        {"thrower", [] { throw std::runtime_error("boom"); }, "Thread::run # Uncaught exception in thread thrower: boom"},
    };
    for (const auto &[name, body, line] : cases) {
        TraceCapture trace;
        release = false;
        FunctionThread thread(name, body);
        self = &thread;
        ASSERT_TRUE(thread.run());
        if (QByteArray(name) == "busy") {
            EXPECT_FALSE(thread.run());   // while it waits for the release
        }
        release = true;
        ASSERT_TRUE(thread.waitEnd(0));
        EXPECT_EQ(trace.lines(), QStringList{line});
    }
}

TEST(Thread, DestroyingARunningThreadJoinsIt)
{
    TraceCapture trace;
    std::atomic<bool> entered{false}, done{false};
    auto thread = std::make_unique<FunctionThread>("bare", [&] {
        entered = true;
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        done = true;
    }, false);
    ASSERT_TRUE(thread->run());
    ASSERT_TRUE(eventually([&] { return entered.load(); }));
    thread.reset();
    EXPECT_TRUE(done);
    EXPECT_EQ(trace.lines(), QStringList{"Thread::~Thread # Thread bare still running, waiting for it"});
}
