#include "loomy/sync/NodeSerialization.h"

#include "tamarack/AttributeAlias.h"
#include "tamarack/AttributeT.h"
#include "tamarack/Node.h"

#include <gtest/gtest.h>

using Tamarack::Attribute;
using Tamarack::AttributeAlias;
using Tamarack::Node;

namespace {

TEST(KidPath, JoinsWithOneSlash)
{
    EXPECT_EQ(Loomy::kidPath("", "b"), QByteArray("b"));
    EXPECT_EQ(Loomy::kidPath("a/b", "c"), QByteArray("a/b/c"));
    EXPECT_EQ(Loomy::kidPath("a", ""), QByteArray("a/"));
}

// Aliases are followed under the alias's path, null targets skipped; a skipped node leaves out its
// subtree, and the skip is not handed down to what lies below.
TEST(Walkers, FollowAliasesAndSkipSubtrees)
{
    Node root;
    new Tamarack::AttributeT<int>(&root, "a");
    auto *n = new Node(&root, "n");
    auto *x = new Tamarack::AttributeT<int>(n, "x");
    auto *m = new Node(n, "m");
    auto *z = new Tamarack::AttributeT<int>(m, "z");
    new AttributeAlias(&root, "twice", new AttributeAlias(&root, "al", x)); // an alias of an alias
    new AttributeAlias(&root, "dead", nullptr);
    new AttributeAlias(&root, "an", n);
    QStringList out;
    Loomy::walkAttributesWithPath(root, [&](Attribute &a, const QByteArray &path) { out << path + '=' + a.name(); });
    EXPECT_EQ(out, (QStringList{"a=a", "n/x=x", "n/m/z=z", "al=x", "twice=x", "an/x=x", "an/m/z=z"}));
    out.clear();
    Loomy::walkWithPathWorker(*n, "base", [&](Attribute &, const QByteArray &path) { out << path; });
    EXPECT_EQ(out, (QStringList{"base/x", "base/m/z"}));
    auto names = [&](const std::function<bool(Attribute &)> &skip) {
        QStringList names;
        Loomy::walkAttributes(root, [&](Attribute &a) { names << a.name(); }, skip);
        return names;
    };
    EXPECT_EQ(names([&](Attribute &a) { return &a == n; }), (QStringList{"a", "x", "x"}));
    EXPECT_EQ(names([&](Attribute &a) { return &a == m || &a == z; }), (QStringList{"a", "x", "z", "x", "x", "x", "z"}));
}

} // namespace
