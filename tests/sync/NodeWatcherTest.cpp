#include "loomy/sync/AttributeCache.h"
#include "loomy/sync/NodeWatcher.h"

#include "common/TraceCapture.h"
#include "kestrel/SymbolRegistry.h"
#include "tamarack/AttributeAlias.h"
#include "tamarack/AttributeT.h"
#include "tamarack/Node.h"

#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <thread>
#include <vector>

using Loomy::NodeWatcher;
using Tamarack::AttributeAlias;
using Tamarack::Node;
using IntAttr = Tamarack::AttributeT<int>;

namespace {

// A watched tree and the watcher's events as text: "+attr a/b", "~attr a", "-node n",
// "+node <root>". Additions are made with fully constructed attributes.
class WatchedTree
{
public:
    WatchedTree()
    {
        listenerId = watcher.addListener([this](const NodeWatcher::Event &event) {
            std::lock_guard<std::mutex> lock(mutex);
            events.push_back(Recorded{event, std::this_thread::get_id()});
        });
    }
    ~WatchedTree() { delete root; }

    IntAttr *attr(Node *host, const QByteArray &name)
    {
        auto *a = new IntAttr;
        EXPECT_TRUE(host->addAttribute(name, a));
        return a;
    }
    Node *node(Node *host, const QByteArray &name)
    {
        auto *n = new Node;
        EXPECT_TRUE(host->addAttribute(name, n));
        return n;
    }
    AttributeAlias *alias(Node *host, const QByteArray &name, Tamarack::Attribute *target)
    {
        auto *a = new AttributeAlias(nullptr, QByteArray(), target);
        EXPECT_TRUE(host->addAttribute(name, a));
        return a;
    }
    unsigned sym(const QByteArray &path) { return symbols.lookupOrDefine(path); }

    QStringList take()
    {
        static const char *const kinds[] = {"+attr", "-attr", "~attr", "+node", "-node"};
        std::lock_guard<std::mutex> lock(mutex);
        QStringList out;
        for (const auto &r : events) {
            const QByteArray path = symbols.name(r.event.symbol);
            out << QString::fromLatin1(kinds[r.event.type]) + ' '
                       + (r.event.symbol == 0 ? QStringLiteral("#0")
                                              : path.isEmpty() ? QStringLiteral("<root>") : QString::fromUtf8(path));
        }
        events.clear();
        return out;
    }

    struct Recorded
    {
        NodeWatcher::Event event;
        std::thread::id thread;
    };

    IntAttr outside;                     // a target that is not in the watched tree
    Node *root = new Node;
    Kestrel::SymbolRegistry symbols;
    Loomy::AttributeCache cache;
    NodeWatcher watcher{symbols, cache};
    long listenerId;
    std::mutex mutex;
    std::vector<Recorded> events;        // guarded by mutex
};

class NodeWatcherTest : public ::testing::Test
{
protected:
    void SetUp() override
    {
        t.watcher.startWatching(*t.root, true);
        ASSERT_EQ(t.take(), QStringList{"+node <root>"});
    }
    WatchedTree t;
};

// prepare runs before the events are cleared; act's events are compared.
struct SequenceCase
{
    const char *name;
    std::function<void(WatchedTree &)> prepare;
    std::function<void(WatchedTree &)> act;
    QStringList expected;
};

using T = WatchedTree;
const SequenceCase s_sequences[] = {
    {"AdditionWaitsForUpdateAndIsRaisedOnce", {},
     [](T &t) {
         t.attr(t.root, "a");
         EXPECT_TRUE(t.take().isEmpty());
         t.watcher.update();
         t.watcher.update();
     },
     {"+attr a"}},
    {"FirstChangePullsTheAdditionForward", {},
     [](T &t) {
         IntAttr *a = t.attr(t.root, "a");
         a->setValue(1);
         a->setValue(2);
         EXPECT_FALSE(t.watcher.isPendingUpdate(t.sym("a")));
         t.watcher.update();
     },
     {"+attr a", "~attr a", "~attr a"}},
    {"RemovedWhileQueuedGivesABalancedPair", {},
     [](T &t) {
         delete t.attr(t.root, "a");
         EXPECT_FALSE(t.watcher.isPendingUpdate(t.sym("a")));
         t.watcher.update();
     },
     {"+attr a", "-attr a"}},
    {"QueuedNodeRemovedGivesANodePair", {},
     [](T &t) {
         Node *n = t.node(t.root, "n");
         t.attr(n, "x");
         delete n;
         t.watcher.update();
     },
     {"+node n", "-node n"}},
    {"NodeBuiltBeforeItsAdditionIsReportedDepthFirst", {},
     [](T &t) {
         auto *n = new Node;
         n->addAttribute("x", new IntAttr);
         auto *m = new Node;
         m->addAttribute("z", new IntAttr);
         n->addAttribute("m", m);
         n->addAttribute("y", new IntAttr);
         t.root->addAttribute("n", n);
         t.watcher.update();
     },
     {"+node n", "+attr n/x", "+node n/m", "+attr n/m/z", "+attr n/y"}},
    {"ChildOfAProcessedNodeGoesThroughTheQueue",
     [](T &t) {
         t.node(t.root, "n");
         t.watcher.update();
     },
     [](T &t) {
         t.attr(static_cast<Node *>(t.root->attribute("n")), "c");
         EXPECT_TRUE(t.watcher.isPendingUpdate(t.sym("n/c")));
         t.watcher.update();
     },
     {"+attr n/c"}},
    {"AliasWithoutTargetIsSilentFromAdditionToRemoval", {},
     [](T &t) {
         AttributeAlias *al = t.alias(t.root, "al", nullptr);
         t.watcher.update();
         delete al;
     },
     {}},
    {"NullAliasPointedAtAnAttribute",
     [](T &t) {
         t.alias(t.root, "al", nullptr);
         t.watcher.update();
     },
     [](T &t) { static_cast<AttributeAlias *>(t.root->attribute("al"))->setAttribute(&t.outside); },
     {"+attr al"}},
    {"NullAliasPointedAtANodeReportsItsSubtreeUnderTheAlias",
     [](T &t) {
         t.attr(t.node(t.root, "n"), "x");
         t.alias(t.root, "al", nullptr);
         t.watcher.update();
     },
     [](T &t) { static_cast<AttributeAlias *>(t.root->attribute("al"))->setAttribute(t.root->attribute("n")); },
     {"+node al", "+attr al/x"}},
    {"RetargetFromAttributeToAttribute",
     [](T &t) {
         t.attr(t.root, "b");
         t.alias(t.root, "al", &t.outside);
         t.watcher.update();
     },
     [](T &t) { static_cast<AttributeAlias *>(t.root->attribute("al"))->setAttribute(t.root->attribute("b")); },
     {"-attr al", "+attr al"}},
    {"RetargetToNullRemovesOnly",
     [](T &t) {
         t.alias(t.root, "al", &t.outside);
         t.watcher.update();
     },
     [](T &t) { static_cast<AttributeAlias *>(t.root->attribute("al"))->setAttribute(nullptr); },
     {"-attr al"}},
    {"RetargetFromNodeToAttribute",
     [](T &t) {
         t.attr(t.node(t.root, "n"), "x");
         t.alias(t.root, "al", t.root->attribute("n"));
         t.watcher.update();
     },
     [](T &t) { static_cast<AttributeAlias *>(t.root->attribute("al"))->setAttribute(&t.outside); },
     {"-attr al/x", "-node al", "+attr al"}},
    {"ChangeOfTheTargetIsAChangeAtTheAlias",
     [](T &t) {
         t.alias(t.root, "al", &t.outside);
         t.watcher.update();
     },
     [](T &t) { t.outside.setValue(5); },
     {"~attr al"}},
    {"DeletedTargetIsARemovalAtTheAlias",
     [](T &t) {
         t.alias(t.root, "al", t.attr(t.node(t.root, "n"), "x"));
         t.watcher.update();
     },
     [](T &t) { delete t.root->attribute("n"); },
     {"-attr n/x", "-node n", "-attr al"}},
    {"DeletedNodeReportsChildrenFirst",
     [](T &t) {
         Node *n = t.node(t.root, "n");
         t.attr(n, "x");
         t.attr(t.node(n, "m"), "z");
         t.attr(n, "y");
         t.watcher.update();
     },
     [](T &t) { delete t.root->attribute("n"); },
     {"-attr n/x", "-attr n/m/z", "-node n/m", "-attr n/y", "-node n"}},
    {"DeletedRootReportsTheWholeTreeAndItselfLast",
     [](T &t) {
         t.attr(t.root, "a");
         t.attr(t.node(t.root, "n"), "x");
         t.watcher.update();
         t.attr(t.root, "queued");
     },
     [](T &t) {
         delete t.root;
         t.root = nullptr;
     },
     {"-attr a", "-attr n/x", "-node n", "+attr queued", "-attr queued", "-node <root>"}},
};

class WatcherSequence : public NodeWatcherTest, public ::testing::WithParamInterface<SequenceCase> {};

TEST_P(WatcherSequence, RaisesExactlyTheseEvents)
{
    if (GetParam().prepare)
        GetParam().prepare(t);
    t.take();
    GetParam().act(t);
    EXPECT_EQ(t.take(), GetParam().expected);
}

INSTANTIATE_TEST_SUITE_P(Trees, WatcherSequence, ::testing::ValuesIn(s_sequences),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(NodeWatcherTest, IgnoredChangeIsSwallowedOnce)
{
    IntAttr *a = t.attr(t.root, "a");
    t.watcher.update();
    t.take();
    t.watcher.ignoreOne({NodeWatcher::ATTRIBUTE_CHANGED, t.sym("a")});
    a->setValue(1);
    a->setValue(2);
    EXPECT_EQ(t.take(), QStringList{"~attr a"});
}

TEST_F(NodeWatcherTest, IgnoredAdditionSilencesTheSubtreeButNotLaterChanges)
{
    t.watcher.ignoreOne({NodeWatcher::NODE_ADDED, t.sym("n")});
    t.watcher.ignoreOne({NodeWatcher::ATTRIBUTE_ADDED, t.sym("a")});
    auto *n = new Node;
    auto *x = new IntAttr;
    n->addAttribute("x", x);
    t.root->addAttribute("n", n);
    IntAttr *a = t.attr(t.root, "a");
    a->setValue(1); // the queued attribute's change is still raised
    t.watcher.update();
    x->setValue(1);
    EXPECT_EQ(t.take(), (QStringList{"~attr a", "~attr n/x"}));
}

TEST_F(NodeWatcherTest, IgnoreOneTwiceReportsAndSwallowsOnlyOne)
{
    TraceCapture trace;
    IntAttr *a = t.attr(t.root, "a");
    t.watcher.update();
    t.take();
    const NodeWatcher::Event changed{NodeWatcher::ATTRIBUTE_CHANGED, t.sym("a")};
    t.watcher.ignoreOne(changed);
    t.watcher.ignoreOne(changed);
    EXPECT_EQ(trace.lines(), QStringList{"NodeWatcher # called ignoreOne for an event that is already ignored"});
    a->setValue(1);
    a->setValue(2);
    EXPECT_EQ(t.take(), QStringList{"~attr a"});
}

TEST_F(NodeWatcherTest, IgnoreGuardAroundANonChangeLeavesNoStaleEntry)
{
    IntAttr *a = t.attr(t.root, "a");
    t.watcher.update();
    t.take();
    const NodeWatcher::Event changed{NodeWatcher::ATTRIBUTE_CHANGED, t.sym("a")};
    t.watcher.ignoreOne(changed);
    {
        NodeWatcher::IgnoreGuard guard(t.watcher, changed);
        a->setValue(0); // the value it has: no change
    }
    a->setValue(3);
    EXPECT_EQ(t.take(), QStringList{"~attr a"});
}

TEST_F(NodeWatcherTest, SecondStartWatchingIsRefusedAndTheFirstTreeStaysWatched)
{
    TraceCapture trace;
    Node other;
    t.watcher.startWatching(other, true);
    EXPECT_EQ(trace.lines(), QStringList{"NodeWatcher can only watch one node at a time"});
    other.addAttribute("b", new IntAttr);
    t.attr(t.root, "a");
    t.watcher.update();
    EXPECT_EQ(t.take(), QStringList{"+attr a"});
}

TEST(NodeWatcherNotify, WithoutNotifyTheExistingTreeIsSilentAndLaterAdditionsAreNot)
{
    WatchedTree t;
    IntAttr *old = t.attr(t.root, "old");
    t.watcher.startWatching(*t.root, false);
    t.attr(t.root, "new");
    t.watcher.update();
    old->setValue(1);
    EXPECT_EQ(t.take(), (QStringList{"+attr new", "~attr old"}));
}

TEST_F(NodeWatcherTest, ListenerMayRemoveItselfAndAddAnotherDuringDelivery)
{
    std::vector<int> calls;
    long second = -1;
    long first = -1;
    first = t.watcher.addListener([&](const NodeWatcher::Event &) {
        calls.push_back(1);
        t.watcher.removeListener(first);
        second = t.watcher.addListener([&](const NodeWatcher::Event &) { calls.push_back(2); });
    });
    IntAttr *a = t.attr(t.root, "a");
    t.watcher.update();            // the copy taken for this delivery has only the first
    a->setValue(1);
    EXPECT_EQ(calls, (std::vector<int>{1, 2}));
    t.watcher.removeListener(second); // it refers to locals of this test
}

TEST_F(NodeWatcherTest, AttributeWithAnEmptyNameIsReportedAndKeptUnderTheResultingPath)
{
    Node *n = t.node(t.root, "n");
    t.watcher.update();
    t.take();
    TraceCapture trace;
    t.attr(n, "");
    t.watcher.update();
    EXPECT_EQ(trace.lines(), QStringList{"NodeWatcher # Found an attribute with an empty name. This should never happen"});
    EXPECT_EQ(t.take(), QStringList{"+attr n/"});
}

TEST_F(NodeWatcherTest, QueuedSymbolLostFromTheCacheIsReportedAtUpdate)
{
    t.attr(t.root, "a");
    ASSERT_TRUE(t.cache.remove(t.sym("a")));
    TraceCapture trace;
    t.watcher.update();
    EXPECT_EQ(trace.lines(), QStringList{"NodeWatcher::processPendingAdded # Could not find attribute in cache"});
    EXPECT_TRUE(t.take().isEmpty());
}

TEST_F(NodeWatcherTest, QueuedSymbolLostFromTheCacheIsReportedAtItsChange)
{
    IntAttr *a = t.attr(t.root, "a");
    ASSERT_TRUE(t.cache.remove(t.sym("a")));
    TraceCapture trace;
    a->setValue(1);
    EXPECT_EQ(trace.lines(), (QStringList{"NodeWatcher::processPendingAdded # Could not find attribute in cache",
                                          "NodeWatcher::processPendingAddedChanged # Could not find attribute in cache"}));
    EXPECT_TRUE(t.take().isEmpty());
}

TEST_F(NodeWatcherTest, CacheFollowsAdditionsRemovalsAndNodeMarks)
{
    Node *n = t.node(t.root, "n");
    IntAttr *x = t.attr(n, "x");
    EXPECT_EQ(t.cache.find(t.sym("n/x")), nullptr); // n is not processed yet: x is unseen
    t.watcher.update();
    EXPECT_EQ(t.cache.find(t.sym("n")), n);
    EXPECT_EQ(t.cache.find(t.sym("n/x")), x);
    EXPECT_TRUE(t.cache.isNode(t.sym("n")));
    EXPECT_FALSE(t.cache.isNode(t.sym("n/x")));
    delete n;
    EXPECT_EQ(t.cache.find(t.sym("n")), nullptr);
    EXPECT_EQ(t.cache.find(t.sym("n/x")), nullptr);
    EXPECT_FALSE(t.cache.isNode(t.sym("n")));
}

// Regression: the record of an addition being processed kept a pointer to the attribute, and its
// release removed the temporary listener from an attribute that a listener had just deleted.
TEST_F(NodeWatcherTest, AttributeDeletedByItsOwnAddedListenerIsNotTouchedAfterwards)
{
    t.watcher.addListener([&](const NodeWatcher::Event &event) {
        if (event.type == NodeWatcher::ATTRIBUTE_ADDED)
            delete t.cache.find(event.symbol);
    });
    t.attr(t.root, "a");
    t.watcher.update();
    EXPECT_EQ(t.take(), (QStringList{"+attr a", "-attr a"}));
    EXPECT_EQ(t.root->attribute("a"), nullptr);
}

// Regression: the temporary listener of a queued addition outlived the watcher.
TEST(NodeWatcherLifetime, DestroyedWatcherLeavesNoListenerOnQueuedAttributes)
{
    Node root;
    Kestrel::SymbolRegistry symbols;
    Loomy::AttributeCache cache;
    int events = 0;
    auto watcher = std::make_unique<NodeWatcher>(symbols, cache);
    watcher->addListener([&](const NodeWatcher::Event &) { ++events; });
    watcher->startWatching(root, false);
    auto *a = new IntAttr;
    root.addAttribute("a", a);
    watcher.reset();
    a->setValue(1);
    delete a;
    EXPECT_EQ(events, 0);
}

// Two threads add attributes and change them while this thread, the frame thread, runs update.
// Each attribute is announced exactly once. A change is heard before its addition only when
// update() on the frame thread had already taken the addition from the queue. Once its addition
// has been heard, every change of an attribute is heard after it. (A set that lands while update()
// moves an attribute from its temporary listener to its lasting one may go unheard: an emission
// that began before the lasting listener existed skips the temporary one once it is removed.)
TEST_F(NodeWatcherTest, ConcurrentAdditionsAndChangesWhileUpdating)
{
    constexpr int kThreads = 2;
    constexpr int kAttributes = 150;
    constexpr int kEarlySets = 3;
    constexpr int kLateSets = 2;
    Node *hosts[kThreads] = {t.node(t.root, "t0"), t.node(t.root, "t1")};
    t.watcher.update();
    t.take();

    std::mutex addedMutex;
    std::set<unsigned> addedSeen; // guarded by addedMutex
    t.watcher.addListener([&](const NodeWatcher::Event &event) {
        if (event.type == NodeWatcher::ATTRIBUTE_ADDED) {
            std::lock_guard<std::mutex> lock(addedMutex);
            addedSeen.insert(event.symbol);
        }
    });
    auto pathOf = [](int w, int i) { return "t" + QByteArray::number(w) + "/a" + QByteArray::number(i); };

    std::atomic<int> running{kThreads};
    std::atomic<int> timedOut{0};
    std::vector<std::thread> workers;
    for (int w = 0; w < kThreads; ++w) {
        workers.emplace_back([&, w] {
            std::vector<IntAttr *> mine;
            for (int i = 0; i < kAttributes; ++i) {
                auto *a = new IntAttr;
                hosts[w]->addAttribute("a" + QByteArray::number(i), a);
                mine.push_back(a);
                for (int s = 1; s <= kEarlySets; ++s)
                    a->setValue(s);
                if (i > 0)
                    mine[i - 1]->setValue(100 + i); // a change of an attribute added just before
            }
            const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(60);
            for (int i = 0; i < kAttributes; ++i) {
                const unsigned symbol = t.sym(pathOf(w, i));
                for (;;) {
                    {
                        std::lock_guard<std::mutex> lock(addedMutex);
                        if (addedSeen.count(symbol))
                            break;
                    }
                    if (std::chrono::steady_clock::now() > deadline) {
                        ++timedOut;
                        break;
                    }
                    std::this_thread::yield();
                }
                for (int s = 0; s < kLateSets; ++s)
                    mine[i]->setValue(1000 + s);
            }
            --running;
        });
    }
    const std::thread::id frame = std::this_thread::get_id();
    while (running.load() > 0) {
        t.watcher.update();
        std::this_thread::yield();
    }
    for (auto &worker : workers)
        worker.join();
    t.watcher.update();
    ASSERT_EQ(timedOut.load(), 0);

    std::map<unsigned, int> added;
    std::map<unsigned, int> changedAfterAdded;
    std::map<unsigned, int> changedEarly;
    std::map<unsigned, std::thread::id> addedOn;
    {
        std::lock_guard<std::mutex> lock(t.mutex);
        for (const auto &r : t.events) {
            const unsigned s = r.event.symbol;
            if (r.event.type == NodeWatcher::ATTRIBUTE_ADDED) {
                ++added[s];
                addedOn[s] = r.thread;
            } else if (r.event.type == NodeWatcher::ATTRIBUTE_CHANGED) {
                ++(added.count(s) ? changedAfterAdded : changedEarly)[s];
            } else {
                ADD_FAILURE() << "unexpected event type " << r.event.type;
            }
        }
    }
    for (int w = 0; w < kThreads; ++w) {
        for (int i = 0; i < kAttributes; ++i) {
            const unsigned s = t.sym(pathOf(w, i));
            EXPECT_EQ(added[s], 1) << w << '/' << i;
            EXPECT_GE(changedAfterAdded[s], kLateSets) << w << '/' << i;
            if (changedEarly.count(s)) {
                EXPECT_EQ(addedOn[s], frame) << w << '/' << i;
            }
        }
    }
}

} // namespace
