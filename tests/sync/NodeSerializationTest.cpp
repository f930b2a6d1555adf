#include "loomy/sync/NodeSerialization.h"

#include "tamarack/AttributeAlias.h"
#include "tamarack/AttributeT.h"
#include "tamarack/Node.h"

#include <gtest/gtest.h>

using Tamarack::Attribute;
using Tamarack::AttributeAlias;
using Tamarack::Node;
using IntAttr = Tamarack::AttributeT<int>;

namespace {

struct KidPathCase { const char *name; QByteArray parent; QByteArray child; QByteArray path; };
const KidPathCase s_kidPaths[] = {
    {"UnderTheRoot", "", "b", "b"},
    {"UnderAPath", "a", "b", "a/b"},
    {"Deep", "a/b", "c", "a/b/c"},
    {"EmptyNameUnderAPath", "a", "", "a/"},
};
class KidPath : public ::testing::TestWithParam<KidPathCase> {};
TEST_P(KidPath, JoinsWithOneSlash)
{
    EXPECT_EQ(Loomy::kidPath(GetParam().parent, GetParam().child), GetParam().path);
}
INSTANTIATE_TEST_SUITE_P(Paths, KidPath, ::testing::ValuesIn(s_kidPaths),
                         [](const auto &i) { return std::string(i.param.name); });

// root: a, n/{x, m/{z}}, al -> n/x, dead -> null, twice -> al (alias of an alias), an -> n
class Walkers : public ::testing::Test
{
protected:
    Walkers()
    {
        a = new IntAttr(&root, "a");
        n = new Node(&root, "n");
        x = new IntAttr(n, "x");
        m = new Node(n, "m");
        z = new IntAttr(m, "z");
        auto *al = new AttributeAlias(&root, "al", x);
        new AttributeAlias(&root, "dead", nullptr);
        new AttributeAlias(&root, "twice", al);
        new AttributeAlias(&root, "an", n);
    }
    QStringList withPaths(Node &node)
    {
        QStringList out;
        Loomy::walkAttributesWithPath(node, [&](Attribute &attribute, const QByteArray &path) {
            out << QString::fromUtf8(path) + '=' + QString::fromUtf8(attribute.name());
        });
        return out;
    }
    QStringList names(const std::function<bool(Attribute &)> &skip)
    {
        QStringList out;
        Loomy::walkAttributes(root, [&](Attribute &attribute) { out << QString::fromUtf8(attribute.name()); }, skip);
        return out;
    }

    Node root;
    IntAttr *a;
    Node *n;
    IntAttr *x;
    Node *m;
    IntAttr *z;
};

TEST_F(Walkers, PathsFollowAliasesUnderTheAliasPathAndSkipNullTargets)
{
    EXPECT_EQ(withPaths(root), (QStringList{"a=a", "n/x=x", "n/m/z=z", "al=x", "twice=x", "an/x=x", "an/m/z=z"}));
}

TEST_F(Walkers, WalkWithPathStartsBelowTheGivenNode)
{
    QStringList out;
    Loomy::walkWithPathWorker(*n, "base", [&](Attribute &, const QByteArray &path) { out << QString::fromUtf8(path); });
    EXPECT_EQ(out, (QStringList{"base/x", "base/m/z"}));
}

TEST_F(Walkers, EmptyNodeCallsNothing)
{
    Node empty;
    int calls = 0;
    Loomy::walkAttributes(empty, [&](Attribute &) { ++calls; }, {});
    Loomy::walkAttributesWithPath(empty, [&](Attribute &, const QByteArray &) { ++calls; });
    EXPECT_EQ(calls, 0);
}

TEST_F(Walkers, SkipOfAChildNodeLeavesOutItsSubtree)
{
    EXPECT_EQ(names([&](Attribute &at) { return &at == n; }), (QStringList{"a", "x", "x"}));
}

TEST_F(Walkers, SkipIsNotHandedDown)
{
    EXPECT_EQ(names([&](Attribute &at) { return &at == m || &at == z; }),
              (QStringList{"a", "x", "z", "x", "x", "x", "z"}));
}

} // namespace
