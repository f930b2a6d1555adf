#include "tamarack/Event.h"
#include "tamarack/Reference.h"

#include <gtest/gtest.h>

#include <QString>

#include <atomic>
#include <string>
#include <memory>
#include <thread>
#include <vector>

using Tamarack::Event;
using Tamarack::Reference;

TEST(Event, ListenerAddedDuringAnEmissionRunsFromTheNextOne)
{
    Event<int> event;
    Reference ref;
    std::vector<int> calls;
    bool added = false;
    event.addListener(ref.weak(), [&](int v) {
        calls.push_back(v);
        if (!added) {
            added = true;
            event.addListener(ref.weak(), [&](int w) { calls.push_back(100 + w); });
        }
    });
    event.raise(1);
    EXPECT_EQ(calls, std::vector<int>({1}));
    event.raise(2);
    EXPECT_EQ(calls, std::vector<int>({1, 2, 102}));
}

TEST(Event, NestedEmissionsDoNotCallListenersAddedInside)
{
    Event<int> event;
    Reference ref;
    std::vector<int> calls;
    event.addListener(ref.weak(), [&](int v) {
        calls.push_back(v);
        if (v == 1) {
            event.addListener(ref.weak(), [&](int w) { calls.push_back(100 + w); });
            event.raise(2); // inner emission: the new listener waits for the outer one to end
        }
    });
    event.raise(1);
    event.raise(3);
    EXPECT_EQ(calls, std::vector<int>({1, 2, 3, 103}));
}

TEST(Event, RemoveListenersDuringAnEmissionSkipsTheRestAndCounts)
{
    Event<int> event;
    Reference a, b;
    std::vector<std::string> calls;
    int removed = -1;
    event.addListener(a.weak(), [&](int) {
        calls.push_back("a1");
        removed = event.removeListeners(b.weak());
    });
    event.addListener(b.weak(), [&](int) { calls.push_back("b1"); });
    event.addListener(a.weak(), [&](int) { calls.push_back("a2"); });
    event.addListener(b.weak(), [&](int) { calls.push_back("b2"); });
    event.raise(0);
    EXPECT_EQ(removed, 2);
    event.raise(0);
    EXPECT_EQ(calls, std::vector<std::string>({"a1", "a2", "a1", "a2"}));
    EXPECT_EQ(removed, 0); // the second run found none left
}

TEST(Event, RemoveListenersAlsoDropsOnesAddedDuringTheEmission)
{
    Event<int> event;
    Reference a, b;
    int bCalls = 0;
    event.addListener(a.weak(), [&](int) {
        event.addListener(b.weak(), [&](int) { ++bCalls; });
        EXPECT_EQ(event.removeListeners(b.weak()), 1);
    });
    event.raise(0);
    EXPECT_EQ(event.removeListeners(a.weak()), 1);
    event.raise(0);
    EXPECT_EQ(bCalls, 0);
}

TEST(Event, RemoveListenersWithoutListenersReturnsZero)
{
    Event<int> event;
    Reference a, b;
    EXPECT_EQ(event.removeListeners(a.weak()), 0); // no state yet
    EXPECT_EQ(event.removeListeners(std::weak_ptr<void>()), 0);
    event.addListener(a.weak(), [](int) {});
    EXPECT_EQ(event.removeListeners(b.weak()), 0);
    EXPECT_EQ(event.removeListeners(a.weak()), 1);
    EXPECT_EQ(event.removeListeners(a.weak()), 0);
}

TEST(Event, ExpiredReceiversAreNotCalled)
{
    Event<int> event;
    int calls = 0;
    auto receiver = std::make_unique<Reference>();
    event.addListener(receiver->weak(), [&](int) { ++calls; });
    event.addListener(std::weak_ptr<void>(), [&](int) { ++calls; }); // empty counts as expired
    event.raise(0);
    EXPECT_EQ(calls, 1);
    receiver.reset();
    event.raise(0);
    EXPECT_EQ(calls, 1);
}

TEST(Reference, WeakPointersShareOneBlockAndExpireWithTheMember)
{
    std::weak_ptr<void> first, second, copied;
    {
        Reference ref;
        first = ref.weak();
        second = ref.weak();
        Reference copy(ref);
        copied = copy.weak();
        EXPECT_FALSE(first.owner_before(second) || second.owner_before(first));
        EXPECT_TRUE(first.owner_before(copied) || copied.owner_before(first));
        EXPECT_FALSE(first.expired());
    }
    EXPECT_TRUE(first.expired());
    EXPECT_TRUE(copied.expired());
}

// Two threads emit while a third adds and removes listeners; a permanent listener must hear every
// emission, and the first addListener race must make one state.
TEST(EventConcurrency, EmissionsAndRegistrationsFromThreeThreads)
{
    constexpr int rounds = 5000;
    Event<int> event;
    Reference permanent, churn;
    std::atomic<int> heard{0};
    std::atomic<bool> start{false}, done{false};
    std::thread adder([&] {
        while (!start.load()) {}
        event.addListener(permanent.weak(), [&](int) { ++heard; });
    });
    std::thread churner([&] {
        while (!start.load()) {}
        while (!done.load()) {
            event.addListener(churn.weak(), [](int) {});
            event.removeListeners(churn.weak());
        }
    });
    start = true;
    adder.join();
    std::thread e1([&] { for (int i = 0; i < rounds; ++i) event.raise(i); });
    std::thread e2([&] { for (int i = 0; i < rounds; ++i) event.raise(i); });
    e1.join();
    e2.join();
    done = true;
    churner.join();
    EXPECT_EQ(heard.load(), 2 * rounds);
}
