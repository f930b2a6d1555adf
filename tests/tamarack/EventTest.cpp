#include "TamarackTestUtil.h"

#include "tamarack/Event.h"

#include <memory>
#include <string>

using Tamarack::Event;
using Tamarack::Reference;

// A listener added mid-emission is not called by that emission, nor by one nested inside it.
TEST(Event, ListenerAddedDuringAnEmissionRunsFromTheNextOne)
{
    Event<int> event;
    Reference ref;
    Ints calls;
    event.addListener(ref.weak(), [&](int v) {
        calls.push_back(v);
        if (v == 1) {
            event.addListener(ref.weak(), [&](int w) { calls.push_back(100 + w); });
            event.raise(2);
        }
    });
    event.raise(1);
    EXPECT_EQ(calls, Ints({1, 2}));
    event.raise(3);
    EXPECT_EQ(calls, Ints({1, 2, 3, 103}));
}

// Listener a1 removes b's listeners, and c's, which it has just added itself.
TEST(Event, RemoveListenersDuringAnEmissionSkipsTheRestAndCounts)
{
    Event<int> event;
    Reference a, b, c;
    EXPECT_EQ(event.removeListeners(a.weak()), 0); // before any listener exists
    std::vector<std::string> calls;
    int removedB = -1, removedC = -1;
    event.addListener(a.weak(), [&](int) {
        calls.push_back("a1");
        event.addListener(c.weak(), [&](int) { calls.push_back("c"); });
        removedB = event.removeListeners(b.weak());
        removedC = event.removeListeners(c.weak());
    });
    event.addListener(b.weak(), [&](int) { calls.push_back("b1"); });
    event.addListener(a.weak(), [&](int) { calls.push_back("a2"); });
    event.addListener(b.weak(), [&](int) { calls.push_back("b2"); });
    event.raise(0);
    EXPECT_EQ(std::make_pair(removedB, removedC), std::make_pair(2, 1));
    event.raise(0);
    EXPECT_EQ(std::make_pair(removedB, removedC), std::make_pair(0, 1));
    EXPECT_EQ(calls, std::vector<std::string>({"a1", "a2", "a1", "a2"}));
    EXPECT_EQ(event.removeListeners(std::weak_ptr<void>()), 0);
    EXPECT_EQ(event.removeListeners(a.weak()), 2);
}

// Receivers are matched by their Reference: a copy is a receiver of its own.
TEST(Event, ExpiredReceiversAreNotCalled)
{
    Event<int> event;
    Ints calls;
    auto receiver = std::make_unique<Reference>();
    Reference copy(*receiver);
    event.addListener(receiver->weak(), [&](int) { calls.push_back(1); });
    event.addListener(copy.weak(), [&](int) { calls.push_back(2); });
    event.addListener(std::weak_ptr<void>(), [&](int) { calls.push_back(3); }); // empty is expired
    event.raise(0);
    receiver.reset();
    event.raise(0);
    EXPECT_EQ(calls, Ints({1, 2, 2}));
}

// Two threads emit while a third adds and removes listeners; a permanent listener must hear every
// emission, and two racing first registrations must make one listener state.
TEST(EventConcurrency, EmissionsAndRegistrationsFromThreeThreads)
{
    constexpr int rounds = 5000;
    Event<int> event;
    Reference permanent, churn;
    std::atomic<int> heard{0};
    std::atomic<bool> start{false}, done{false};
    std::thread churner([&] {
        while (!start.load()) {}
        do {
            event.addListener(churn.weak(), [](int) {});
            event.removeListeners(churn.weak());
        } while (!done.load());
    });
    start = true;
    event.addListener(permanent.weak(), [&](int) { ++heard; });
    auto emit = [&] { for (int i = 0; i < rounds; ++i) event.raise(i); };
    std::thread e1(emit), e2(emit);
    e1.join();
    e2.join();
    done = true;
    churner.join();
    EXPECT_EQ(heard.load(), 2 * rounds);
}
