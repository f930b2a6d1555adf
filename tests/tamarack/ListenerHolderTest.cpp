#include "tamarack/AttributeT.h"
#include "tamarack/ListenerHolder.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <thread>
#include <vector>

using Tamarack::Attribute;
using Tamarack::ListenerHolder;
using IntAttr = Tamarack::AttributeT<int>;

TEST(ListenerHolder, DestructorRemovesWhatItStillHolds)
{
    IntAttr a, b;
    int calls = 0;
    {
        ListenerHolder holder;
        holder.add(&a, [&] { ++calls; }, Attribute::CHANGE_ROLE);
        holder.add(&b, [&] { ++calls; }, Attribute::CHANGE_ROLE);
        a.setValue(1);
        EXPECT_EQ(calls, 1);
    }
    a.setValue(2);
    b.setValue(2);
    EXPECT_EQ(calls, 1);
}

TEST(ListenerHolder, RemoveListenersTouchesOnlyThatAttribute)
{
    IntAttr a, b;
    std::vector<char> calls;
    ListenerHolder holder;
    holder.add(&a, [&] { calls.push_back('a'); }, Attribute::CHANGE_ROLE);
    holder.add(&a, [&] { calls.push_back('A'); }, Attribute::CHANGE_ROLE);
    holder.add(&b, [&] { calls.push_back('b'); }, Attribute::CHANGE_ROLE);
    holder.removeListeners(&a);
    a.setValue(1);
    b.setValue(1);
    EXPECT_EQ(calls, std::vector<char>({'b'}));
}

TEST(ListenerHolder, HeldDeleteListenerStillRunsAndTheDeletedAttributeIsForgotten)
{
    auto holder = std::make_unique<ListenerHolder>();
    IntAttr *attr = new IntAttr;
    int deletes = 0;
    holder->add(attr, [&] { ++deletes; }, Attribute::DELETE_ROLE);
    delete attr;
    EXPECT_EQ(deletes, 1);
    holder->removeListeners(attr); // a forgotten attribute: nothing is touched
    holder.reset();                // neither here
}

// An attribute deleted on one thread while the holder goes away on another: the holder must
// never call into the deleted attribute (run under the address and thread sanitizers).
TEST(ListenerHolderConcurrency, DeletionRacesTheHolderDestructor)
{
    std::atomic<int> deletes{0}, deleted{0};
    for (int round = 0; round < 300; ++round) {
        auto holder = std::make_unique<ListenerHolder>();
        std::vector<IntAttr *> attrs;
        for (int i = 0; i < 8; ++i) {
            attrs.push_back(new IntAttr);
            attrs.back()->addListener([&] { ++deleted; }, Attribute::DELETE_ROLE);
            holder->add(attrs.back(), [] {}, Attribute::CHANGE_ROLE);
            holder->add(attrs.back(), [&] { ++deletes; }, Attribute::DELETE_ROLE);
        }
        std::thread deleter([&attrs] {
            for (IntAttr *a : attrs)
                delete a;
        });
        holder.reset();
        deleter.join();
    }
    // Each deletion ran its own DELETE_ROLE listener exactly once; the held ones ran at most once
    // each, unless the holder removed them first.
    EXPECT_EQ(deleted.load(), 300 * 8);
    EXPECT_LE(deletes.load(), 300 * 8);
}
