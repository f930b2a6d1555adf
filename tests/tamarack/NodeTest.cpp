#include "tamarack/AttributeT.h"
#include "tamarack/Node.h"
#include "tamarack/Reference.h"

#include "kestrel/BinaryData.h"

#include <gtest/gtest.h>

#include <QStringList>

#include <atomic>
#include <thread>
#include <vector>

using Tamarack::Attribute;
using Tamarack::Node;
using IntAttr = Tamarack::AttributeT<int>;

namespace {

// Writes what a node's events and an attribute's DELETE_ROLE listeners see, in order.
class Journal
{
public:
    void watch(Node &node, const QString &label)
    {
        node.eventAttributeAdded.addListener(m_ref.weak(), [this, label](Attribute *a) {
            lines << label + " added " + a->name();
        });
        node.eventAttributeRemoved.addListener(m_ref.weak(), [this, label](Attribute *a) {
            QString line = label + " removed " + a->name();
            if (Node *asNode = dynamic_cast<Node *>(a))
                line += QStringLiteral(" node(%1 children)").arg(asNode->attributes().size());
            line += QStringLiteral(" host=%1").arg(a->host() ? "set" : "null");
            lines << line;
        });
    }
    void watchDelete(Attribute &a)
    {
        Node *asNode = dynamic_cast<Node *>(&a);
        a.addListener([this, &a, asNode] {
            QString line = "delete " + a.name();
            if (asNode)
                line += QStringLiteral(" (%1 children)").arg(asNode->attributes().size());
            lines << line;
        }, Attribute::DELETE_ROLE);
    }
    QStringList lines;

private:
    Tamarack::Reference m_ref;
};

} // namespace

TEST(NodeAddition, AddedEventRunsBeforeTheDerivedPartExists)
{
    Node root;
    std::vector<bool> wasInt;
    QList<QByteArray> names;
    long listener = 0;
    Attribute *early = nullptr;
    Tamarack::Reference ref;
    root.eventAttributeAdded.addListener(ref.weak(), [&](Attribute *a) {
        names << a->name();
        wasInt.push_back(dynamic_cast<IntAttr *>(a) != nullptr);
        early = a;
        listener = a->addListener([] {}, Attribute::CHANGE_ROLE); // attaching is allowed
    });
    IntAttr *attr = new IntAttr(&root, "speed", 3);
    EXPECT_EQ(names, QList<QByteArray>({"speed"}));
    EXPECT_EQ(wasInt, std::vector<bool>({false}));
    EXPECT_EQ(early, attr);
    EXPECT_GT(listener, 0);
    EXPECT_EQ(attr->host(), &root);
    EXPECT_EQ(root.attribute("speed"), attr);
}

TEST(NodeAddition, RefusedAdditionsChangeNothing)
{
    Node root, other;
    IntAttr *taken = new IntAttr(&root, "x");
    IntAttr *hosted = new IntAttr(&other, "y");
    IntAttr free1;
    Journal journal;
    journal.watch(root, "root");

    EXPECT_FALSE(root.addAttribute("z", nullptr));
    EXPECT_FALSE(root.addAttribute("x", &free1));     // name taken
    EXPECT_FALSE(root.addAttribute("y", hosted));     // already has a host
    EXPECT_FALSE(root.addAttribute("self", &root));
    EXPECT_TRUE(journal.lines.isEmpty());
    EXPECT_EQ(root.attributes().size(), 1);
    EXPECT_EQ(root.attribute("x"), taken);
    EXPECT_EQ(hosted->host(), &other);
    EXPECT_EQ(free1.host(), nullptr);
}

TEST(NodeAddition, AddAttributeGivesTheNameAndRaisesTheEventBeforeReturning)
{
    Node root;
    Journal journal;
    journal.watch(root, "root");
    IntAttr *attr = new IntAttr;
    ASSERT_TRUE(root.addAttribute("late", attr));
    EXPECT_EQ(journal.lines, QStringList({"root added late"}));
    EXPECT_EQ(attr->name(), QByteArray("late"));
}

TEST(NodeChildren, StoredOrderSurvivesRemovalsAndLookupsStayExact)
{
    Node root;
    std::vector<IntAttr *> attrs;
    for (int i = 0; i < 100; ++i)
        attrs.push_back(new IntAttr(&root, QByteArray::number(i), i));
    for (int i = 0; i < 100; i += 2)
        delete attrs[i];
    new IntAttr(&root, "0", -1); // a freed name can be taken again, and goes last

    const auto list = root.attributes();
    ASSERT_EQ(list.size(), 51);
    for (int i = 0; i < 50; ++i) {
        EXPECT_EQ(list[i].first, QByteArray::number(2 * i + 1));
        EXPECT_EQ(list[i].second, attrs[2 * i + 1]);
        EXPECT_EQ(root.attribute(QByteArray::number(2 * i + 1)), attrs[2 * i + 1]);
        EXPECT_EQ(root.attribute(QByteArray::number(2 * i + 2)), nullptr);
    }
    EXPECT_EQ(list[50].first, QByteArray("0"));
    EXPECT_EQ(static_cast<IntAttr *>(root.attribute("0"))->value(), -1);
}

TEST(NodeRemoval, RemoveAttributeRaisesTheEventAndHandsTheAttributeBack)
{
    Journal journal; // outlives the nodes, whose deletion still reaches it
    Node root, other;
    journal.watch(root, "root");
    IntAttr *attr = new IntAttr(&root, "x");
    journal.watchDelete(*attr);
    EXPECT_TRUE(root.removeAttribute(attr));
    EXPECT_FALSE(root.removeAttribute(attr));
    EXPECT_EQ(root.attribute("x"), nullptr);
    EXPECT_TRUE(other.addAttribute("x", attr)); // free again, and alive
    EXPECT_EQ(journal.lines, QStringList({"root added x", "root removed x host=null"}));
}

TEST(NodeRemoval, RenamedChildIsStillFoundForRemoval)
{
    Node root;
    IntAttr *attr = new IntAttr(&root, "before");
    attr->setName("after");
    EXPECT_TRUE(root.removeAttribute(attr));
    EXPECT_TRUE(root.attributes().isEmpty());
    delete attr;
}

TEST(NodeDeletion, AttributeLeavesItsHostBeforeItsDeleteListenersRun)
{
    Node root;
    Journal journal;
    journal.watch(root, "root");
    IntAttr *attr = new IntAttr(&root, "x");
    journal.watchDelete(*attr);
    delete attr;
    EXPECT_EQ(journal.lines, QStringList({"root added x", "root removed x host=null", "delete x"}));
}

TEST(NodeDeletion, NodeLeavesAsANodeThenDeleteListenersThenChildrenInOrder)
{
    Node root;
    Node *branch = new Node(&root, "branch");
    IntAttr *a = new IntAttr(branch, "a");
    Node *inner = new Node(branch, "inner");
    new IntAttr(inner, "leaf");
    Journal journal;
    journal.watch(root, "root");
    journal.watch(*branch, "branch");
    journal.watch(*inner, "inner");
    journal.watchDelete(*branch);
    journal.watchDelete(*a);
    journal.watchDelete(*inner);

    delete branch;
    EXPECT_EQ(journal.lines, QStringList({
                                 "root removed branch node(2 children) host=null",
                                 "delete branch (2 children)",
                                 "branch removed a host=null",
                                 "delete a",
                                 "branch removed inner node(1 children) host=null",
                                 "delete inner (1 children)",
                                 "inner removed leaf host=null",
                             }));
    EXPECT_TRUE(root.attributes().isEmpty());
}

TEST(NodeDeletion, AChildDeletedByAnotherChildsDeleteListenerIsDeletedOnce)
{
    Node *root = new Node;
    IntAttr *first = new IntAttr(root, "first");
    IntAttr *second = new IntAttr(root, "second");
    int deletions = 0;
    second->addListener([&] { ++deletions; }, Attribute::DELETE_ROLE);
    first->addListener([&] { delete second; }, Attribute::DELETE_ROLE);
    delete root; // would double-delete `second` if positions were not re-read
    EXPECT_EQ(deletions, 1);
}

TEST(NodeEvents, SendWithoutListenersDoesNothing)
{
    Node root;
    IntAttr *x = new IntAttr(&root, "x", 1);
    Kestrel::BinaryData data;
    data.writeInt32(5);
    root.eventSend("x", data);
    root.eventSend("x");
    EXPECT_EQ(x->value(), 1);
    EXPECT_EQ(data.total(), 8u);
}

TEST(NodeEvents, PlainListenersRunInIdOrderOnlyForTheirEvent)
{
    Node root;
    std::vector<int> calls;
    root.eventAddListener("go", [&] { calls.push_back(1); });
    const long second = root.eventAddListener("go", [&] { calls.push_back(2); });
    root.eventAddListener("stop", [&] { calls.push_back(3); });
    root.eventSend("go");
    root.eventRemoveListener(second);
    root.eventSend("go");
    EXPECT_EQ(calls, std::vector<int>({1, 2, 1}));
}

TEST(NodeEvents, ObjectListenersDeliverRewoundDataOrDefaults)
{
    Node root, target;
    IntAttr *speed = new IntAttr(&target, "speed", 0);
    Kestrel::BinaryData defaults;
    defaults.writeInt32(9);
    root.eventAddListener("go", "speed", &target, Node::DIRECT, &defaults);

    Kestrel::BinaryData data;
    data.writeInt32(7); // position at the end: the delivery must rewind
    root.eventSend("go", data);
    EXPECT_EQ(speed->value(), 7);
    EXPECT_EQ(speed->currentLayer(), Attribute::LAYER_USER);

    root.eventSend("go");
    EXPECT_EQ(speed->value(), 9);
}

TEST(NodeEvents, ProcessOfAnUnknownIdIsIgnored)
{
    Node root;
    IntAttr *x = new IntAttr(&root, "x", 1);
    Kestrel::BinaryData data;
    data.writeInt32(5);
    data.rewind();
    root.eventProcess("y", data);
    EXPECT_EQ(x->value(), 1);
    root.eventProcess("x", data);
    EXPECT_EQ(x->value(), 5);
}

TEST(NodeEvents, DeclarationsAreKeptOnce)
{
    Node root;
    root.eventAddOut("initialized");
    root.eventAddOut("destroyed");
    root.eventAddOut("initialized");
    root.eventAddIn("ping");
    EXPECT_EQ(root.eventsOut(), QList<QByteArray>({"initialized", "destroyed"}));
    EXPECT_EQ(root.eventsIn(), QList<QByteArray>({"ping"}));
}

TEST(NodeConcurrency, AdditionsAndRemovalsFromSeveralThreads)
{
    constexpr int threads = 4, perThread = 2000;
    Node root;
    std::atomic<int> added{0}, removed{0};
    Tamarack::Reference ref;
    root.eventAttributeAdded.addListener(ref.weak(), [&](Attribute *) { ++added; });
    root.eventAttributeRemoved.addListener(ref.weak(), [&](Attribute *) { ++removed; });
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t) {
        workers.emplace_back([&root, t] {
            for (int i = 0; i < perThread; ++i) {
                IntAttr *attr = new IntAttr(&root, QByteArray::number(t) + "/" + QByteArray::number(i), i);
                if (i % 3 == 0)
                    delete attr;
                else
                    (void)root.attribute(attr->name());
            }
        });
    }
    for (auto &w : workers)
        w.join();
    const int deleted = threads * ((perThread + 2) / 3);
    EXPECT_EQ(added.load(), threads * perThread);
    EXPECT_EQ(removed.load(), deleted);
    EXPECT_EQ(root.attributes().size(), threads * perThread - deleted);
    for (int t = 0; t < threads; ++t)
        for (int i = 1; i < perThread; i += 3)
            ASSERT_NE(root.attribute(QByteArray::number(t) + "/" + QByteArray::number(i)), nullptr);
}
