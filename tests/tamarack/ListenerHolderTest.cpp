#include "TamarackTestUtil.h"

#include "tamarack/ListenerHolder.h"

#include <memory>

using Tamarack::ListenerHolder;

// A held DELETE_ROLE listener still runs, and the holder then forgets the deleted attribute: the
// sanitizers catch any later touch of it.
TEST(ListenerHolder, RemovesPerAttributeOrAllItStillHoldsAndForgetsDeletedOnes)
{
    IntAttr a, b, *deleted = new IntAttr;
    Ints calls;
    {
        ListenerHolder holder;
        for (int i : {1, 2})
            holder.add(&a, [&, i] { calls.push_back(i); }, Attribute::CHANGE_ROLE);
        holder.add(&b, [&] { calls.push_back(3); }, Attribute::CHANGE_ROLE);
        holder.add(deleted, [&] { calls.push_back(4); }, Attribute::DELETE_ROLE);
        delete deleted;
        holder.removeListeners(deleted);
        holder.removeListeners(&a);
        a.setValue(1);
        b.setValue(1);
    }
    a.setValue(2);
    b.setValue(2);
    EXPECT_EQ(calls, Ints({4, 3}));
}

// Attributes deleted on one thread while their holder goes away on another: the holder must never
// call into a deleted attribute (run under the address and thread sanitizers).
TEST(ListenerHolderConcurrency, DeletionRacesTheHolderDestructor)
{
    constexpr int rounds = 300, perRound = 8;
    std::atomic<int> held{0}, own{0};
    for (int round = 0; round < rounds; ++round) {
        auto holder = std::make_unique<ListenerHolder>();
        std::vector<IntAttr *> attrs;
        for (int i = 0; i < perRound; ++i) {
            attrs.push_back(new IntAttr);
            attrs.back()->addListener([&] { ++own; }, Attribute::DELETE_ROLE);
            holder->add(attrs.back(), [] {}, Attribute::CHANGE_ROLE);
            holder->add(attrs.back(), [&] { ++held; }, Attribute::DELETE_ROLE);
        }
        std::thread deleter([&attrs] {
            for (IntAttr *a : attrs)
                delete a;
        });
        holder.reset();
        deleter.join();
    }
    EXPECT_EQ(own.load(), rounds * perRound);  // each deletion ran its own listener once
    EXPECT_LE(held.load(), rounds * perRound); // held ones at most once, unless removed first
}
