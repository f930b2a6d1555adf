#include "SyncTestUtil.h"

#include "loomy/sync/AttributeUpdateReceiver.h"
#include "loomy/sync/NewAttributeReceiver.h"

#include <stdexcept>

using Loomy::LoomySessionAttribute;

namespace {

// The peer has announced x (float, its 70) and s (text, its 71), both here already.
class AttributeUpdateReceiverTest : public SessionSide
{
protected:
    AttributeUpdateReceiverTest()
    {
        started();
        peerSymbol(70, "x");
        peerSymbol(71, "s");
        feed(announcements, Body() << 70u << 3u << 4u << 0u << 71u << 35u << 0u << 0u, NewType, 4);
        xRecord = storage.findByReadSymbol(70);
        sRecord = storage.findByReadSymbol(71);
    }
    void apply(const Body &body, quint32 id = 9, quint32 ack = 0, int stopAt = -1) { feed(receiver, body, UpdateType, id, ack, stopAt); }

    FloatAttr *x = new FloatAttr(&node, "x", 1.f);
    TextAttr *s = new TextAttr(&node, "s", "old");
    Loomy::NewAttributeReceiver announcements{node, storage, recvSymbols, types, *sender};
    Loomy::AttributeUpdateReceiver receiver{storage, *sender};
    LoomySessionAttribute *xRecord = nullptr, *sRecord = nullptr;
};

// Other listeners hear every change, the sender sends none back; a value equal to the present one
// raises none and must leave no ignore entry behind. An unknown symbol ends the bundle.
TEST_F(AttributeUpdateReceiverTest, ValuesAreAppliedInOrderWithoutEcho)
{
    apply((Body() << 70u << 2.f).entry(71, "new text") << 70u << 3.f << 70u << 3.f, 14);
    EXPECT_EQ(x->value(), 3.f);
    EXPECT_EQ(s->value(), "new text");
    EXPECT_EQ(Types({xRecord->lastReceivedId, sRecord->lastReceivedId}), Types({14, 14}));
    const Loomy::NodeWatcher::Event xChanged{Loomy::NodeWatcher::ATTRIBUTE_CHANGED, sym("x")}, sChanged{Loomy::NodeWatcher::ATTRIBUTE_CHANGED, sym("s")};
    EXPECT_EQ(heard, (std::vector<Loomy::NodeWatcher::Event>{xChanged, sChanged, xChanged}));
    EXPECT_TRUE(collect().empty());
    x->setValue(5.f);
    EXPECT_EQ(typesOf(collect()), Types{UpdateType});
    EXPECT_TRUE(trace.lines().isEmpty()) << trace.lines().join('\n').toStdString();
    apply((Body() << 70u << 2.f << 99u << 7.f).entry(71, "never"), 15, 0, 16 + 12);
    EXPECT_EQ(x->value(), 2.f);
    EXPECT_EQ(s->value(), "new text");
    EXPECT_EQ(trace.lines(), QStringList{"AttributeUpdateHandler::handleBundle # BUG: unknown attribute with symbol 99"});
}

// A value cut short throws out of the bundle; the echo guard is closed all the same, so this side's
// next change of the attribute goes out.
TEST_F(AttributeUpdateReceiverTest, ValueCutShortLeavesNoIgnoreEntry)
{
    EXPECT_THROW(apply(Body().raw((Body() << 70u << 2.f).bytes().left(6))), std::out_of_range);
    x->setValue(5.f);
    EXPECT_EQ(typesOf(collect()), Types{UpdateType});
    EXPECT_THROW(apply(Body() << 71u << 8u << 0u), std::out_of_range);
    s->setValue("local");
    EXPECT_EQ(typesOf(collect()), Types{UpdateType});
}

class AttributeUpdateStaleValue : public AttributeUpdateReceiverTest, public ::testing::WithParamInterface<StaleCase> {};
// Taken or skipped, a fixed and a dynamic value: the bundle counts as received for the attribute.
TEST_P(AttributeUpdateStaleValue, DecidesByTheAcknowledgedBundle)
{
    const StaleCase &c = GetParam();
    receiver.m_dropStaleChanges = c.dropStaleChanges;
    xRecord->lastSentId = sRecord->lastSentId = c.lastSentId;
    apply((Body() << 70u << 2.f).entry(71, "abcde"), 30, c.ackBundleId);
    EXPECT_EQ(x->value(), c.applied ? 2.f : 1.f);
    EXPECT_EQ(s->value(), c.applied ? "abcde" : "old");
    EXPECT_EQ(Types({xRecord->lastReceivedId, sRecord->lastReceivedId}), Types({30, 30}));
    EXPECT_TRUE(collect().empty());
}
INSTANTIATE_TEST_SUITE_P(Rule, AttributeUpdateStaleValue, ::testing::ValuesIn(s_staleCases), [](const auto &i) { return std::string(i.param.name); });

} // namespace
