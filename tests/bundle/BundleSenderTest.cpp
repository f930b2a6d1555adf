#include "loomy/bundle/BundleSender.h"

#include "BundleTestUtil.h"

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
    ASSERT_EQ(bundles.size(), 1u);
    EXPECT_EQ(bundles[0].data().constData(), bundle.data().constData());
    bundle.data()[16] = 'z';  // the producer goes on with its own copy
    EXPECT_EQ(bundles[0].data().mid(16), "abcd");
}

TEST(BundleSender, InitSenderLooksUpTheSymbolTypeBeforeInitialize)
{
    struct ProbeSender : WordSender
    {
        void initialize(BundleDispatcher &dispatcher) override
        {
            typeSeenByInitialize = symbolMessageType();
            WordSender::initialize(dispatcher);
        }
        unsigned typeSeenByInitialize = 99;
    };
    BundleDispatcher dispatcher;
    dispatcher.collectUpdates();
    auto first = std::make_shared<ProbeSender>(), second = std::make_shared<ProbeSender>();
    dispatcher.registerSender(first);
    dispatcher.registerSender(second);
    EXPECT_EQ((std::vector<unsigned>{first->typeSeenByInitialize, second->typeSeenByInitialize, second->type}),
              (std::vector<unsigned>{1, 1, 2}));
    EXPECT_EQ(describe(dispatcher.collectUpdates()),
              QStringList{"0 2 0: load-module 1 Orchardlines.Loomy.SymbolRegistry | load-module 2 Test.Words"});
}
