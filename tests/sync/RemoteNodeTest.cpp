#include "loomy/sync/RemoteNode.h"

#include "common/TraceCapture.h"
#include "tamarack/AttributeAlias.h"
#include "tamarack/AttributeT.h"

#include <gtest/gtest.h>

using Loomy::NodeWatcher;
using Loomy::RemoteNode;
using Tamarack::Attribute;
using Tamarack::AttributeAlias;
using Tamarack::Node;
using IntAttr = Tamarack::AttributeT<int>;

namespace {

class RemoteNodeTest : public ::testing::Test
{
protected:
    IntAttr *add(const QByteArray &path)
    {
        auto *a = new IntAttr;
        EXPECT_TRUE(node.addDeepAttribute(path, a));
        return a;
    }
    // A pattern listener that logs "<tag>:<path of the attribute>", "<tag>:null" without one.
    void listen(const QString &glob, const QString &tag)
    {
        node.onChangeImpl(RemoteNode::makeRegExp(glob), [this, tag](Attribute *attribute) {
            calls << tag + ':' + (attribute ? QString::fromUtf8(attribute->name()) : QStringLiteral("null"));
        });
    }
    QStringList takeCalls()
    {
        QStringList out;
        out.swap(calls);
        return out;
    }

    Node app;
    RemoteNode &node = *new RemoteNode(&app, "remote");
    QStringList calls;
    TraceCapture trace;
};

TEST_F(RemoteNodeTest, DeepPathMakesTheMissingNodes)
{
    IntAttr *c = new IntAttr;
    EXPECT_TRUE(node.addDeepAttribute("a/b/c", c));
    auto *a = dynamic_cast<Node *>(node.attribute("a"));
    ASSERT_NE(a, nullptr);
    auto *b = dynamic_cast<Node *>(a->attribute("b"));
    ASSERT_NE(b, nullptr);
    EXPECT_EQ(b->attribute("c"), c);
    EXPECT_TRUE(node.addDeepAttribute("top", new IntAttr));
    EXPECT_NE(node.attribute("top"), nullptr);
    EXPECT_TRUE(trace.lines().isEmpty());
}

TEST_F(RemoteNodeTest, DeepPathGivesTheResultOfTheFinalAddition)
{
    add("a/x");
    IntAttr second;
    EXPECT_FALSE(node.addDeepAttribute("a/x", &second)); // the name is taken
    EXPECT_EQ(second.host(), nullptr);
}

TEST_F(RemoteNodeTest, DeepPathWithALeadingSlashIsRefused)
{
    IntAttr a;
    EXPECT_FALSE(node.addDeepAttribute("/a/b", &a));
    EXPECT_EQ(trace.lines(), QStringList{"RemoteNode::addDeepAttribute # full name shouldn't start with '/': /a/b"});
    EXPECT_TRUE(node.attributes().isEmpty());
}

TEST_F(RemoteNodeTest, NullAttributeIsReportedBeforeAnyNodeIsMade)
{
    EXPECT_FALSE(node.addDeepAttribute("a/b", nullptr));
    EXPECT_EQ(trace.lines(), QStringList{"RemoteNode::addDeepAttribute # got a null attribute. Ignoring"});
    EXPECT_EQ(node.attribute("a"), nullptr);
}

TEST_F(RemoteNodeTest, DeepPathThroughAPlainAttributeIsRefused)
{
    add("a/v");
    IntAttr x;
    EXPECT_FALSE(node.addDeepAttribute("a/v/w/x", &x));
    EXPECT_EQ(trace.lines(), QStringList{"RemoteNode::addDeepAttribute # Failed to add attribute. An attribute already exists on the path where a node is expected."});
    EXPECT_EQ(x.host(), nullptr);
    EXPECT_EQ(static_cast<Node *>(node.attribute("a"))->attributes().size(), 1);
}

TEST_F(RemoteNodeTest, DeepPathGoesThroughAnAliasOfANodeButNotANullAlias)
{
    auto *target = new Node(&node, "target");
    new AttributeAlias(&node, "al", target);
    new AttributeAlias(&node, "dead", nullptr);
    IntAttr *x = new IntAttr;
    EXPECT_TRUE(node.addDeepAttribute("al/x", x));
    EXPECT_EQ(target->attribute("x"), x);
    IntAttr y;
    EXPECT_FALSE(node.addDeepAttribute("dead/y", &y));
    EXPECT_EQ(trace.lines().size(), 1);
}

TEST(FindOrCreateNode, EmptyPathGivesTheNodeAndLeavesCreatedAlone)
{
    Node root;
    QMap<QByteArray, Node *> created;
    created.insert("keep", nullptr);
    EXPECT_EQ(Loomy::findOrCreateNode({}, &root, &created, "p"), &root);
    EXPECT_EQ(created.keys(), QList<QByteArray>{"keep"});
}

TEST(FindOrCreateNode, EntersOnlyNewNodesUnderTheirPrefixedPath)
{
    Node root;
    auto *x = new Node(&root, "x");
    QMap<QByteArray, Node *> created;
    Node *z = Loomy::findOrCreateNode({"x", "y", "z"}, &root, &created, "p");
    ASSERT_NE(z, nullptr);
    auto *y = dynamic_cast<Node *>(x->attribute("y"));
    ASSERT_NE(y, nullptr);
    EXPECT_EQ(y->attribute("z"), z);
    EXPECT_EQ(created.keys(), (QList<QByteArray>{"p/x/y", "p/x/y/z"}));
    EXPECT_EQ(created.value("p/x/y"), y);
    EXPECT_EQ(Loomy::findOrCreateNode({"x", "y", "z"}, &root, nullptr, QByteArray()), z);
}

TEST(FindOrCreateNode, ChildThatIsNoNodeIsReportedAndAliasesAreNotFollowed)
{
    TraceCapture trace;
    Node root;
    new IntAttr(&root, "v");
    new AttributeAlias(&root, "al", new Node(&root, "n"));
    EXPECT_EQ(Loomy::findOrCreateNode({"v", "w"}, &root, nullptr, QByteArray()), nullptr);
    EXPECT_EQ(Loomy::findOrCreateNode({"al"}, &root, nullptr, QByteArray()), nullptr);
    EXPECT_EQ(trace.lines(), (QStringList{"findOrCreateNode # 'v'' is not a node!", "findOrCreateNode # 'al'' is not a node!"}));
    EXPECT_EQ(root.attribute("w"), nullptr);
}

TEST_F(RemoteNodeTest, PatternListenerForAnExistingAttributeRunsOnceWithoutAChange)
{
    add("a/x");
    node.update();
    listen("a/*", "L");
    EXPECT_TRUE(takeCalls().isEmpty());
    node.update();
    node.update();
    EXPECT_EQ(takeCalls(), QStringList{"L:x"});
}

TEST_F(RemoteNodeTest, PatternListenerForALaterAttributeRunsAtTheUpdateAfterItsAddition)
{
    listen("a/*", "L");
    node.update();
    add("a/x");
    add("b/x");
    node.update();
    EXPECT_EQ(takeCalls(), QStringList{"L:x"});
}

TEST_F(RemoteNodeTest, PatternListenersRunOncePerUpdateInIdOrderAndInOrderOfFirstChange)
{
    IntAttr *x = add("a/x");
    IntAttr *y = add("a/y");
    node.update();
    listen("a/**", "first");
    listen("a/y", "second");
    node.update();
    takeCalls();
    y->setValue(1);
    x->setValue(1);
    x->setValue(2);
    y->setValue(2);
    x->setValue(3);
    node.update();
    EXPECT_EQ(takeCalls(), (QStringList{"first:y", "second:y", "first:x"}));
}

TEST_F(RemoteNodeTest, AttributeChangedAndRemovedInOneFrameRunsNoListener)
{
    IntAttr *x = add("a/x");
    add("a/y");
    listen("a/*", "L");
    node.update();
    takeCalls();
    x->setValue(1);
    delete x;
    node.update();
    EXPECT_TRUE(takeCalls().isEmpty());
}

TEST_F(RemoteNodeTest, PatternOnAnEmptyTreeIsKept)
{
    listen("**", "L");
    node.update();
    EXPECT_TRUE(takeCalls().isEmpty());
    add("deep/er/x");
    node.update();
    EXPECT_EQ(takeCalls(), QStringList{"L:x"});
}

TEST_F(RemoteNodeTest, ListenerGetsNullWhenAnEarlierListenerRemovedTheAttribute)
{
    add("a/x");
    node.onChangeImpl(RemoteNode::makeRegExp("a/x"), [](Attribute *attribute) { delete attribute; });
    listen("a/x", "after");
    node.update();
    EXPECT_EQ(takeCalls(), QStringList{"after:null"});
}

TEST_F(RemoteNodeTest, ChangeMadeByAListenerIsServedAtTheNextUpdate)
{
    IntAttr *x = add("a/x");
    int runs = 0;
    node.onChangeImpl(RemoteNode::makeRegExp("a/x"), [&](Attribute *) {
        ++runs;
        x->setValue(runs);
    });
    node.update();
    EXPECT_EQ(runs, 1);
    node.update();
    EXPECT_EQ(runs, 2);
}

TEST_F(RemoteNodeTest, ProcessPendingAdditionsRaisesAdditionsWithoutPatternListeners)
{
    listen("**", "L");
    std::vector<NodeWatcher::EventType> types;
    const long id = node.addAttributeChangeListener([&](const NodeWatcher::Event &event) { types.push_back(event.type); });
    add("x");
    node.processPendingAdditions();
    EXPECT_EQ(types, std::vector<NodeWatcher::EventType>{NodeWatcher::ATTRIBUTE_ADDED});
    EXPECT_TRUE(takeCalls().isEmpty());
    node.removeAttributeChangeListener(id);
    node.update();
    EXPECT_EQ(takeCalls(), QStringList{"L:x"});
    EXPECT_EQ(types.size(), 1u);
}

TEST_F(RemoteNodeTest, IgnoreBracketHidesOneChangeFromTheSessions)
{
    IntAttr *x = add("x");
    node.update();
    int changes = 0;
    node.addAttributeChangeListener([&](const NodeWatcher::Event &event) {
        changes += event.type == NodeWatcher::ATTRIBUTE_CHANGED;
    });
    const NodeWatcher::Event changed{NodeWatcher::ATTRIBUTE_CHANGED, node.symbols().lookup("x")};
    node.ignoreOne(changed);
    x->setValue(1);
    node.ignoreOne(changed);
    node.stopIgnoring(changed);
    x->setValue(2);
    EXPECT_EQ(changes, 1);
}

TEST_F(RemoteNodeTest, DestroyedIsRaisedWhileTheTreeAndTablesAreIntact)
{
    add("a/x");
    node.update();
    const unsigned x = node.symbols().lookup("a/x");
    bool intact = false;
    int destroyed = 0;
    node.eventAddListener("destroyed", [&] {
        ++destroyed;
        intact = node.cache().find(x) == static_cast<Node *>(node.attribute("a"))->attribute("x");
    });
    delete &node;
    EXPECT_EQ(destroyed, 1);
    EXPECT_TRUE(intact);
    EXPECT_TRUE(app.attributes().isEmpty());
}

} // namespace
