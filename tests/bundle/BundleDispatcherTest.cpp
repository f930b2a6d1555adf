#include "loomy/bundle/BundleDispatcher.h"

#include "loomy/bundle/BundleReader.h"
#include "loomy/bundle/BundleSender.h"
#include "loomy/bundle/BundleWriter.h"

#include "BundleTestUtil.h"
#include "common/TraceCapture.h"

#include <gtest/gtest.h>

#include <utility>

using namespace Loomy;

namespace {

// Keeps the first word of each bundle it is handed.
class WordReceiver : public BundleReceiver
{
public:
    explicit WordReceiver(const QByteArray &name, bool failInitialize = false, bool failBundles = false)
        : BundleReceiver(name), m_failInitialize(failInitialize), m_failBundles(failBundles)
    {}
    void handleBundle(BundleReader &reader) override
    {
        words.push_back(reader.read<quint32>());
        if (m_failBundles)
            throw std::invalid_argument("bad body");
    }
    void initialize(const QMap<QString, QString> &) override
    {
        ++initialized;
        if (m_failInitialize)
            throw std::runtime_error("init failed");
    }
    std::vector<quint32> words;
    int initialized = 0;

private:
    bool m_failInitialize;
    bool m_failBundles;
};

// Registers its modules on initialisation and sends one bundle per queued (module, word).
class WordSender : public BundleSender
{
public:
    explicit WordSender(QList<QByteArray> modules) : m_modules(std::move(modules)) {}
    void initialize(BundleDispatcher &dispatcher) override
    {
        for (const QByteArray &module : m_modules)
            types.push_back(dispatcher.lookupOrRegisterMessageType(module));
    }
    void writeUpdates(BundleOutput &output) override
    {
        for (const auto &item : queued) {
            Bundle bundle;
            BundleWriter(bundle).write(item.second);
            bundle.stamp(types.at(item.first), output.nextBundleId(), output.ackBundleId());
            output.addBundle(bundle);
        }
        queued.clear();
    }
    std::vector<unsigned> types;
    std::vector<std::pair<int, quint32>> queued;  // index into the modules, word

private:
    QList<QByteArray> m_modules;
};

void dispatchAll(BundleDispatcher &dispatcher, const std::vector<Bundle> &bundles)
{
    for (const Bundle &bundle : bundles) {
        BundleReader reader(bundle);
        dispatcher.dispatchBundle(reader);
    }
}

void dispatchWord(BundleDispatcher &dispatcher, unsigned messageType, unsigned bundleId, quint32 word)
{
    Bundle bundle;
    BundleWriter(bundle).write(word);
    bundle.stamp(messageType, bundleId, 0);
    dispatchAll(dispatcher, {bundle});
}

// Header words of each bundle as "type/id/ack".
QStringList headers(const std::vector<Bundle> &bundles)
{
    QStringList out;
    for (const Bundle &b : bundles)
        out << QStringLiteral("%1/%2/%3").arg(b.messageType()).arg(b.bundleId()).arg(b.ackBundleId());
    return out;
}

const QString s_info = QStringLiteral("info application=Loomy version=2.14.4");

} // namespace

// One side announces its modules and sends, the other binds and answers; then the peers go on
// with acknowledged ids.
TEST(BundleDispatcher, TwoPeersBindModulesAndExchangeBundles)
{
    TraceCapture trace;
    BundleDispatcher alice;
    BundleDispatcher bob;
    auto sender = std::make_shared<WordSender>(QList<QByteArray>{"Test.Echo", "Test.Missing"});
    alice.registerSender(sender);
    auto echo = std::make_shared<WordReceiver>("Test.Echo");
    bob.preloadReceiver(std::make_shared<WordReceiver>("Orchardlines.Loomy.SymbolRegistry"));
    bob.preloadReceiver(echo);
    EXPECT_EQ(sender->symbolMessageType(), 1u);
    EXPECT_EQ(sender->types, (std::vector<unsigned>{2, 3}));

    sender->queued = {{0, 42}};
    const std::vector<Bundle> fromAlice = alice.collectUpdates();
    EXPECT_EQ(headers(fromAlice), (QStringList{"0/1/0", "2/2/0"}));
    EXPECT_EQ(handshakeRecords(fromAlice.at(0)),
              (QStringList{s_info, "load-module 1 Orchardlines.Loomy.SymbolRegistry", "load-module 2 Test.Echo",
                           "load-module 3 Test.Missing"}));

    dispatchAll(bob, fromAlice);
    EXPECT_EQ(echo->words, std::vector<quint32>{42});
    EXPECT_EQ(echo->initialized, 1);
    EXPECT_EQ(bob.lastReceivedBundleId(), 2u);

    const std::vector<Bundle> fromBob = bob.collectUpdates();
    EXPECT_EQ(headers(fromBob), QStringList{"0/1/2"});
    EXPECT_EQ(handshakeRecords(fromBob.at(0)),
              (QStringList{s_info,
                           "ok load-module Orchardlines.Loomy.SymbolRegistry description=Module loaded successfully",
                           "ok load-module Test.Echo description=Module loaded successfully",
                           "error load-module Test.Missing description=Module not found"}));

    dispatchAll(alice, fromBob);
    EXPECT_EQ(alice.lastReceivedBundleId(), 1u);
    EXPECT_EQ(trace.lines(), QStringList{"HandshakeReceiver::handleBundle # error, command: load-module, "
                                         "module: Test.Missing, additional info: description: Module not found"});

    sender->queued = {{0, 43}, {1, 44}};
    const std::vector<Bundle> again = alice.collectUpdates();
    EXPECT_EQ(headers(again), (QStringList{"2/3/1", "3/4/1"}));
    dispatchAll(bob, again);
    EXPECT_EQ(echo->words, (std::vector<quint32>{42, 43}));
    EXPECT_EQ(bob.lastReceivedBundleId(), 4u);
    EXPECT_EQ(trace.lines().size(), 2);
    EXPECT_EQ(trace.lines().last(), "BundleDispatcher::dispatchBundle # Unknown bundle type 3");
}

// loadModule calls in order; the reply to the last one is checked.
struct LoadCase { const char *name; std::vector<std::pair<unsigned, const char *>> loads; const char *reply; };
const LoadCase s_loadCases[] = {
    {"BoundAsNew", {{7, "Test.A"}}, "ok load-module Test.A description=Module loaded successfully"},
    {"SameNameAndNumberAgain", {{7, "Test.A"}, {7, "Test.A"}},
     "ok load-module Test.A description=Module reloaded successfully"},
    {"NotPreloaded", {{7, "Test.Z"}}, "error load-module Test.Z description=Module not found"},
    {"NamesAreCaseSensitive", {{7, "test.a"}}, "error load-module test.a description=Module not found"},
    {"NumberHeldByAnother", {{7, "Test.A"}, {7, "Test.C"}},
     "error load-module Test.C description=Message type already in use"},
    {"NumberZeroForUnboundName", {{0, "Test.A"}}, "error load-module Test.A description=Not implemented"},
    {"SameNameOtherNumber", {{7, "Test.A"}, {9, "Test.A"}},
     "error load-module Test.A description=Tried to reload module with different message type"},
    {"InitializeThrew", {{7, "Test.Fail"}}, "error load-module Test.Fail description=init failed"},
    {"ReloadInitializeThrew", {{7, "Test.Fail"}, {7, "Test.Fail"}},
     "error load-module Test.Fail description=init failed"},
    {"HandshakeReloadAtZero", {{0, "Orchardlines.Loomy.Handshake"}},
     "ok load-module Orchardlines.Loomy.Handshake description=Module reloaded successfully"},
    {"HandshakeAtOtherNumber", {{9, "Orchardlines.Loomy.Handshake"}},
     "error load-module Orchardlines.Loomy.Handshake description=Tried to reload module with different message type"},
};
class LoadModuleReply : public ::testing::TestWithParam<LoadCase> {};
TEST_P(LoadModuleReply, AnswersWithExactText)
{
    BundleDispatcher dispatcher;
    for (const char *name : {"Test.A", "Test.C"})
        dispatcher.preloadReceiver(std::make_shared<WordReceiver>(name));
    dispatcher.preloadReceiver(std::make_shared<WordReceiver>("Test.Fail", true));
    dispatcher.collectUpdates();
    for (const auto &load : GetParam().loads)
        dispatcher.loadModule(load.first, load.second, {});
    const std::vector<Bundle> bundles = dispatcher.collectUpdates();
    ASSERT_EQ(bundles.size(), 1u);
    const QStringList replies = handshakeRecords(bundles[0]);
    EXPECT_EQ(replies.size(), int(GetParam().loads.size()));
    EXPECT_EQ(replies.last(), GetParam().reply);
}
INSTANTIATE_TEST_SUITE_P(Handshake, LoadModuleReply, ::testing::ValuesIn(s_loadCases),
                         [](const auto &i) { return std::string(i.param.name); });

TEST(BundleDispatcher, RefusedNumberLeavesModulePreloaded)
{
    BundleDispatcher dispatcher;
    auto c = std::make_shared<WordReceiver>("Test.C");
    dispatcher.preloadReceiver(std::make_shared<WordReceiver>("Test.A"));
    dispatcher.preloadReceiver(c);
    dispatcher.loadModule(7, "Test.A", {});
    dispatcher.loadModule(7, "Test.C", {});
    dispatcher.loadModule(8, "Test.C", {});
    EXPECT_EQ(handshakeRecords(dispatcher.collectUpdates().at(0)).last(),
              "ok load-module Test.C description=Module loaded successfully");
    dispatchWord(dispatcher, 8, 1, 5);
    EXPECT_EQ(c->words, std::vector<quint32>{5});
}

TEST(BundleDispatcher, ModuleWhoseInitializeFailedStaysBound)
{
    TraceCapture trace;
    BundleDispatcher dispatcher;
    auto failing = std::make_shared<WordReceiver>("Test.Fail", true);
    dispatcher.preloadReceiver(failing);
    dispatcher.loadModule(7, "Test.Fail", {});
    dispatchWord(dispatcher, 7, 1, 5);
    EXPECT_EQ(failing->words, std::vector<quint32>{5});
    EXPECT_TRUE(trace.lines().isEmpty());
}

TEST(BundleDispatcher, BundleBeforeItsLoadModuleIsDroppedThenDelivered)
{
    TraceCapture trace;
    BundleDispatcher dispatcher;
    auto a = std::make_shared<WordReceiver>("Test.A");
    dispatcher.preloadReceiver(a);
    dispatcher.collectUpdates();
    dispatchWord(dispatcher, 7, 1, 100);
    dispatcher.loadModule(7, "Test.A", {});
    dispatchWord(dispatcher, 7, 2, 101);
    EXPECT_EQ(a->words, std::vector<quint32>{101});
    EXPECT_EQ(handshakeRecords(dispatcher.collectUpdates().at(0)),
              QStringList{"ok load-module Test.A description=Module loaded successfully"});
    EXPECT_EQ(trace.lines(), QStringList{"BundleDispatcher::dispatchBundle # Unknown bundle type 7"});
}

TEST(BundleDispatcher, UnknownTypeWarnsOncePerNumberAndIsAcknowledged)
{
    TraceCapture trace;
    BundleDispatcher dispatcher;
    dispatchWord(dispatcher, 5, 1, 0);
    dispatchWord(dispatcher, 5, 2, 0);
    dispatchWord(dispatcher, 4000000000u, 3, 0);
    EXPECT_EQ(trace.lines(Kestrel::Trace::Level::Warning),
              (QStringList{"BundleDispatcher::dispatchBundle # Unknown bundle type 5",
                           "BundleDispatcher::dispatchBundle # Unknown bundle type 4000000000"}));
    EXPECT_EQ(dispatcher.lastReceivedBundleId(), 3u);
}

TEST(BundleDispatcher, BundleWhoseReceiverThrewIsNotAcknowledged)
{
    BundleDispatcher dispatcher;
    dispatcher.preloadReceiver(std::make_shared<WordReceiver>("Test.Good"));
    dispatcher.preloadReceiver(std::make_shared<WordReceiver>("Test.Bad", false, true));
    dispatcher.loadModule(1, "Test.Good", {});
    dispatcher.loadModule(2, "Test.Bad", {});
    dispatchWord(dispatcher, 1, 5, 0);
    EXPECT_EQ(thrown([&] { dispatchWord(dispatcher, 2, 6, 0); }), "invalid_argument: bad body");
    EXPECT_EQ(dispatcher.lastReceivedBundleId(), 5u);
    std::vector<Bundle> bundles = dispatcher.collectUpdates();
    EXPECT_EQ(headers(bundles), QStringList{"0/1/5"});
}

TEST(BundleDispatcher, EmptyCollectionKeepsTheNextBundleId)
{
    BundleDispatcher dispatcher;
    EXPECT_EQ(headers(dispatcher.collectUpdates()), QStringList{"0/1/0"});
    EXPECT_TRUE(dispatcher.collectUpdates().empty());
    EXPECT_EQ(dispatcher.nextBundleId(), 2u);
    dispatcher.lookupOrRegisterMessageType("Test.A");
    EXPECT_EQ(headers(dispatcher.collectUpdates()), QStringList{"0/2/0"});
}

TEST(BundleDispatcher, KnownNameIsNotAnnouncedAgain)
{
    BundleDispatcher dispatcher;
    dispatcher.collectUpdates();
    EXPECT_EQ(dispatcher.lookupOrRegisterMessageType("Orchardlines.Loomy.Handshake"), 0u);
    EXPECT_EQ(dispatcher.lookupOrRegisterMessageType("Test.A"), 1u);
    EXPECT_EQ(dispatcher.lookupOrRegisterMessageType("Test.A"), 1u);
    EXPECT_EQ(handshakeRecords(dispatcher.collectUpdates().at(0)), QStringList{"load-module 1 Test.A"});
}

TEST(BundleDispatcher, SendersRunUpdateForAllBeforeAnyWrites)
{
    struct OrderSender : BundleSender {
        OrderSender(QStringList &log, QString name) : log(log), name(std::move(name)) {}
        void update() override { log << "update " + name; }
        void writeUpdates(BundleOutput &) override { log << "write " + name; }
        QStringList &log;
        QString name;
    };
    QStringList log;
    BundleDispatcher dispatcher;
    dispatcher.registerSender(std::make_shared<OrderSender>(log, "a"));
    dispatcher.registerSender(std::make_shared<OrderSender>(log, "b"));
    dispatcher.collectUpdates();
    EXPECT_EQ(log, (QStringList{"update a", "update b", "write a", "write b"}));
}
