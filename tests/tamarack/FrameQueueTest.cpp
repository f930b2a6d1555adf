#include "TamarackTestUtil.h"

#include "common/TraceCapture.h"

#include <functional>
#include <numeric>
#include <stdexcept>

// Two threads queue at once; each one's functions run once, in its order, on the updating thread.
TEST(FrameQueue, FromAnyThreadRunsOnceInQueueOrderOnTheUpdatingThread)
{
    constexpr int perThread = 500;
    const auto updater = std::this_thread::get_id();
    Ints seen[2], expected(perThread);
    bool sameThread = true;
    auto queue = [&](int t) {
        for (int i = 0; i < perThread; ++i)
            Node::invokeAfterUpdate([&, t, i] {
                seen[t].push_back(i);
                sameThread = sameThread && std::this_thread::get_id() == updater;
            });
    };
    std::thread other(queue, 1);
    queue(0);
    other.join();
    EXPECT_TRUE(seen[0].empty() && seen[1].empty());
    Node::runHostUpdate();
    Node::runHostUpdate();
    std::iota(expected.begin(), expected.end(), 0);
    EXPECT_EQ(seen[0], expected);
    EXPECT_EQ(seen[1], expected);
    EXPECT_TRUE(sameThread);
}

TEST(FrameQueue, QueuedDuringAnUpdateWaitsForTheNext)
{
    Ints order;
    std::function<void()> frame = [&] { // re-arms itself like a per-frame loop
        order.push_back(int(order.size()));
        if (order.size() < 3)
            Node::invokeAfterUpdate(frame);
    };
    Node::invokeAfterUpdate(frame);
    Node::runHostUpdate();
    EXPECT_EQ(order, Ints({0}));
    for (int i = 0; i < 3; ++i)
        Node::runHostUpdate();
    EXPECT_EQ(order, Ints({0, 1, 2}));
}

TEST(FrameQueue, AThrowingFunctionIsLoggedAndTheRestRun)
{
    TraceCapture trace;
    bool after = false;
    Node::invokeAfterUpdate([] { throw std::runtime_error("boom"); });
    Node::invokeAfterUpdate([&] { after = true; });
    Node::runHostUpdate();
    EXPECT_TRUE(after);
    EXPECT_EQ(trace.lines(Kestrel::Trace::Level::Error),
              QStringList({"Node::runHostUpdate # a queued function threw: boom"}));
}
