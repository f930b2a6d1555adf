#include "loomy/bundle/BundleSender.h"

#include "BundleTestUtil.h"

using namespace Loomy;

// Every sender knows the symbol type, shared by all, before its initialize runs.
TEST(BundleSender, InitSenderLooksUpTheSymbolTypeBeforeInitialize)
{
    struct ProbeSender : WordSender
    {
        void initialize(BundleDispatcher &d) override { seen = symbolMessageType(); WordSender::initialize(d); }
        unsigned seen = 0;
    };
    BundleDispatcher dispatcher;
    auto first = std::make_shared<ProbeSender>(), second = std::make_shared<ProbeSender>();
    dispatcher.registerSender(first);
    dispatcher.registerSender(second);
    EXPECT_EQ((std::vector<unsigned>{first->seen, second->seen, second->type}), (std::vector<unsigned>{1, 1, 2}));
}
