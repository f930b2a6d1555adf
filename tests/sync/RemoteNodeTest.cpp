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
    IntAttr *add(const QByteArray &path, IntAttr *a = new IntAttr)
    {
        EXPECT_TRUE(node.addDeepAttribute(path, a));
        return a;
    }
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

TEST_F(RemoteNodeTest, DeepPathMakesTheMissingNodesAndGoesThroughAnAliasOfANode)
{
    IntAttr *c = add("a/b/c");
    EXPECT_EQ(at(node, "a/b/c"), c);
    EXPECT_NE(dynamic_cast<Node *>(at(node, "a/b")), nullptr);
    new AttributeAlias(&node, "al", node.attribute("a"));
    EXPECT_EQ(at(node, "a/x"), add("al/x"));
    EXPECT_TRUE(trace.lines().isEmpty());
}

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
INSTANTIATE_TEST_SUITE_P(Paths, DeepPathRefused, ::testing::ValuesIn(s_refused),
                         [](const auto &i) { return std::string(i.param.name); });

// Only nodes it made are entered, under the prefixed path; aliases are not followed.
TEST_F(RemoteNodeTest, FindOrCreateNode)
{
    QMap<QByteArray, Node *> created;
    EXPECT_EQ(Loomy::findOrCreateNode({}, &app, &created, "p"), &app);
    Node *z = Loomy::findOrCreateNode({"remote", "y", "z"}, &app, &created, "p");
    EXPECT_EQ(at(node, "y/z"), z);
    EXPECT_EQ(created, (QMap<QByteArray, Node *>{{"p/remote/y", static_cast<Node *>(at(node, "y"))}, {"p/remote/y/z", z}}));
    add("v");
    new AttributeAlias(&node, "al", z);
    EXPECT_EQ(Loomy::findOrCreateNode({"v", "w"}, &node, nullptr), nullptr);
    EXPECT_EQ(Loomy::findOrCreateNode({"al"}, &node, nullptr), nullptr);
    EXPECT_EQ(trace.lines(), (QStringList{"findOrCreateNode # 'v'' is not a node!", "findOrCreateNode # 'al'' is not a node!"}));
}

// Pattern listeners run once per update and attribute: for one already there at the next update,
// without a change; for a later one at its addition; then in ascending id order, in the order of
// first change; never for an attribute changed and removed in the same frame.
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

// A listener that removes the attribute leaves null to the later ones; a change made by a listener
// is served at the next update.
TEST_F(RemoteNodeTest, ListenersMayRemoveAndChangeAttributes)
{
    add("a/x");
    IntAttr *y = add("a/y");
    node.onChangeImpl(RemoteNode::makeRegExp("a/x"), [](Attribute *attribute) { delete attribute; });
    listen("a/x", "after");
    node.onChangeImpl(RemoteNode::makeRegExp("a/y"), [y](Attribute *) { y->setValue(y->value() + 1); });
    node.update();
    EXPECT_EQ(takeCalls(), QStringList{"after:null"});
    node.update();
    node.update();
    EXPECT_EQ(y->value(), 3);
}

// processPendingAdditions raises the additions now; pattern listeners wait for update.
TEST_F(RemoteNodeTest, ProcessPendingAdditionsRaisesAdditionsWithoutPatternListeners)
{
    listen("**", "L");
    int added = 0;
    node.addAttributeChangeListener([&](const Loomy::NodeWatcher::Event &event) { added += event.type == Loomy::NodeWatcher::ATTRIBUTE_ADDED; });
    add("x");
    node.processPendingAdditions();
    EXPECT_EQ(added, 1);
    EXPECT_TRUE(takeCalls().isEmpty());
    node.update();
    EXPECT_EQ(takeCalls(), QStringList{"L:x"});
    EXPECT_EQ(added, 1);
}

TEST_F(RemoteNodeTest, DestroyedIsRaisedWhileTheTreeAndTablesAreIntact)
{
    add("a/x");
    node.update();
    const unsigned x = node.symbols().lookup("a/x");
    int intact = 0;
    node.eventAddListener("destroyed", [&] { intact += node.cache().find(x) == at(node, "a/x"); });
    delete &node;
    EXPECT_EQ(intact, 1);
    EXPECT_TRUE(app.attributes().isEmpty());
}

} // namespace
