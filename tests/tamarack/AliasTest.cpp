#include "TamarackTestUtil.h"

#include "tamarack/AttributeAlias.h"

using Tamarack::AttributeAlias;

TEST(Alias, RetargetingEmitsOncePerRealChange)
{
    IntAttr a, b;
    AttributeAlias alias;
    ChangeCount changes(alias);
    alias.setAttribute(nullptr); // no target yet: not a change
    alias.setAttribute(&a);
    alias.setAttribute(&a);
    EXPECT_EQ(changes.n.load(), 1);
    alias.setAttribute(&b);
    alias.setAttribute(nullptr);
    EXPECT_EQ(changes.n.load(), 3);
}

TEST(Alias, TargetChangeEmitsAtTheAliasAndFormerTargetsAreNotHeard)
{
    IntAttr a, b;
    AttributeAlias alias(nullptr, "alias", &a);
    ChangeCount changes(alias);
    a.setValue(1);
    EXPECT_EQ(changes.n.load(), 1);
    alias.setAttribute(&b); // 2
    a.setValue(2);
    b.setValue(3); // 3
    EXPECT_EQ(changes.n.load(), 3);
}

TEST(Alias, ChainPassesChangesOutward)
{
    IntAttr target;
    AttributeAlias inner(nullptr, "inner", &target), outer(nullptr, "outer", &inner);
    ChangeCount changes(outer);
    target.setValue(5);
    EXPECT_EQ(changes.n.load(), 1);
}

TEST(Alias, TargetDeletionDropsTheTargetBeforeEmitting)
{
    IntAttr *target = new IntAttr;
    AttributeAlias alias(nullptr, "alias", target);
    Attribute *seen = target;
    alias.addListener([&] { seen = alias.attribute(); }, Attribute::CHANGE_ROLE);
    delete target;
    EXPECT_EQ(alias.attribute(), nullptr);
    EXPECT_EQ(seen, nullptr);
}

// The host's removed listeners must see the object still as an alias, not as its base.
TEST(Alias, RemovedFromItsHostWhileStillAnAlias)
{
    Node root;
    bool wasAlias = false;
    Tamarack::Reference ref;
    root.eventAttributeRemoved.addListener(ref.weak(), [&](Attribute *a) {
        wasAlias = dynamic_cast<AttributeAlias *>(a) != nullptr;
    });
    delete new AttributeAlias(&root, "alias");
    EXPECT_TRUE(wasAlias);
}
