#include "TamarackTestUtil.h"

#include "tamarack/AttributeAlias.h"

using Tamarack::AttributeAlias;

// Records the alias's target at each of its changes.
TEST(Alias, EmitsOncePerRetargetAndPerChangeOfItsCurrentTargetOnly)
{
    IntAttr a, b;
    AttributeAlias alias;
    std::vector<Attribute *> seen;
    alias.addListener([&] { seen.push_back(alias.attribute()); }, Attribute::CHANGE_ROLE);
    alias.setAttribute(nullptr); // no target yet: not a change
    alias.setAttribute(&a);
    alias.setAttribute(&a);
    a.setValue(1);
    alias.setAttribute(&b);
    a.setValue(2);
    b.setValue(3);
    alias.setAttribute(nullptr);
    b.setValue(4);
    EXPECT_EQ(seen, std::vector<Attribute *>({&a, &a, &b, &b, nullptr}));
}

TEST(Alias, ChainPassesChangesOutwardAndADeletedTargetIsDroppedBeforeTheAliasEmits)
{
    IntAttr *target = new IntAttr;
    AttributeAlias inner(nullptr, "inner", target), outer(nullptr, "outer", &inner);
    ChangeCount changes(outer);
    target->setValue(5);
    EXPECT_EQ(changes.n.load(), 1);
    Attribute *seen = target;
    inner.addListener([&] { seen = inner.attribute(); }, Attribute::CHANGE_ROLE);
    delete target;
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
