#include "loomy/bundle/BundleDispatcher.h"

#include "BundleTestUtil.h"
#include "common/TraceCapture.h"

using namespace Loomy;

namespace {
// Collects from `from`, hands every bundle to `to`, and describes what went.
QStringList pass(BundleDispatcher &from, BundleDispatcher &to)
{
    const std::vector<Bundle> bundles = from.collectUpdates();
    for (const Bundle &bundle : bundles) {
        BundleReader reader(bundle);
        to.dispatchBundle(reader);
    }
    return describe(bundles);
}

void dispatchWord(BundleDispatcher &dispatcher, unsigned messageType, unsigned bundleId, quint32 word)
{
    Bundle bundle;
    BundleWriter(bundle).write(word);
    bundle.stamp(messageType, bundleId, 0);
    BundleReader reader(bundle);
    dispatcher.dispatchBundle(reader);
}

const QString s_unknown = QStringLiteral("BundleDispatcher::dispatchBundle # Unknown bundle type %1");
} // namespace

// One side announces its modules and sends, the other binds and answers, and so on with acks.
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
    EXPECT_EQ(pass(alice, bob), (QStringList{"0 1 0: " + s_info + " | load-module 1 Orchardlines.Loomy.SymbolRegistry"
                                             " | load-module 2 Test.Echo | load-module 3 Test.Missing", "2 2 0: 42"}));
    EXPECT_EQ(pass(bob, alice), QStringList{"0 1 2: " + s_info + " | ok load-module Orchardlines.Loomy.SymbolRegistry"
                                            + s_loaded + " | ok load-module Test.Echo" + s_loaded
                                            + " | error load-module Test.Missing description=Module not found"});
    echo->queued = {43};
    missing->queued = {44};
    EXPECT_EQ(pass(alice, bob), (QStringList{"2 3 1: 43", "3 4 1: 44"}));
    EXPECT_EQ(echoed->words, (std::vector<quint32>{42, 43}));
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
    };
    for (const auto &c : cases) {
        BundleDispatcher dispatcher;
        for (const char *name : {"Test.A", "Test.C", "Test.Fail"})
            dispatcher.preloadReceiver(std::make_shared<WordReceiver>(name, name == QLatin1String("Test.Fail")));
        dispatcher.collectUpdates();
        for (const auto &load : c.first)
            dispatcher.loadModule(load.first, load.second, {});
        const QStringList replies = handshakeRecords(dispatcher.collectUpdates().at(0));
        EXPECT_EQ(replies.size(), int(c.first.size())) << c.second.toStdString();
        EXPECT_EQ(replies.last(), c.second);
    }
}

// Unknown types are dropped with one warning per number, yet acknowledged, unlike a bundle whose
// receiver threw. A module whose initialize threw stays bound.
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
