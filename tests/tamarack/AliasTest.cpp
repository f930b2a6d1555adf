#include "tamarack/AttributeAlias.h"
#include "tamarack/AttributeT.h"
#include "tamarack/Node.h"
#include "tamarack/Reference.h"

#include <gtest/gtest.h>

#include <atomic>
#include <thread>

using Tamarack::Attribute;
using Tamarack::AttributeAlias;
using IntAttr = Tamarack::AttributeT<int>;

namespace {

struct Counted
{
    explicit Counted(Attribute &a)
    {
        a.addListener([this] { ++changes; }, Attribute::CHANGE_ROLE);
    }
    std::atomic<int> changes{0};
};

} // namespace

TEST(Alias, WithoutTargetEmitsNothingByItself)
{
    Tamarack::Node root;
    AttributeAlias *alias = new AttributeAlias(&root, "alias");
    Counted counted(*alias);
    alias->setAttribute(nullptr);
    EXPECT_EQ(alias->attribute(), nullptr);
    EXPECT_EQ(counted.changes.load(), 0);
}

TEST(Alias, RetargetingEmitsOncePerRealChange)
{
    IntAttr a, b;
    AttributeAlias alias;
    Counted counted(alias);
    alias.setAttribute(&a);
    EXPECT_EQ(alias.attribute(), &a);
    alias.setAttribute(&a);
    EXPECT_EQ(counted.changes.load(), 1);
    alias.setAttribute(&b);
    alias.setAttribute(nullptr);
    EXPECT_EQ(counted.changes.load(), 3);
}

TEST(Alias, TargetChangeEmitsAtTheAliasAndFormerTargetsAreNotHeard)
{
    IntAttr a, b;
    AttributeAlias alias(nullptr, "alias", &a);
    Counted counted(alias);
    a.setValue(1);
    EXPECT_EQ(counted.changes.load(), 1);
    alias.setAttribute(&b); // 2
    a.setValue(2);
    b.setValue(3);          // 3
    EXPECT_EQ(counted.changes.load(), 3);
}

TEST(Alias, ChainPassesChangesOutward)
{
    IntAttr target;
    AttributeAlias inner(nullptr, "inner", &target);
    AttributeAlias outer(nullptr, "outer", &inner);
    Counted counted(outer);
    EXPECT_EQ(outer.attribute(), &inner);
    target.setValue(5);
    EXPECT_EQ(counted.changes.load(), 1);
}

TEST(Alias, TargetDeletionDropsTheTargetAndEmits)
{
    IntAttr *target = new IntAttr;
    AttributeAlias alias(nullptr, "alias", target);
    Attribute *seen = target;
    alias.addListener([&] { seen = alias.attribute(); }, Attribute::CHANGE_ROLE);
    delete target;
    EXPECT_EQ(alias.attribute(), nullptr);
    EXPECT_EQ(seen, nullptr);
}

TEST(Alias, RemovedFromItsHostWhileStillAnAlias)
{
    Tamarack::Node root;
    bool wasAlias = false;
    Tamarack::Reference ref;
    root.eventAttributeRemoved.addListener(ref.weak(), [&](Attribute *a) {
        wasAlias = dynamic_cast<AttributeAlias *>(a) != nullptr;
    });
    delete new AttributeAlias(&root, "alias");
    EXPECT_TRUE(wasAlias);
}

// One thread keeps changing two targets while another swaps the alias between them (run under
// the thread sanitizer). Afterwards the alias must hear exactly its last target.
TEST(AliasConcurrency, RetargetingWhileTargetsEmit)
{
    IntAttr a, b;
    AttributeAlias alias(nullptr, "alias", &a);
    Counted counted(alias);
    std::atomic<bool> done{false};
    std::thread setter([&] {
        for (int i = 1; i <= 20000; ++i) {
            a.setValue(i);
            b.setValue(-i);
        }
        done = true;
    });
    int swaps = 0;
    for (; swaps < 1000000 && !done.load(); ++swaps)
        alias.setAttribute(swaps % 2 ? &a : &b);
    setter.join();
    alias.setAttribute(&b);
    alias.setAttribute(&a);
    const int before = counted.changes.load();
    EXPECT_GE(before, swaps + 1); // every swap alternates, and the last two end on a
    b.setValue(1);
    EXPECT_EQ(counted.changes.load(), before);
    a.setValue(1);
    EXPECT_EQ(counted.changes.load(), before + 1);
}
