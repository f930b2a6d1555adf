#include "tamarack/Node.h"

#include "common/TraceCapture.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <thread>
#include <vector>

using Tamarack::Node;

namespace {

// Each test starts and ends with an empty queue.
class FrameQueue : public ::testing::Test
{
protected:
    void SetUp() override { Node::runHostUpdate(); }
    void TearDown() override { Node::runHostUpdate(); }
};

} // namespace

TEST_F(FrameQueue, RunsInQueueOrderOnTheUpdatingThread)
{
    std::vector<int> order;
    const auto updater = std::this_thread::get_id();
    bool sameThread = true;
    for (int i = 0; i < 5; ++i)
        Node::invokeAfterUpdate([&, i] {
            order.push_back(i);
            sameThread = sameThread && std::this_thread::get_id() == updater;
        });
    EXPECT_TRUE(order.empty());
    Node::runHostUpdate();
    EXPECT_EQ(order, std::vector<int>({0, 1, 2, 3, 4}));
    EXPECT_TRUE(sameThread);
    Node::runHostUpdate();
    EXPECT_EQ(order.size(), 5u); // each runs once
}

TEST_F(FrameQueue, QueuedDuringAnUpdateWaitsForTheNext)
{
    std::vector<int> order;
    // Re-arms itself like a per-frame loop.
    std::function<void()> frame = [&] {
        order.push_back(static_cast<int>(order.size()));
        if (order.size() < 3)
            Node::invokeAfterUpdate(frame);
    };
    Node::invokeAfterUpdate(frame);
    Node::runHostUpdate();
    EXPECT_EQ(order, std::vector<int>({0}));
    Node::runHostUpdate();
    Node::runHostUpdate();
    Node::runHostUpdate();
    EXPECT_EQ(order, std::vector<int>({0, 1, 2}));
}

TEST_F(FrameQueue, FromOtherThreadsInTheirOwnOrder)
{
    constexpr int perThread = 500;
    std::vector<int> fromA, fromB;
    std::thread a([&] {
        for (int i = 0; i < perThread; ++i)
            Node::invokeAfterUpdate([&fromA, i] { fromA.push_back(i); });
    });
    std::thread b([&] {
        for (int i = 0; i < perThread; ++i)
            Node::invokeAfterUpdate([&fromB, i] { fromB.push_back(i); });
    });
    a.join();
    b.join();
    Node::runHostUpdate();
    ASSERT_EQ(fromA.size(), size_t(perThread));
    ASSERT_EQ(fromB.size(), size_t(perThread));
    for (int i = 0; i < perThread; ++i) {
        EXPECT_EQ(fromA[i], i);
        EXPECT_EQ(fromB[i], i);
    }
}

TEST_F(FrameQueue, AThrowingFunctionIsLoggedAndTheRestRun)
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
