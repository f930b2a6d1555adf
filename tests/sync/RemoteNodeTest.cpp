#include "SyncTestUtil.h"

#include "tamarack/AttributeAlias.h"

using Loomy::RemoteNode;
using Tamarack::Attribute;
using Tamarack::AttributeAlias;
using Tamarack::Node;
using IntAttr = Tamarack::AttributeT<int>;

namespace {

class RemoteNodeTest : public ::testing::Test
{
protected:
    IntAttr *add(const QByteArray &path) { auto *a = new IntAttr; EXPECT_TRUE(node.addDeepAttribute(path, a)); return a; }
    // A pattern listener that notes "<tag>:<name of the attribute>", "<tag>:null" without one.
    void listen(const QString &glob, const QString &tag)
    {
        node.onChangeImpl(RemoteNode::makeRegExp(glob), [this, tag](Attribute *attribute) {
            calls << tag + ':' + (attribute ? QString::fromUtf8(attribute->name()) : QStringLiteral("null"));
        });
    }
    QStringList takeCalls() { return std::exchange(calls, {}); }

    Node app;
    RemoteNode &node = *new RemoteNode(&app, "remote");
    QStringList calls;
    TraceCapture trace;
};

struct RefusedCase { const char *name; QByteArray path; bool null; QStringList log; };
const QString s_nodeExpected = "RemoteNode::addDeepAttribute # Failed to add attribute. An attribute already exists on the path where a node is expected.";
const RefusedCase s_refused[] = {
    {"NameTaken", "v", false, {}},
    {"LeadingSlash", "/n/x", false, {"RemoteNode::addDeepAttribute # full name shouldn't start with '/': /n/x"}},
    {"NullAttributeBeforeAnyNodeIsMade", "n/x", true, {"RemoteNode::addDeepAttribute # got a null attribute. Ignoring"}},
    {"ThroughAPlainAttribute", "v/w/x", false, {s_nodeExpected}},
    {"ThroughANullAlias", "dead/y", false, {s_nodeExpected}},
};
class DeepPathRefused : public RemoteNodeTest, public ::testing::WithParamInterface<RefusedCase> {};
TEST_P(DeepPathRefused, LeavesTheTreeAsItWas)
{
    add("v");
    new AttributeAlias(&node, "dead", nullptr);
    IntAttr x;
    EXPECT_FALSE(node.addDeepAttribute(GetParam().path, GetParam().null ? nullptr : &x));
    EXPECT_EQ(trace.lines(), GetParam().log);
    EXPECT_EQ(x.host(), nullptr);
    EXPECT_EQ(node.attributes().size(), 2);
}
INSTANTIATE_TEST_SUITE_P(Paths, DeepPathRefused, ::testing::ValuesIn(s_refused), [](const auto &i) { return std::string(i.param.name); });

// findOrCreateNode enters the nodes it made under the prefixed path; it doesn't follow an alias, where
// addDeepAttribute does.
TEST_F(RemoteNodeTest, FindOrCreateNodeAndAliases)
{
    QMap<QByteArray, Node *> created;
    Node *z = Loomy::findOrCreateNode({"remote", "y", "z"}, &app, &created, "p");
    EXPECT_EQ(at(node, "y/z"), z);
    EXPECT_EQ(created, (QMap<QByteArray, Node *>{{"p/remote/y", static_cast<Node *>(at(node, "y"))}, {"p/remote/y/z", z}}));
    add("v");
    new AttributeAlias(&node, "al", z);
    IntAttr *w = add("al/w");
    EXPECT_EQ(z->attribute("w"), w);
    EXPECT_EQ(Loomy::findOrCreateNode({"v", "w"}, &node, nullptr), nullptr);
    EXPECT_EQ(Loomy::findOrCreateNode({"al"}, &node, nullptr), nullptr);
    EXPECT_EQ(trace.lines(), (QStringList{"findOrCreateNode # 'v'' is not a node!", "findOrCreateNode # 'al'' is not a node!"}));
}

// Pattern listeners run once per update and attribute, in ascending id order, in the order of first
// change: for an attribute already there at the next update; for a later one at its addition;
// never for one changed and removed in the same frame.
TEST_F(RemoteNodeTest, PatternListenersRunOncePerUpdateInIdOrder)
{
    IntAttr *x = add("a/x");
    node.update();
    listen("a/**", "first");
    listen("a/y", "second");
    EXPECT_TRUE(takeCalls().isEmpty());
    node.update();
    node.update();
    EXPECT_EQ(takeCalls(), QStringList{"first:x"});
    IntAttr *y = add("a/y");
    add("b/y");
    node.update();
    EXPECT_EQ(takeCalls(), (QStringList{"first:y", "second:y"}));
    for (IntAttr *a : {y, x, x, y, x})
        a->setValue(a->value() + 1);
    node.update();
    EXPECT_EQ(takeCalls(), (QStringList{"first:y", "second:y", "first:x"}));
    x->setValue(9);
    delete x;
    node.update();
    EXPECT_TRUE(takeCalls().isEmpty());
}

} // namespace
