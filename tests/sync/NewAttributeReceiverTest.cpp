#include "ReceiverFixture.h"

#include "loomy/sync/NewAttributeReceiver.h"
#include "tamarack/AttributeAlias.h"

#include <stdexcept>

using Loomy::NodeWatcher;
using Tamarack::Attribute;
using Tamarack::Node;

namespace {

const QString s_nodeExpected =
    "NewAttributeReceiver::createOrFindAttribute # Found an existing attribute where a node was expected";

class NewAttributeReceiverTest : public ReceiverFixture
{
protected:
    void apply(const Body &body, quint32 bundleId = 9, quint32 ackBundleId = 0)
    {
        const Loomy::Bundle bundle = makeBundle(body, NewType, bundleId, ackBundleId);
        Loomy::BundleReader reader(bundle);
        receiver.handleBundle(reader);
        EXPECT_EQ(reader.position(), unsigned(bundle.size())) << "the body was not read to its end";
    }
    // One record of a float value (type id 3, size 4).
    static Body &floatRecord(Body &body, quint32 symbol, quint32 flags, float value)
    {
        body.word(symbol).word(3).word(4).word(flags);
        if (flags & 1u)
            body.f32(value);
        return body;
    }
    // Where a record's deserialiser leaves a cursor on `bytes`.
    static unsigned consumed(const Loomy::LoomySessionAttribute &record, const QByteArray &bytes)
    {
        Loomy::BundleReaderCore reader(bytes);
        record.deserializer(reader);
        return reader.position();
    }

    Loomy::NewAttributeReceiver receiver{node, storage, recvSymbols, types, *sender};
};

TEST_F(NewAttributeReceiverTest, EmptyBodyDoesNothing)
{
    new FloatAttr(&node, "x", 1.f);
    apply(Body());
    EXPECT_EQ(storage.findByName("x"), nullptr);
    EXPECT_TRUE(heard.empty());
    EXPECT_TRUE(trace.lines().isEmpty());
}

TEST_F(NewAttributeReceiverTest, ValueForAnExistingAttributeIsAppliedWithoutEcho)
{
    auto *x = new FloatAttr(&node, "x", 1.f);
    announceLocalTree();
    peerSymbol(70, "x");

    Body body;
    apply(floatRecord(body, 70, 1, 2.5f), 12);

    EXPECT_EQ(x->value(), 2.5f);
    EXPECT_EQ(x->currentLayer(), Attribute::LAYER_USER);
    Loomy::LoomySessionAttribute *record = storage.findByReadSymbol(70);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(record, storage.findByName("x"));
    EXPECT_EQ(record->writeSymbol, localSymbol("x"));
    EXPECT_EQ(record->readType, 3u);
    EXPECT_EQ(record->readSize, 4u);
    EXPECT_EQ(record->lastReceivedId, 12u);
    EXPECT_TRUE(record->localOrigin);
    // Other listeners of the tree hear the change; the sender doesn't send it back.
    EXPECT_EQ(heardCount(NodeWatcher::ATTRIBUTE_CHANGED, record->writeSymbol), 1);
    const std::vector<Loomy::Bundle> out = collect();
    EXPECT_EQ(countOfType(out, UpdateType), 0);
    EXPECT_TRUE(trace.lines().isEmpty()) << trace.lines().join('\n').toStdString();

    // The guard was for that one change: the next local one leaves.
    x->setValue(3.f);
    EXPECT_EQ(countOfType(collect(), UpdateType), 1);
}

TEST_F(NewAttributeReceiverTest, FlagsZeroKeepsTheValueAndRebuildsTheDeserializer)
{
    auto *x = new FloatAttr(&node, "x", 1.f);
    auto *y = new FloatAttr(&node, "y", 1.f);
    peerSymbol(70, "x");
    peerSymbol(71, "y");
    Loomy::LoomySessionAttribute *record = storage.create("x");
    record->deserializer = Loomy::LoomySessionAttribute::createDummyDeserializer(4);

    Body body;
    floatRecord(body, 70, 0, 0.f);
    apply(floatRecord(body, 71, 1, 6.f));

    EXPECT_EQ(x->value(), 1.f);
    EXPECT_EQ(y->value(), 6.f);
    EXPECT_EQ(record->lastReceivedId, 0u);
    // The dummy is gone: the rebuilt deserialiser reaches the attribute.
    Body value;
    value.f32(8.f);
    EXPECT_EQ(consumed(*record, value.bytes()), 4u);
    EXPECT_EQ(x->value(), 8.f);
}

TEST_F(NewAttributeReceiverTest, OnlyBitZeroOfTheFlagsAnnouncesAValue)
{
    auto *x = new FloatAttr(&node, "x", 1.f);
    auto *y = new FloatAttr(&node, "y", 1.f);
    peerSymbol(70, "x");
    peerSymbol(71, "y");

    Body body;
    body.word(70).word(3).word(4).word(2);      // no value follows
    body.word(71).word(3).word(4).word(3).f32(5.f);
    apply(body);

    EXPECT_EQ(x->value(), 1.f);
    EXPECT_EQ(y->value(), 5.f);
    EXPECT_TRUE(trace.lines().isEmpty());
}

TEST_F(NewAttributeReceiverTest, MissingParentsAreMadeWhenCreatingIsOn)
{
    receiver.setCreateMissingAttributes(true);
    peerSymbol(70, "a/b/c");

    Body body;
    apply(floatRecord(body, 70, 1, 4.f), 5);

    auto *a = dynamic_cast<Node *>(node.attribute("a"));
    ASSERT_NE(a, nullptr);
    auto *b = dynamic_cast<Node *>(a->attribute("b"));
    ASSERT_NE(b, nullptr);
    auto *c = dynamic_cast<FloatAttr *>(b->attribute("c"));
    ASSERT_NE(c, nullptr);
    // The peer's value is the new attribute's default.
    EXPECT_EQ(c->value(), 4.f);
    EXPECT_EQ(c->value(Attribute::LAYER_DEFAULT), 4.f);
    EXPECT_FALSE(c->isValueDefinedOnLayer(Attribute::LAYER_USER));

    Loomy::LoomySessionAttribute *record = storage.findByReadSymbol(70);
    ASSERT_NE(record, nullptr);
    EXPECT_FALSE(record->localOrigin);
    EXPECT_EQ(record->lastReceivedId, 5u);
    // The addition was reported at once, and the answer tells the peer this side's number only.
    const unsigned symbol = localSymbol("a/b/c");
    EXPECT_EQ(heardCount(NodeWatcher::ATTRIBUTE_ADDED, symbol), 1);
    EXPECT_EQ(bodyWords(collect(), NewType), (std::vector<quint32>{symbol, 3, 4, 0}));
    EXPECT_TRUE(trace.lines().isEmpty()) << trace.lines().join('\n').toStdString();
}

TEST_F(NewAttributeReceiverTest, MissingParentsWithCreatingOffGiveASilentDummy)
{
    auto *y = new FloatAttr(&node, "y", 1.f);
    peerSymbol(70, "a/b/c");
    peerSymbol(71, "y");

    Body body;
    floatRecord(body, 70, 1, 4.f);
    apply(floatRecord(body, 71, 1, 6.f));

    EXPECT_EQ(node.attribute("a"), nullptr);
    EXPECT_EQ(y->value(), 6.f);
    Loomy::LoomySessionAttribute *record = storage.findByReadSymbol(70);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(consumed(*record, QByteArray(8, '\0')), 4u);
    EXPECT_TRUE(trace.lines().isEmpty());
}

TEST_F(NewAttributeReceiverTest, MissingAttributeWithCreatingOffSkipsItsValue)
{
    peerSymbol(70, "s");
    peerSymbol(71, "y");
    auto *y = new FloatAttr(&node, "y", 1.f);

    Body body;
    body.word(70).word(35).word(0).word(1).block("abcde");
    apply(floatRecord(body, 71, 1, 6.f));

    EXPECT_EQ(node.attribute("s"), nullptr);
    EXPECT_EQ(y->value(), 6.f);
    // A dummy for a dynamic value: length word, then the padded bytes.
    Body value;
    value.block("abcde");
    EXPECT_EQ(consumed(*storage.findByReadSymbol(70), value.bytes()), 12u);
    EXPECT_TRUE(trace.lines().isEmpty());
}

TEST_F(NewAttributeReceiverTest, ExistingAttributeOfAnotherClassWarnsAndSkipsItsValues)
{
    auto *s = new TextAttr(&node, "s", "keep");
    auto *y = new FloatAttr(&node, "y", 1.f);
    peerSymbol(70, "s");
    peerSymbol(71, "y");

    Body body;
    floatRecord(body, 70, 1, 4.f);
    apply(floatRecord(body, 71, 1, 6.f));

    EXPECT_EQ(s->value(), "keep");
    EXPECT_EQ(y->value(), 6.f);
    EXPECT_EQ(trace.lines(),
              QStringList{"NewAttributeReceiver::createDeserializer # Found an attribute that we don't know how to "
                          "deserialize at 's'"});
    EXPECT_EQ(consumed(*storage.findByReadSymbol(70), QByteArray(8, '\0')), 4u);
}

TEST_F(NewAttributeReceiverTest, UnknownSymbolCostsOneRecord)
{
    auto *x = new FloatAttr(&node, "x", 1.f);
    auto *y = new FloatAttr(&node, "y", 1.f);
    peerSymbol(70, "x");
    peerSymbol(71, "y");

    Body body;
    floatRecord(body, 70, 1, 2.f);
    floatRecord(body, 99, 1, 3.f);
    body.word(98).word(3).word(4).word(0);
    apply(floatRecord(body, 71, 1, 4.f));

    EXPECT_EQ(x->value(), 2.f);
    EXPECT_EQ(y->value(), 4.f);
    EXPECT_EQ(trace.lines(),
              (QStringList{"NewAttributeReceiver::handleBundle # Unknown symbol 99 at message index 1. Will ignore the bundle",
                           "NewAttributeReceiver::handleBundle # Unknown symbol 98 at message index 2. Will ignore the bundle"}));
    EXPECT_EQ(storage.findByReadSymbol(99), nullptr);
}

TEST_F(NewAttributeReceiverTest, AttributeWhereANodeIsExpected)
{
    new FloatAttr(&node, "x", 1.f);
    peerSymbol(70, "x/y");

    Body body;
    floatRecord(body, 70, 1, 4.f);
    apply(body);
    EXPECT_EQ(trace.lines(), QStringList{s_nodeExpected});

    // With creating on, the node that could not be made is reported as well.
    trace.clear();
    receiver.setCreateMissingAttributes(true);
    apply(body);
    EXPECT_EQ(trace.lines(),
              (QStringList{s_nodeExpected, "NewAttributeReceiver::handleBundle # Failed to create target node at path x/y"}));
}

TEST_F(NewAttributeReceiverTest, PathsFollowAliasesToNodes)
{
    auto *target = new Node(&app, "elsewhere");
    new Tamarack::AttributeAlias(&node, "link", target);
    receiver.setCreateMissingAttributes(true);
    peerSymbol(70, "link/c");

    Body body;
    apply(floatRecord(body, 70, 1, 4.f));

    auto *c = dynamic_cast<FloatAttr *>(target->attribute("c"));
    ASSERT_NE(c, nullptr);
    EXPECT_EQ(c->value(), 4.f);
}

// The alias holds the name, so the node made in its place is refused; it must not be left free
// (and leak) with the attribute inside it.
TEST_F(NewAttributeReceiverTest, AliasWithoutTargetOnThePathCountsAsANodeNotMade)
{
    new Tamarack::AttributeAlias(&node, "dangling");
    receiver.setCreateMissingAttributes(true);
    peerSymbol(70, "dangling/c");

    Body body;
    apply(floatRecord(body, 70, 1, 4.f));

    EXPECT_EQ(trace.lines(),
              (QStringList{"Attribute::Attribute # could not add 'dangling' to its host",
                           "NewAttributeReceiver::handleBundle # Failed to create target node at path dangling/c"}));
    EXPECT_NE(dynamic_cast<Tamarack::AttributeAlias *>(node.attribute("dangling")), nullptr);
}

TEST_F(NewAttributeReceiverTest, UnknownTypeIdMakesNoAttribute)
{
    receiver.setCreateMissingAttributes(true);
    peerSymbol(70, "odd");

    Body body;
    body.word(70).word(5).word(4).word(0);
    apply(body);

    EXPECT_EQ(node.attribute("odd"), nullptr);
    Loomy::LoomySessionAttribute *record = storage.findByReadSymbol(70);
    ASSERT_NE(record, nullptr);
    EXPECT_EQ(consumed(*record, QByteArray(8, '\0')), 4u);
}

class NewAttributeStaleValue : public NewAttributeReceiverTest, public ::testing::WithParamInterface<StaleCase>
{};

TEST_P(NewAttributeStaleValue, DecidesByTheAcknowledgedBundle)
{
    const StaleCase &c = GetParam();
    receiver.m_dropStaleChanges = c.dropStaleChanges;
    auto *x = new FloatAttr(&node, "x", 1.f);
    auto *y = new FloatAttr(&node, "y", 1.f);
    peerSymbol(70, "x");
    peerSymbol(71, "y");
    storage.create("x")->lastSentId = c.lastSentId;

    Body body;
    floatRecord(body, 70, 1, 2.f);
    apply(floatRecord(body, 71, 1, 3.f), 20, c.ackBundleId);

    EXPECT_EQ(x->value(), c.applied ? 2.f : 1.f);
    EXPECT_EQ(storage.findByName("x")->lastReceivedId, c.applied ? 20u : 0u);
    // A dropped value is stepped over exactly.
    EXPECT_EQ(y->value(), 3.f);
}

INSTANTIATE_TEST_SUITE_P(Rule, NewAttributeStaleValue, ::testing::ValuesIn(s_staleCases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(NewAttributeReceiverTest, TruncatedValueThrowsAndKeepsEarlierRecords)
{
    auto *x = new FloatAttr(&node, "x", 1.f);
    peerSymbol(70, "x");
    peerSymbol(71, "s");
    new TextAttr(&node, "s");

    Body body;
    floatRecord(body, 70, 1, 2.f);
    body.word(71).word(35).word(0).word(1).word(100);     // 100 bytes announced, none there
    const Loomy::Bundle bundle = makeBundle(body, NewType, 3);
    Loomy::BundleReader reader(bundle);
    EXPECT_THROW(receiver.handleBundle(reader), std::out_of_range);
    EXPECT_EQ(x->value(), 2.f);
}

} // namespace
