#include "TamarackTestUtil.h"
#include "tamarack/AttributeAlias.h"

#include <QStringList>

#include <map>
#include <random>

namespace {

// What nodes' events and attributes' DELETE_ROLE listeners see, in order; a node shows its size.
struct Journal
{
    static QString show(Attribute *a)
    {
        const Node *node = dynamic_cast<Node *>(a);
        return a->name() + (node ? QStringLiteral(" node(%1 children)").arg(node->attributes().size()) : "");
    }
    void watch(Node &node, const QString &label)
    {
        node.eventAttributeAdded.addListener(ref.weak(), [this, label](Attribute *a) {
            lines << label + " added " + show(a);
        });
        node.eventAttributeRemoved.addListener(ref.weak(), [this, label](Attribute *a) {
            lines << label + " removed " + show(a) + (a->host() ? " host=set" : " host=null");
        });
    }
    void watchDelete(Attribute *a)
    {
        a->addListener([this, a] { lines << "delete " + show(a); }, Attribute::DELETE_ROLE);
    }
    QStringList lines;
    Tamarack::Reference ref;
};

} // namespace

TEST(NodeAddition, AddedEventRunsBeforeTheDerivedPartExists)
{
    Node root;
    Tamarack::Reference ref;
    Attribute *seen = nullptr;
    long listener = 0;
    root.eventAttributeAdded.addListener(ref.weak(), [&](Attribute *a) {
        seen = dynamic_cast<IntAttr *>(a) ? nullptr : a;
        listener = a->addListener([] {}, Attribute::CHANGE_ROLE); // attaching is allowed
    });
    IntAttr *attr = new IntAttr(&root, "speed", 3);
    EXPECT_EQ(seen, attr); // and not yet an IntAttr then
    EXPECT_GT(listener, 0);
}

TEST(NodeAddition, RefusedAdditionsChangeNothing)
{
    Node root, other;
    IntAttr *taken = new IntAttr(&root, "x");
    IntAttr *hosted = new IntAttr(&other, "y");
    IntAttr free;
    Journal journal;
    journal.watch(root, "root");
    // No attribute, a taken name, an attribute with a host, the node itself.
    const std::pair<const char *, Attribute *> refused[] = {{"z", nullptr}, {"x", &free}, {"y", hosted}, {"s", &root}};
    for (const auto &r : refused)
        EXPECT_FALSE(root.addAttribute(r.first, r.second)) << r.first;
    EXPECT_TRUE(journal.lines.isEmpty());
    EXPECT_EQ(root.attributes().size(), 1);
    EXPECT_EQ(root.attribute("x"), taken);
    EXPECT_EQ(hosted->host(), &other);
    EXPECT_EQ(free.host(), nullptr);
}

TEST(NodeMembership, AddRemoveAndDeleteRaiseTheirEventsInOrder)
{
    Journal journal; // outlives the nodes, whose deletion still reaches it
    Node root, other;
    journal.watch(root, "root");
    journal.watch(other, "other");
    IntAttr *attr = new IntAttr;
    journal.watchDelete(attr);
    ASSERT_TRUE(root.addAttribute("x", attr));
    EXPECT_EQ(attr->name(), QByteArray("x"));
    EXPECT_EQ(journal.lines, QStringList({"root added x"})); // before addAttribute returned
    attr->setName("renamed"); // regression: a renamed child was not found for removal
    EXPECT_TRUE(root.removeAttribute(attr));
    EXPECT_FALSE(root.removeAttribute(attr));
    EXPECT_EQ(root.attribute("x"), nullptr);
    EXPECT_TRUE(root.attributes().isEmpty());
    EXPECT_TRUE(other.addAttribute("x", attr)); // handed back alive, and free
    delete attr; // leaves its host before its DELETE_ROLE listeners run
    EXPECT_EQ(journal.lines, QStringList({"root added x", "root removed renamed host=null", "other added x",
                                          "other removed x host=null", "delete x"}));
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
    const auto vector = root.children(); // the same list, holes left out alike
    ASSERT_EQ(vector.size(), 51u);
    for (int i = 0; i < 51; ++i)
        EXPECT_TRUE(vector[size_t(i)].first == list[i].first && vector[size_t(i)].second == list[i].second) << i;
}

TEST(NodeDeletion, NodeLeavesAsANodeThenDeleteListenersThenChildrenInOrder)
{
    Node root;
    Node *branch = new Node(&root, "branch");
    IntAttr *a = new IntAttr(branch, "a");
    Node *inner = new Node(branch, "inner");
    new IntAttr(inner, "leaf");
    Journal journal;
    for (Node *node : {&root, branch, inner})
        journal.watch(*node, node == &root ? "root" : node->name());
    for (Attribute *attr : std::initializer_list<Attribute *>{branch, a, inner})
        journal.watchDelete(attr);
    delete branch;
    EXPECT_EQ(journal.lines, QStringList({"root removed branch node(2 children) host=null",
                                          "delete branch node(2 children)", "branch removed a host=null", "delete a",
                                          "branch removed inner node(1 children) host=null",
                                          "delete inner node(1 children)", "inner removed leaf host=null"}));
    EXPECT_TRUE(root.attributes().isEmpty());
}

// Regression: a child deleted by another child's DELETE_ROLE listener was deleted twice.
TEST(NodeDeletion, AChildDeletedByAnotherChildsDeleteListenerIsDeletedOnce)
{
    Node *root = new Node;
    IntAttr *first = new IntAttr(root, "first");
    IntAttr *second = new IntAttr(root, "second");
    int deletions = 0;
    second->addListener([&] { ++deletions; }, Attribute::DELETE_ROLE);
    first->addListener([&] { delete second; }, Attribute::DELETE_ROLE);
    delete root;
    EXPECT_EQ(deletions, 1);
}

TEST(NodeEvents, PlainListenersRunInIdOrderOnlyForTheirEvent)
{
    Node root;
    Ints calls;
    root.eventAddListener("go", [&] { calls.push_back(1); });
    const long second = root.eventAddListener("go", [&] { calls.push_back(2); });
    root.eventAddListener("stop", [&] { calls.push_back(3); });
    root.eventSend("go");
    root.eventRemoveListener(second);
    root.eventSend("go");
    EXPECT_EQ(calls, Ints({1, 2, 1}));
}

TEST(NodeEvents, ObjectListenersDeliverRewoundDataOrDefaultsToTheNamedChildOnly)
{
    Node root, target;
    IntAttr *speed = new IntAttr(&target, "speed", 0);
    Kestrel::BinaryData defaults = intItem(9), data = intItem(7);
    root.eventAddListener("go", "speed", &target, Node::DIRECT, &defaults);
    target.eventSend("speed", data);    // no listeners: the child of that name is no event target
    target.eventProcess("other", data); // nor is an unknown name
    EXPECT_EQ(speed->value(), 0);
    EXPECT_EQ(data.readInt32(), 7); // leaves the position at the end: the delivery must rewind
    root.eventSend("go", data);
    EXPECT_EQ(speed->value(), 7);
    root.eventSend("go");
    EXPECT_EQ(speed->value(), 9);
}

TEST(NodeEvents, DeclarationsAreKeptOnceInOrder)
{
    Node root;
    for (const char *id : {"initialized", "destroyed", "initialized"})
        root.eventAddOut(id);
    root.eventAddIn("ping");
    EXPECT_EQ(root.eventsOut(), QList<QByteArray>({"initialized", "destroyed"}));
    EXPECT_EQ(root.eventsIn(), QList<QByteArray>({"ping"}));
}

// Four threads add children and delete every third; no addition, removal or event may be lost.
TEST(NodeConcurrency, AdditionsAndRemovalsFromSeveralThreads)
{
    constexpr int threads = 4, perThread = 2000, kept = threads * (perThread - (perThread + 2) / 3);
    Node root;
    std::atomic<int> added{0}, removed{0};
    Tamarack::Reference ref;
    root.eventAttributeAdded.addListener(ref.weak(), [&](Attribute *) { ++added; });
    root.eventAttributeRemoved.addListener(ref.weak(), [&](Attribute *) { ++removed; });
    auto name = [](int t, int i) { return QByteArray::number(t) + "/" + QByteArray::number(i); };
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&, t] {
            for (int i = 0; i < perThread; ++i) {
                IntAttr *attr = new IntAttr(&root, name(t, i), i);
                if (i % 3 == 0)
                    delete attr;
                else
                    EXPECT_EQ(root.attribute(attr->name()), attr);
            }
        });
    for (auto &w : workers)
        w.join();
    EXPECT_EQ(added.load(), threads * perThread);
    EXPECT_EQ(removed.load(), threads * perThread - kept);
    EXPECT_EQ(root.attributes().size(), kept);
}

// The cheap kind tests must agree with dynamic_cast, also in the removed event, where a
// destructor may already have reduced the object (a node and an alias leave as what they are).
TEST(NodeDeletion, KindTestsAgreeWithDynamicCastWhileChildrenLeave)
{
    Node root;
    new Node(&root, "node");
    new Tamarack::AttributeAlias(&root, "alias");
    new IntAttr(&root, "int");
    QStringList seen;
    Tamarack::Reference ref;
    root.eventAttributeRemoved.addListener(ref.weak(), [&seen](Attribute *a) {
        EXPECT_EQ(a->asNode(), dynamic_cast<Node *>(a)) << a->name().constData();
        EXPECT_EQ(a->asAlias(), dynamic_cast<Tamarack::AttributeAlias *>(a)) << a->name().constData();
        seen << a->name() + (a->asNode() ? " node" : "") + (a->asAlias() ? " alias" : "");
    });
    for (Attribute *child : {root.attribute("node"), root.attribute("alias"), root.attribute("int")})
        delete child;
    EXPECT_EQ(seen, QStringList({"node node", "alias alias", "int"}));
    EXPECT_EQ(Tamarack::toNode(nullptr), nullptr);
}

// Random additions, removals and lookups against a plain map, with few distinct names so that
// probe runs collide, wrap and are cut by removals, and compactions move everyone.
TEST(NodeChildren, LookupsMatchAMapThroughRandomAdditionsAndRemovals)
{
    std::mt19937 random(13);
    Node root;
    std::map<QByteArray, IntAttr *> expected;
    for (int step = 0; step < 20000; ++step) {
        const QByteArray name = QByteArray::number(int(random() % 300));
        auto it = expected.find(name);
        if (it == expected.end()) {
            expected[name] = new IntAttr(&root, name, step);
        } else if (random() % 2) {
            delete it->second;
            expected.erase(it);
        }
        const QByteArray probe = QByteArray::number(int(random() % 320));
        const auto found = expected.find(probe);
        ASSERT_EQ(root.attribute(probe), found == expected.end() ? nullptr : found->second) << step;
    }
    ASSERT_EQ(root.children().size(), expected.size());
    for (const auto &entry : expected)
        EXPECT_EQ(root.attribute(entry.first), entry.second);
}
