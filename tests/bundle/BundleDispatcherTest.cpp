#include "loomy/bundle/BundleDispatcher.h"

#include "BundleTestUtil.h"
#include "common/TraceCapture.h"

using namespace Loomy;

namespace {

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

const QString s_unknown = QStringLiteral("BundleDispatcher::dispatchBundle # Unknown bundle type %1");

} // namespace

// One side announces its modules and sends, the other binds and answers; then the peers go on
// with acknowledged ids, and a module the peer lacks is dropped there.
TEST(BundleDispatcher, TwoPeersBindModulesAndExchangeBundles)
{
    TraceCapture trace;
    BundleDispatcher alice, bob;
    auto echo = std::make_shared<WordSender>("Test.Echo"), missing = std::make_shared<WordSender>("Test.Missing");
    alice.registerSender(echo);
    alice.registerSender(missing);
    auto echoed = std::make_shared<WordReceiver>("Test.Echo");
    bob.preloadReceiver(std::make_shared<WordReceiver>("Orchardlines.Loomy.SymbolRegistry"));
    bob.preloadReceiver(echoed);
    echo->queued = {42};
    const std::vector<Bundle> fromAlice = alice.collectUpdates();
    EXPECT_EQ(describe(fromAlice), (QStringList{"0 1 0: " + s_info + " | load-module 1 Orchardlines.Loomy.SymbolRegistry"
                                                " | load-module 2 Test.Echo | load-module 3 Test.Missing", "2 2 0: 42"}));
    dispatchAll(bob, fromAlice);
    const std::vector<Bundle> fromBob = bob.collectUpdates();
    EXPECT_EQ(describe(fromBob), QStringList{"0 1 2: " + s_info + " | ok load-module Orchardlines.Loomy.SymbolRegistry"
                                             + s_loaded + " | ok load-module Test.Echo" + s_loaded
                                             + " | error load-module Test.Missing description=Module not found"});
    dispatchAll(alice, fromBob);
    echo->queued = {43};
    missing->queued = {44};
    const std::vector<Bundle> again = alice.collectUpdates();
    EXPECT_EQ(describe(again), (QStringList{"2 3 1: 43", "3 4 1: 44"}));
    dispatchAll(bob, again);
    EXPECT_EQ(echoed->words, (std::vector<quint32>{42, 43}));
    EXPECT_EQ(echoed->configs.size(), 1u);
    EXPECT_EQ(bob.lastReceivedBundleId(), 4u);
    EXPECT_EQ(trace.lines(), (QStringList{"HandshakeReceiver::handleBundle # error, command: load-module, module: "
                                          "Test.Missing, additional info: description: Module not found",
                                          s_unknown.arg(3)}));
}

// loadModule calls in order; the reply to the last one is checked.
TEST(BundleDispatcher, LoadModuleAnswersWithExactTexts)
{
    const QString otherType = "description=Tried to reload module with different message type";
    const std::pair<std::vector<std::pair<unsigned, const char *>>, QString> cases[] = {
        {{{7, "Test.A"}}, "ok load-module Test.A" + s_loaded},
        {{{7, "Test.A"}, {7, "Test.A"}}, "ok load-module Test.A description=Module reloaded successfully"},
        {{{7, "Test.Z"}}, "error load-module Test.Z description=Module not found"},
        {{{7, "test.a"}}, "error load-module test.a description=Module not found"},
        {{{7, "Test.A"}, {7, "Test.C"}}, "error load-module Test.C description=Message type already in use"},
        {{{7, "Test.A"}, {7, "Test.C"}, {8, "Test.C"}}, "ok load-module Test.C" + s_loaded},  // still preloaded
        {{{0, "Test.A"}}, "error load-module Test.A description=Not implemented"},
        {{{7, "Test.A"}, {9, "Test.A"}}, "error load-module Test.A " + otherType},
        {{{7, "Test.Fail"}}, "error load-module Test.Fail description=init failed"},
        {{{7, "Test.Fail"}, {7, "Test.Fail"}}, "error load-module Test.Fail description=init failed"},
        {{{0, "Orchardlines.Loomy.Handshake"}},
         "ok load-module Orchardlines.Loomy.Handshake description=Module reloaded successfully"},
        {{{9, "Orchardlines.Loomy.Handshake"}}, "error load-module Orchardlines.Loomy.Handshake " + otherType},
    };
    for (const auto &c : cases) {
        BundleDispatcher dispatcher;
        dispatcher.preloadReceiver(std::make_shared<WordReceiver>("Test.A"));
        dispatcher.preloadReceiver(std::make_shared<WordReceiver>("Test.C"));
        dispatcher.preloadReceiver(std::make_shared<WordReceiver>("Test.Fail", true));
        dispatcher.collectUpdates();
        for (const auto &load : c.first)
            dispatcher.loadModule(load.first, load.second, {});
        const QStringList replies = handshakeRecords(dispatcher.collectUpdates().at(0));
        EXPECT_EQ(replies.size(), int(c.first.size())) << c.second.toStdString();
        EXPECT_EQ(replies.last(), c.second);
    }
}

// Unknown types are dropped with one warning per number, yet acknowledged; a bundle that came
// before its "load-module" is lost, the next one is delivered. A bundle whose receiver threw is
// not acknowledged. A module whose initialize threw stays bound.
TEST(BundleDispatcher, AcknowledgesUnknownTypesButNotFailedBundles)
{
    TraceCapture trace;
    BundleDispatcher dispatcher;
    auto a = std::make_shared<WordReceiver>("Test.A"), failing = std::make_shared<WordReceiver>("Test.Fail", true);
    dispatcher.preloadReceiver(a);
    dispatcher.preloadReceiver(failing);
    dispatchWord(dispatcher, 7, 1, 100);
    dispatchWord(dispatcher, 7, 2, 101);
    dispatchWord(dispatcher, 4000000000u, 3, 102);
    EXPECT_EQ(dispatcher.lastReceivedBundleId(), 3u);
    dispatcher.loadModule(7, "Test.A", {});
    dispatcher.loadModule(8, "Test.Fail", {});
    dispatchWord(dispatcher, 7, 4, 103);
    dispatchWord(dispatcher, 8, 5, 104);
    EXPECT_EQ(thrown([&] { dispatchWord(dispatcher, 7, 6, s_badWord); }), "invalid_argument: bad word");
    EXPECT_EQ(a->words, (std::vector<quint32>{103, s_badWord}));
    EXPECT_EQ(failing->words, std::vector<quint32>{104});
    EXPECT_EQ(trace.lines(), (QStringList{s_unknown.arg(7), s_unknown.arg(4000000000u)}));
    EXPECT_EQ(dispatcher.lastReceivedBundleId(), 5u);
}

// An empty collection takes no id, and a known name is not announced again.
TEST(BundleDispatcher, CollectionsNumberOnlyBundlesThatLeave)
{
    BundleDispatcher dispatcher;
    EXPECT_EQ(describe(dispatcher.collectUpdates()), QStringList{"0 1 0: " + s_info});
    EXPECT_TRUE(dispatcher.collectUpdates().empty());
    EXPECT_EQ(dispatcher.lookupOrRegisterMessageType("Orchardlines.Loomy.Handshake"), 0u);
    EXPECT_EQ(dispatcher.lookupOrRegisterMessageType("Test.A"), 1u);
    EXPECT_EQ(dispatcher.lookupOrRegisterMessageType("Test.A"), 1u);
    EXPECT_EQ(describe(dispatcher.collectUpdates()), QStringList{"0 2 0: load-module 1 Test.A"});
}

TEST(BundleDispatcher, SendersRunUpdateForAllBeforeAnyWrites)
{
    static QStringList log;
    struct OrderSender : WordSender
    {
        using WordSender::WordSender;
        void update() override { log << "update " + module; }
        void writeUpdates(BundleOutput &) override { log << "write " + module; }
    };
    BundleDispatcher dispatcher;
    dispatcher.registerSender(std::make_shared<OrderSender>("a"));
    dispatcher.registerSender(std::make_shared<OrderSender>("b"));
    dispatcher.collectUpdates();
    EXPECT_EQ(log, (QStringList{"update a", "update b", "write a", "write b"}));
}
