#include "loomy/bundle/BundleController.h"

#include "loomy/bundle/Core.h"
#include "loomy/sync/RemoteNode.h"
#include "kestrel/SymbolRegistry.h"
#include "tamarack/Node.h"

#include "BundleTestUtil.h"
#include "common/TraceCapture.h"

#include <mutex>
#include <thread>

using namespace Loomy;

namespace {
using Lines = std::vector<std::string>;
using Batches = std::vector<QStringList>;

// What happened, in order, across nodes, connections, tasks and senders; written from any thread.
std::mutex s_journalMutex;
Lines s_journal;
void note(const std::string &line) { std::lock_guard<std::mutex> lock(s_journalMutex); s_journal.push_back(line); }
Lines journal() { std::lock_guard<std::mutex> lock(s_journalMutex); return std::exchange(s_journal, {}); }

struct CountingNode : RemoteNode
{
    explicit CountingNode(const QByteArray &name) : RemoteNode(nullptr, name) {}
    void update() override { note("update " + name().toStdString()); RemoteNode::update(); }
};

// Notes every batch, idle ones included; keeps the others described and hands them to `peer`.
struct RecordingConnection : Connection
{
    explicit RecordingConnection(std::string name) : name(std::move(name)) {}
    void send(const std::vector<Bundle> &bundles) override
    {
        note("send " + name + " " + std::to_string(bundles.size()));
        if (bundles.empty())
            return;
        batches.push_back(describe(bundles));
        if (const auto controller = peer.lock())
            controller->scheduleProcess(bundles);
    }
    std::string name;
    Batches batches;
    std::weak_ptr<BundleController> peer;
};

const std::thread::id s_mainThread = std::this_thread::get_id();
struct NotingSender : WordSender
{
    ~NotingSender() override { note(std::this_thread::get_id() == s_mainThread ? "gone on main" : "gone elsewhere"); }
};

const char *const s_modules[] = {"SymbolRegistry", "AttributeNew", "AttributeUpdate", "AttributeRemove", "OneWayEvent"};

QString loads(bool words)  // " | load-module n M" for what a session announces, "Test.Words" last
{
    QString out;
    for (int i = 0; i < 5; ++i)
        out += QStringLiteral(" | load-module %1 Orchardlines.Loomy.%2").arg(i + 1).arg(s_modules[i]);
    return words ? out + " | load-module 6 Test.Words" : out;
}

QString oks(int count, bool words)  // the answer to the first `count` of those, then to "Test.Words"
{
    QStringList out;
    for (int i = 0; i < count; ++i)
        out << "ok load-module Orchardlines.Loomy." + QString(s_modules[i]) + s_loaded;
    return (words ? out << "ok load-module Test.Words" + s_loaded : out).join(" | ");
}

// A session's first batch: the handshake, then the symbol and the event of "initialized".
QStringList opening(bool words) { return {"0 1 0: " + s_info + loads(words), "1 2 0: 2", "5 3 0: 2"}; }

void frame() { Tamarack::Node::runHostUpdate(); }

void add(BundleController &controller, std::shared_ptr<WordSender> sender, std::shared_ptr<WordReceiver> receiver = {})
{
    controller.addTask([sender, receiver](Core &core) {
        if (sender)
            core.dispatcher().registerSender(sender);
        if (receiver)
            core.dispatcher().preloadReceiver(receiver);
    });
}

BundleControllerParams params(std::shared_ptr<Connection> connection, bool enabled = true, bool global = true)
{
    return {std::move(connection), {}, false, false, enabled, global};
}

class BundleControllerTest : public ::testing::Test
{
protected:
    void SetUp() override { journal(); }
    void TearDown() override { frame(); frame(); }  // lets the loop prune the test's cores and stop
    std::shared_ptr<BundleController> create(bool enabled = true)
    {
        return BundleController::create(node, params(connection, enabled));
    }

    CountingNode node{"n"};
    std::shared_ptr<RecordingConnection> connection = std::make_shared<RecordingConnection>("c");
    std::shared_ptr<WordSender> sender = std::make_shared<WordSender>();
    std::shared_ptr<WordReceiver> receiver = std::make_shared<WordReceiver>();
};
} // namespace

// Each side announces its modules ahead of the bundles that use them; the peer binds them, learns
// the names and answers with acknowledged ids.
TEST_F(BundleControllerTest, FirstContactAnnouncesModulesAheadOfSymbolsEventsAndBundles)
{
    CountingNode nodeB("b");
    auto toA = std::make_shared<RecordingConnection>("b");
    auto a = create(), b = BundleController::create(nodeB, params(toA));
    connection->peer = b;
    toA->peer = a;
    sender->queued = {42, 43};
    add(*a, sender);
    add(*b, nullptr, receiver);
    frame();  // each side sends its first batch
    frame();  // each side processes the other's and answers its "load-module" records
    sender->queued = {44};
    frame();  // A's processing of B's answer sends 44 first, so 44 does not acknowledge the answer
    EXPECT_EQ(connection->batches, (Batches{opening(true) + QStringList{"6 4 0: 42", "6 5 0: 43"},
                                            {"0 6 3: " + oks(5, false)}, {"6 7 3: 44"}}));
    EXPECT_EQ(toA->batches, (Batches{opening(false), {"0 4 5: " + oks(5, true)}}));
    EXPECT_EQ(receiver->words, (std::vector<quint32>{42, 43, 44}));
    EXPECT_EQ(b->symbolRegistryRecv()->name(2), QByteArray("initialized"));
}

// Also: a task queued by a task runs in the same pass, one queued by that in the next; and
// setEnabled before the first pass overrides the parameter.
TEST_F(BundleControllerTest, TwoControllersOnOneNodeNumberTheirOwnBundlesAndShareEachNodeUpdate)
{
    auto connection2 = std::make_shared<RecordingConnection>("c2");
    auto sender2 = std::make_shared<WordSender>();
    auto controller1 = create(), controller2 = BundleController::create(node, params(connection2, false));
    controller2->setEnabled(true);
    sender->queued = {1};
    sender2->queued = {2, 3};
    add(*controller1, sender);
    add(*controller2, sender2);
    controller1->addTask([](Core &core) {
        note("task c");
        core.addTask([](Core &core) {
            note("task c, nested");
            core.addTask([](Core &) { note("task c, nested twice"); });
        });
    });
    controller2->addTask([](Core &) { note("task c2"); });
    frame();
    EXPECT_EQ(journal(), (Lines{"update n", "task c", "task c, nested", "update n", "task c2", "update n",
                                "update n", "send c 4", "send c2 5", "update n"}));
    frame();
    EXPECT_EQ(journal(), (Lines{"task c, nested twice", "update n", "update n", "send c 0", "send c2 0", "update n"}));
    EXPECT_EQ(connection->batches, Batches{opening(true) << "6 4 0: 1"});
    EXPECT_EQ(connection2->batches, Batches{opening(true) << "6 4 0: 2" << "6 5 0: 3"});
}

// Incoming bundles are applied all along, with a warning per failed one; the backlog then leaves in
// one batch, which acknowledges the last peer bundle that went through, not the batch's last.
TEST_F(BundleControllerTest, DisabledCoreSendsNothingUntilEnabledThenTheBacklogInOneBatch)
{
    TraceCapture trace;
    auto controller = create(false);
    sender->queued = {5};
    add(*controller, sender, receiver);
    frame();
    BundleDispatcher peer;  // without a session: its handshake is id 1, its words ids 2 to 5
    auto peerSender = std::make_shared<WordSender>();
    peer.registerSender(peerSender);
    peerSender->queued = {7, s_badWord, 8, s_badWord};
    controller->scheduleProcess(peer.collectUpdates());
    sender->queued.push_back(6);
    frame();
    EXPECT_EQ(receiver->words, (std::vector<quint32>{7, s_badWord, 8, s_badWord}));
    const QString warning = "BundleController::process # Failed to process bundle of type type 2: bad word";
    EXPECT_EQ(trace.lines(), (QStringList{warning, warning}));
    EXPECT_EQ(journal(), Lines{"update n"});
    controller->setEnabled(true);
    frame();
    EXPECT_EQ(connection->batches, (Batches{{"0 1 4: " + s_info + loads(true) + " | " + oks(1, true), "1 2 4: 2",
                                             "5 3 4: 2", "6 4 4: 5", "6 5 4: 6"}}));
}

// A controller dropped on another thread leaves its core to the next pass on the frame thread; a
// node destroyed first releases its core at once, and that controller's calls then do nothing.
TEST_F(BundleControllerTest, CoresAreReleasedOnTheFrameThreadOrWithTheirNode)
{
    auto other = std::make_unique<CountingNode>("m");
    auto dropped = create(), orphaned = BundleController::create(*other, params(connection));
    add(*dropped, std::make_shared<NotingSender>());
    add(*orphaned, std::make_shared<NotingSender>());
    frame();
    journal();
    std::thread([&dropped] { dropped.reset(); }).join();
    EXPECT_EQ(journal(), Lines{});
    other.reset();
    EXPECT_EQ(journal(), Lines{"gone on main"});
    orphaned->addTask([](Core &) { note("task"); });
    EXPECT_EQ(orphaned->symbolRegistryRecv(), nullptr);
    frame();
    EXPECT_EQ(journal(), Lines{"gone on main"});
    orphaned.reset();
    frame();
    EXPECT_EQ(journal(), Lines{});
}

// A global controller ignores update() and arms the loop, which stops with the last one and restarts
// with the next, also after a throwing task; a local controller runs only by its update().
TEST_F(BundleControllerTest, LoopStopsWithTheLastControllerAndRestartsWithTheNext)
{
    BundleController local(node, params(nullptr, true, false));
    auto controller = BundleController::create(node, params(nullptr));
    controller->update();
    EXPECT_EQ(journal(), Lines{});
    frame();
    // Made while the flagged core is still listed: the running loop takes it over, no second one.
    controller = BundleController::create(node, params(nullptr));
    frame();
    frame();
    EXPECT_EQ(journal(), Lines(4 + 4 + 3, "update n"));
    controller.reset();
    frame();  // prunes, finds the list empty and does not queue itself again
    frame();
    EXPECT_EQ(journal(), Lines{});
    local.update();
    EXPECT_EQ(journal(), Lines(4, "update n"));
    // A pass still queued would run ahead of the probe queued before the new controller arms.
    Tamarack::Node::invokeAfterUpdate([] { note("probe"); });
    controller = BundleController::create(node, params(nullptr));
    TraceCapture trace;
    controller->addTask([](Core &) { throw std::runtime_error("boom"); });
    frame();
    frame();
    EXPECT_EQ(journal(), (Lines{"probe", "update n", "update n", "update n", "update n"}));
    EXPECT_EQ(trace.lines(), QStringList{"Node::runHostUpdate # a queued function threw: boom"});
}
