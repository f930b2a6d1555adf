#include "loomy/sync/NodeSerialization.h"

#include "tamarack/AttributeAlias.h"
#include "tamarack/AttributeT.h"
#include "tamarack/Node.h"

#include <gtest/gtest.h>

using Tamarack::Attribute;
using Tamarack::AttributeAlias;
using IntAttr = Tamarack::AttributeT<int>;

// Aliases are followed under the alias's path, null targets skipped.
TEST(Walkers, FollowAliasesUnderTheirPaths)
{
    Tamarack::Node root;
    new IntAttr(&root, "a");
    auto *n = new Tamarack::Node(&root, "n");
    auto *x = new IntAttr(n, "x");
    new IntAttr(new Tamarack::Node(n, "m"), "z");
    new AttributeAlias(&root, "twice", new AttributeAlias(&root, "al", x)); // an alias of an alias
    new AttributeAlias(&root, "dead", nullptr);
    new AttributeAlias(&root, "an", n);
    QStringList out;
    Loomy::walkAttributesWithPath(root, [&](Attribute &a, const QByteArray &path) { out << path + '=' + a.name(); });
    EXPECT_EQ(out, (QStringList{"a=a", "n/x=x", "n/m/z=z", "al=x", "twice=x", "an/x=x", "an/m/z=z"}));
}
