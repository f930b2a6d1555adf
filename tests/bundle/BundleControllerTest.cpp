// Ahead of the bundle headers: <QtEndian> defines Qt's `emit` keyword, which Tamarack's event
// class uses as a member name.
#include "loomy/sync/RemoteNode.h"
#include "loomy/bundle/BundleController.h"

#include "loomy/bundle/BundleDispatcher.h"
#include "loomy/bundle/BundleReader.h"
#include "loomy/bundle/BundleSender.h"
#include "loomy/bundle/BundleWriter.h"
#include "loomy/bundle/Core.h"
#include "kestrel/SymbolRegistry.h"
#include "tamarack/Node.h"

#include "BundleTestUtil.h"
#include "common/TraceCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

using namespace Loomy;

namespace {

const quint32 s_badWord = 0xbad;
const char s_info[] = "info application=Loomy version=2.14.4";
const char s_loadSymbols[] = "load-module 1 Orchardlines.Loomy.SymbolRegistry";
const char s_loadWords[] = "load-module 2 Test.Words";

// What happened, in order, across nodes, connections, tasks and module lifetimes.
class Journal
{
public:
    void add(const std::string &line)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_lines.push_back(line);
    }
    std::vector<std::string> take()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return std::move(m_lines);
    }

private:
    std::mutex m_mutex;
    std::vector<std::string> m_lines;
};

class CountingNode : public RemoteNode
{
public:
    CountingNode(Journal &journal, const QByteArray &name) : RemoteNode(nullptr, name), m_journal(journal) {}
    void update() override
    {
        m_journal.add("update " + name().toStdString());
        RemoteNode::update();
    }

private:
    Journal &m_journal;
};

// Keeps every batch it is handed, the empty ones of idle passes included.
class RecordingConnection : public Connection
{
public:
    RecordingConnection(Journal &journal, std::string name) : m_journal(journal), m_name(std::move(name)) {}
    void send(const std::vector<Bundle> &bundles) override
    {
        m_journal.add("send " + m_name + " " + std::to_string(bundles.size()));
        std::lock_guard<std::mutex> lock(m_mutex);
        m_batches.push_back(bundles);
    }
    // The batches that held bundles.
    std::vector<std::vector<Bundle>> batches()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        std::vector<std::vector<Bundle>> full;
        for (const auto &batch : m_batches)
            if (!batch.empty())
                full.push_back(batch);
        return full;
    }
    std::size_t calls()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_batches.size();
    }

private:
    Journal &m_journal;
    std::string m_name;
    std::mutex m_mutex;
    std::vector<std::vector<Bundle>> m_batches;
};

// Also hands every non-empty batch to the peer's controller, as a connection thread would.
class LoopbackConnection : public RecordingConnection
{
public:
    using RecordingConnection::RecordingConnection;
    void send(const std::vector<Bundle> &bundles) override
    {
        RecordingConnection::send(bundles);
        if (const auto peer = this->peer.lock(); peer && !bundles.empty())
            peer->scheduleProcess(bundles);
    }
    std::weak_ptr<BundleController> peer;
};

// One bundle of "Test.Words" per queued word. Notes its destruction and the thread it ran on.
class WordSender : public BundleSender
{
public:
    explicit WordSender(Journal *journal = nullptr) : m_journal(journal) {}
    ~WordSender() override
    {
        if (m_journal)
            m_journal->add(std::this_thread::get_id() == s_mainThread ? "sender gone on main" : "sender gone elsewhere");
    }
    void initialize(BundleDispatcher &dispatcher) override
    {
        m_type = dispatcher.lookupOrRegisterMessageType("Test.Words");
    }
    void writeUpdates(BundleOutput &output) override
    {
        std::vector<quint32> words;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            words.swap(m_words);
        }
        for (quint32 word : words) {
            Bundle bundle;
            BundleWriter(bundle).write(word);
            bundle.stamp(m_type, output.nextBundleId(), output.ackBundleId());
            output.addBundle(bundle);
        }
    }
    void queue(std::vector<quint32> words)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_words.insert(m_words.end(), words.begin(), words.end());
    }
    static std::thread::id s_mainThread;

private:
    Journal *m_journal;
    unsigned m_type = 0;
    std::mutex m_mutex;
    std::vector<quint32> m_words;
};
std::thread::id WordSender::s_mainThread = std::this_thread::get_id();

// Keeps the word of each "Test.Words" bundle, and throws after reading the bad word.
class WordReceiver : public BundleReceiver
{
public:
    WordReceiver() : BundleReceiver("Test.Words") {}
    void handleBundle(BundleReader &reader) override
    {
        const quint32 word = reader.read<quint32>();
        words.push_back(word);
        onMainThread = onMainThread && std::this_thread::get_id() == WordSender::s_mainThread;
        if (word == s_badWord)
            throw std::invalid_argument("bad word");
    }
    std::vector<quint32> words;
    bool onMainThread = true;
};

// What a peer's first update yields when it has a word sender: its handshake (id 1), then one
// bundle of type 2 per word, ids from 2.
std::vector<Bundle> peerBatch(const std::vector<quint32> &words)
{
    BundleDispatcher peer;
    auto sender = std::make_shared<WordSender>();
    peer.registerSender(sender);
    sender->queue(words);
    return peer.collectUpdates();
}

// "type id ack" of each bundle, then its handshake records or its word.
std::vector<std::string> describe(const std::vector<Bundle> &batch)
{
    std::vector<std::string> lines;
    for (const Bundle &bundle : batch) {
        std::string line = std::to_string(bundle.messageType()) + " " + std::to_string(bundle.bundleId()) + " "
            + std::to_string(bundle.ackBundleId());
        if (bundle.messageType() == 0) {
            line += ": " + handshakeRecords(bundle).join(" | ").toStdString();
        } else {
            BundleReader reader(bundle);
            line += ": " + std::to_string(reader.read<quint32>());
        }
        lines.push_back(line);
    }
    return lines;
}

void frame()
{
    Tamarack::Node::runHostUpdate();
}

void addSender(BundleController &controller, std::shared_ptr<WordSender> sender)
{
    controller.addTask([sender](Core &core) { core.dispatcher().registerSender(sender); });
}

void addReceiver(BundleController &controller, std::shared_ptr<WordReceiver> receiver)
{
    controller.addTask([receiver](Core &core) { core.dispatcher().preloadReceiver(receiver); });
}

BundleControllerParams paramsWith(std::shared_ptr<Connection> connection, bool enabled = true)
{
    BundleControllerParams params;
    params.connection = std::move(connection);
    params.enabled = enabled;
    return params;
}

using Lines = std::vector<std::string>;

class BundleControllerTest : public ::testing::Test
{
protected:
    void TearDown() override
    {
        // Controllers and nodes of the test are gone by now; let the loop prune and stop.
        frame();
        frame();
    }

    Journal journal;
};

} // namespace

TEST_F(BundleControllerTest, FirstContactAnnouncesModulesAheadOfTheirBundles)
{
    CountingNode node(journal, "n");
    auto connection = std::make_shared<RecordingConnection>(journal, "c");
    auto controller = BundleController::create(node, paramsWith(connection));
    auto sender = std::make_shared<WordSender>();
    sender->queue({42, 43});
    addSender(*controller, sender);
    frame();
    sender->queue({44});
    frame();
    const auto batches = connection->batches();
    ASSERT_EQ(batches.size(), 2u);
    EXPECT_EQ(describe(batches[0]),
              (Lines{std::string("0 1 0: ") + s_info + " | " + s_loadSymbols + " | " + s_loadWords,
                     "2 2 0: 42", "2 3 0: 43"}));
    EXPECT_EQ(describe(batches[1]), (Lines{"2 4 0: 44"}));
}

TEST_F(BundleControllerTest, PeersBindTheSymbolModuleAndDefineTheSentNames)
{
    CountingNode nodeA(journal, "a");
    CountingNode nodeB(journal, "b");
    auto toB = std::make_shared<LoopbackConnection>(journal, "a");
    auto toA = std::make_shared<LoopbackConnection>(journal, "b");
    auto a = BundleController::create(nodeA, paramsWith(toB));
    auto b = BundleController::create(nodeB, paramsWith(toA));
    toB->peer = b;
    toA->peer = a;
    // A's symbol bundle, written as a sender of the symbol module does.
    a->addTask([](Core &core) {
        struct SymbolSender : BundleSender
        {
            void writeUpdates(BundleOutput &output) override
            {
                if (sent)
                    return;
                sent = true;
                Bundle bundle;
                BundleWriter(bundle).writeData("\x07\0\0\0\x05\0\0\0node1\0\0\0", 16);
                bundle.stamp(symbolMessageType(), output.nextBundleId(), output.ackBundleId());
                output.addBundle(bundle);
            }
            bool sent = false;
        };
        core.dispatcher().registerSender(std::make_shared<SymbolSender>());
    });
    frame();  // each side sends its first batch
    frame();  // each side processes the other's and answers its "load-module" records
    EXPECT_EQ(describe(toB->batches().at(0)),
              (Lines{std::string("0 1 0: ") + s_info + " | " + s_loadSymbols, "1 2 0: 7"}));
    ASSERT_EQ(toA->batches().size(), 2u);
    EXPECT_EQ(describe(toA->batches()[1]),
              (Lines{"0 2 2: ok load-module Orchardlines.Loomy.SymbolRegistry description=Module loaded successfully"}));
    ASSERT_NE(b->symbolRegistryRecv(), nullptr);
    EXPECT_EQ(b->symbolRegistryRecv()->lookup("node1"), 7u);
    EXPECT_EQ(b->symbolRegistryRecv()->name(7), QByteArray("node1"));
    EXPECT_EQ(a->symbolRegistryRecv()->count(), 0u);
    EXPECT_EQ(b->symbolRegistrySend(), &nodeB.symbols());
}

TEST_F(BundleControllerTest, TwoControllersOnOneNodeNumberTheirOwnBundlesAndShareEachNodeUpdate)
{
    CountingNode node(journal, "n");
    auto connection1 = std::make_shared<RecordingConnection>(journal, "c1");
    auto connection2 = std::make_shared<RecordingConnection>(journal, "c2");
    auto controller1 = BundleController::create(node, paramsWith(connection1));
    auto controller2 = BundleController::create(node, paramsWith(connection2));
    auto sender1 = std::make_shared<WordSender>();
    auto sender2 = std::make_shared<WordSender>();
    sender1->queue({1});
    sender2->queue({2, 3});
    addSender(*controller1, sender1);
    addSender(*controller2, sender2);
    controller1->addTask([this](Core &) { journal.add("task c1"); });
    controller2->addTask([this](Core &) { journal.add("task c2"); });
    frame();
    EXPECT_EQ(journal.take(), (Lines{"update n", "task c1", "update n", "task c2", "update n", "update n",
                                     "send c1 2", "send c2 3", "update n"}));
    frame();
    EXPECT_EQ(journal.take(), (Lines{"update n", "update n", "send c1 0", "send c2 0", "update n"}));

    const std::string handshake = std::string("0 1 0: ") + s_info + " | " + s_loadSymbols + " | " + s_loadWords;
    ASSERT_EQ(connection1->batches().size(), 1u);
    ASSERT_EQ(connection2->batches().size(), 1u);
    EXPECT_EQ(describe(connection1->batches()[0]), (Lines{handshake, "2 2 0: 1"}));
    EXPECT_EQ(describe(connection2->batches()[0]), (Lines{handshake, "2 2 0: 2", "2 3 0: 3"}));
}

TEST_F(BundleControllerTest, TaskQueuedByATaskRunsInTheSamePassAndItsOwnQueueInTheNext)
{
    CountingNode node(journal, "n");
    auto controller = BundleController::create(node, BundleControllerParams());
    controller->addTask([this](Core &core) {
        journal.add("task 1");
        core.addTask([this](Core &core) {
            journal.add("task 2");
            core.addTask([this](Core &) { journal.add("task 3"); });
        });
    });
    frame();
    EXPECT_EQ(journal.take(), (Lines{"update n", "task 1", "task 2", "update n", "update n", "update n"}));
    frame();
    EXPECT_EQ(journal.take(), (Lines{"task 3", "update n", "update n", "update n"}));
}

TEST_F(BundleControllerTest, DisabledCoreSendsNothingUntilEnabledThenTheBacklogInOneBatch)
{
    TraceCapture trace;
    CountingNode node(journal, "n");
    auto connection = std::make_shared<RecordingConnection>(journal, "c");
    auto controller = BundleController::create(node, paramsWith(connection, false));
    auto sender = std::make_shared<WordSender>();
    auto receiver = std::make_shared<WordReceiver>();
    sender->queue({5});
    addSender(*controller, sender);
    addReceiver(*controller, receiver);
    frame();
    // Only the initialisation updates the node: a node whose cores are all disabled is left out.
    EXPECT_EQ(journal.take(), (Lines{"update n"}));

    // Incoming bundles are applied all along, and their processing sends nothing either.
    controller->scheduleProcess(peerBatch({7, 8}));
    sender->queue({6});
    frame();
    EXPECT_EQ(receiver->words, (std::vector<quint32>{7, 8}));
    EXPECT_EQ(journal.take(), Lines{});

    controller->setEnabled(true);
    EXPECT_EQ(connection->calls(), 0u);
    frame();
    EXPECT_EQ(connection->calls(), 1u);
    const auto batches = connection->batches();
    ASSERT_EQ(batches.size(), 1u);
    EXPECT_EQ(describe(batches[0]),
              (Lines{std::string("0 1 3: ") + s_info + " | " + s_loadSymbols + " | " + s_loadWords
                         + " | ok load-module Orchardlines.Loomy.SymbolRegistry description=Module loaded successfully"
                         + " | ok load-module Test.Words description=Module loaded successfully",
                     "2 2 3: 5", "2 3 3: 6"}));
    EXPECT_EQ(trace.lines(), QStringList());
}

TEST_F(BundleControllerTest, SetEnabledBeforeTheFirstPassOverridesTheParameter)
{
    CountingNode node(journal, "n");
    auto connection = std::make_shared<RecordingConnection>(journal, "c");
    auto controller = BundleController::create(node, paramsWith(connection, false));
    controller->setEnabled(true);
    frame();
    ASSERT_EQ(connection->batches().size(), 1u);
    EXPECT_EQ(describe(connection->batches()[0]), (Lines{std::string("0 1 0: ") + s_info}));
}

TEST_F(BundleControllerTest, ThrowingReceiverIsLoggedAndTheBatchGoesOn)
{
    TraceCapture trace;
    CountingNode node(journal, "n");
    auto connection = std::make_shared<RecordingConnection>(journal, "c");
    auto controller = BundleController::create(node, paramsWith(connection));
    auto receiver = std::make_shared<WordReceiver>();
    addReceiver(*controller, receiver);
    frame();
    journal.take();

    // Peer ids: handshake 1, then the words 2 to 5.
    controller->scheduleProcess(peerBatch({1, s_badWord, 2, s_badWord}));
    frame();
    EXPECT_EQ(receiver->words, (std::vector<quint32>{1, s_badWord, 2, s_badWord}));
    const QString warning = "BundleController::process # Failed to process bundle of type type 2: bad word";
    EXPECT_EQ(trace.lines(Kestrel::Trace::Level::Warning), (QStringList{warning, warning}));
    // The local flush of process() is empty; the pass's own batch answers the handshake and
    // acknowledges the last bundle that went through, not the last one of the batch.
    EXPECT_EQ(journal.take(), (Lines{"update n", "send c 0", "update n", "update n", "send c 1", "update n"}));
    const auto batches = connection->batches();
    ASSERT_EQ(batches.size(), 2u);
    EXPECT_EQ(describe(batches[1]),
              (Lines{"0 2 4: ok load-module Orchardlines.Loomy.SymbolRegistry description=Module loaded successfully"
                     " | ok load-module Test.Words description=Module loaded successfully"}));
}

TEST_F(BundleControllerTest, ProcessSendsLocalChangesBeforeApplyingTheBatch)
{
    CountingNode node(journal, "n");
    auto connection = std::make_shared<RecordingConnection>(journal, "c");
    BundleControllerParams params = paramsWith(connection);
    params.useGlobalUpdate = false;
    BundleController controller(node, params);
    auto sender = std::make_shared<WordSender>();
    auto receiver = std::make_shared<WordReceiver>();
    controller.addTask([sender, receiver](Core &core) {
        core.dispatcher().registerSender(sender);
        core.dispatcher().preloadReceiver(receiver);
    });
    controller.update();
    journal.take();
    sender->queue({9});
    controller.process(peerBatch({3}));
    EXPECT_EQ(receiver->words, (std::vector<quint32>{3}));
    EXPECT_EQ(journal.take(), (Lines{"update n", "send c 1"}));
    // Stamped before the batch was applied: nothing acknowledged yet.
    EXPECT_EQ(describe(connection->batches().back()), (Lines{"2 2 0: 9"}));
}

TEST_F(BundleControllerTest, ControllerDestroyedOnAnotherThreadReleasesItsCoreOnTheFrameThread)
{
    CountingNode node(journal, "n");
    auto connection = std::make_shared<RecordingConnection>(journal, "c");
    auto controller = BundleController::create(node, paramsWith(connection));
    addSender(*controller, std::make_shared<WordSender>(&journal));
    frame();
    journal.take();
    std::thread([&controller] { controller.reset(); }).join();
    EXPECT_EQ(journal.take(), Lines{});
    frame();
    EXPECT_EQ(journal.take(), (Lines{"sender gone on main"}));
    frame();
    EXPECT_EQ(journal.take(), Lines{});
}

TEST_F(BundleControllerTest, NodeDestroyedBeforeItsControllerReleasesTheCoreAtOnce)
{
    auto node = std::make_unique<CountingNode>(journal, "n");
    auto connection = std::make_shared<RecordingConnection>(journal, "c");
    auto controller = BundleController::create(*node, paramsWith(connection));
    addSender(*controller, std::make_shared<WordSender>(&journal));
    frame();
    journal.take();
    node.reset();
    EXPECT_EQ(journal.take(), (Lines{"sender gone on main"}));

    bool ran = false;
    controller->addTask([&ran](Core &) { ran = true; });
    controller->setEnabled(false);
    controller->scheduleProcess(peerBatch({1}));
    controller->update();
    EXPECT_EQ(controller->symbolRegistryRecv(), nullptr);
    frame();
    EXPECT_FALSE(ran);
    controller.reset();
    frame();
    EXPECT_EQ(journal.take(), Lines{});
    EXPECT_EQ(connection->calls(), 1u);
}

TEST_F(BundleControllerTest, LoopStopsWithTheLastControllerAndRestartsWithTheNext)
{
    CountingNode node(journal, "n");
    auto controller = BundleController::create(node, BundleControllerParams());
    frame();
    // Made while the flagged core is still listed: the running loop takes it over, no second one.
    controller = BundleController::create(node, BundleControllerParams());
    frame();
    frame();
    EXPECT_EQ(journal.take(), Lines(4 + 4 + 3, "update n"));
    controller.reset();
    frame();  // prunes, finds the list empty and does not queue itself again
    frame();
    EXPECT_EQ(journal.take(), Lines{});

    // A pass still queued would run ahead of the probe queued before the new controller arms.
    Tamarack::Node::invokeAfterUpdate([this] { journal.add("probe"); });
    controller = BundleController::create(node, BundleControllerParams());
    frame();
    frame();
    Lines expected{"probe"};
    expected.resize(1 + 4 + 3, "update n");
    EXPECT_EQ(journal.take(), expected);
}

TEST_F(BundleControllerTest, ThrowingTaskKeepsTheLoopRunning)
{
    TraceCapture trace;
    CountingNode node(journal, "n");
    auto controller = BundleController::create(node, BundleControllerParams());
    controller->addTask([](Core &) { throw std::runtime_error("boom"); });
    frame();
    EXPECT_EQ(trace.lines(Kestrel::Trace::Level::Error),
              (QStringList{"Node::runHostUpdate # a queued function threw: boom"}));
    EXPECT_EQ(journal.take(), (Lines{"update n"}));
    frame();
    EXPECT_EQ(journal.take(), (Lines{"update n", "update n", "update n"}));
}

TEST_F(BundleControllerTest, UpdateDrivesALocalControllerAndNotAGlobalOne)
{
    CountingNode node(journal, "n");
    auto connection = std::make_shared<RecordingConnection>(journal, "c");
    auto global = BundleController::create(node, paramsWith(connection));
    BundleControllerParams params = paramsWith(connection);
    params.useGlobalUpdate = false;
    BundleController local(node, params);
    global->addTask([this](Core &) { journal.add("global task"); });
    local.addTask([this](Core &) { journal.add("local task"); });
    global->update();
    EXPECT_EQ(journal.take(), Lines{});
    local.update();
    EXPECT_EQ(journal.take(), (Lines{"update n", "local task", "update n", "update n", "send c 1", "update n"}));
    frame();
    EXPECT_EQ(journal.take(), (Lines{"update n", "global task", "update n", "update n", "send c 1", "update n"}));
}

TEST_F(BundleControllerTest, BatchesScheduledFromAnotherThreadAreAppliedInOrderOnTheFrameThread)
{
    CountingNode node(journal, "n");
    auto controller = BundleController::create(node, BundleControllerParams());
    auto receiver = std::make_shared<WordReceiver>();
    addReceiver(*controller, receiver);
    frame();

    // Peer bundles of one session: the first batch binds the module, the rest carry one word each.
    std::vector<std::vector<Bundle>> batches;
    {
        BundleDispatcher peer;
        auto sender = std::make_shared<WordSender>();
        peer.registerSender(sender);
        for (quint32 word = 0; word < 200; ++word) {
            sender->queue({word});
            batches.push_back(peer.collectUpdates());
        }
    }
    std::atomic<bool> done{false};
    std::thread connectionThread([&] {
        for (const auto &batch : batches)
            controller->scheduleProcess(batch);
        done = true;
    });
    for (int i = 0; i < 100000 && !done; ++i)
        frame();
    connectionThread.join();
    frame();
    std::vector<quint32> expected;
    for (quint32 word = 0; word < 200; ++word)
        expected.push_back(word);
    EXPECT_EQ(receiver->words, expected);
    EXPECT_TRUE(receiver->onMainThread);
}

// Controllers come and go on several threads while the frame thread runs passes: each core is
// released exactly once, on the frame thread, and tasks of dead cores vanish.
TEST_F(BundleControllerTest, ControllersMadeAndDroppedOnManyThreadsReleaseCoresOnTheFrameThread)
{
    CountingNode node(journal, "n");
    std::atomic<int> sendersMade{0};
    std::atomic<int> threadsDone{0};
    const int threadCount = 4;
    std::vector<std::thread> threads;
    for (int t = 0; t < threadCount; ++t) {
        threads.emplace_back([&] {
            for (int round = 0; round < 25; ++round) {
                auto controller = BundleController::create(node, BundleControllerParams());
                controller->addTask([&](Core &core) {
                    ++sendersMade;
                    core.dispatcher().registerSender(std::make_shared<WordSender>(&journal));
                });
                controller->setEnabled(round % 2 == 0);
                controller->scheduleProcess(std::vector<Bundle>());
                if (round % 3 == 0)
                    std::this_thread::yield();
            }
            ++threadsDone;
        });
    }
    for (int i = 0; i < 100000 && threadsDone < threadCount; ++i)
        frame();
    for (auto &thread : threads)
        thread.join();
    frame();
    frame();
    int goneOnMain = 0;
    for (const std::string &line : journal.take()) {
        EXPECT_NE(line, "sender gone elsewhere");
        goneOnMain += line == "sender gone on main";
    }
    EXPECT_EQ(goneOnMain, sendersMade.load());
}
