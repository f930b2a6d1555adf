#include "loomy/bundle/BundleSender.h"

#include "loomy/bundle/BundleDispatcher.h"

#include "BundleTestUtil.h"

#include <gtest/gtest.h>

using namespace Loomy;

TEST(BundleOutput, AddBundleSharesTheBytesAndMovesTheIdOn)
{
    std::vector<Bundle> bundles;
    unsigned nextId = 5;
    BundleOutput output(bundles, nextId, 3);
    Bundle bundle;
    bundle.data().append("abcd");
    output.addBundle(bundle);
    EXPECT_EQ(nextId, 6u);
    EXPECT_EQ(output.nextBundleId(), 6u);
    EXPECT_EQ(output.ackBundleId(), 3u);
    ASSERT_EQ(bundles.size(), 1u);
    EXPECT_EQ(bundles[0].data().constData(), bundle.data().constData());
    // The producer goes on with its own copy; the output's copy keeps its bytes.
    bundle.data()[16] = 'z';
    EXPECT_EQ(bundles[0].data().mid(16), "abcd");
}

namespace {

class ProbeSender : public BundleSender
{
public:
    void writeUpdates(BundleOutput &) override {}
    void initialize(BundleDispatcher &dispatcher) override
    {
        typeSeenByInitialize = symbolMessageType();
        ownType = dispatcher.lookupOrRegisterMessageType("Test.Own");
    }
    unsigned typeSeenByInitialize = 99;
    unsigned ownType = 99;
};

} // namespace

TEST(BundleSender, InitSenderLooksUpTheSymbolTypeBeforeInitialize)
{
    BundleDispatcher dispatcher;
    dispatcher.collectUpdates();
    auto first = std::make_shared<ProbeSender>();
    auto second = std::make_shared<ProbeSender>();
    EXPECT_EQ(first->symbolMessageType(), 0u);
    dispatcher.registerSender(first);
    dispatcher.registerSender(second);
    EXPECT_EQ(first->typeSeenByInitialize, 1u);
    EXPECT_EQ(first->ownType, 2u);
    EXPECT_EQ(second->symbolMessageType(), 1u);
    EXPECT_EQ(second->ownType, 2u);
    EXPECT_EQ(handshakeRecords(dispatcher.collectUpdates().at(0)),
              (QStringList{"load-module 1 Orchardlines.Loomy.SymbolRegistry", "load-module 2 Test.Own"}));
}
