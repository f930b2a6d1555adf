#include "SyncTestUtil.h"

#include "loomy/sync/AttributeRemoveReceiver.h"
#include "loomy/sync/NewAttributeReceiver.h"

namespace {

// The peer has announced "local" (70), which exists here, and "made" (71), made here for it.
class AttributeRemoveReceiverTest : public SessionSide
{
protected:
    AttributeRemoveReceiverTest()
    {
        started();
        newReceiver.setCreateMissingAttributes(true);
        peerSymbol(70, "local");
        peerSymbol(71, "made");
        feed(newReceiver, Body() << 70u << 3u << 4u << 0u << 71u << 3u << 4u << 1u << 2.f, NewType, 4);
        collect();
        heard.clear();
    }

    FloatAttr *local = new FloatAttr(&node, "local", 1.f);
    Loomy::NewAttributeReceiver newReceiver{node, storage, recvSymbols, types, *sender};
    Loomy::AttributeRemoveReceiver receiver{node, storage, *sender};
};

// The attribute made for the peer goes without echo; this side's own stays, unsent until announced
// again. Both records forget the peer's side and step over what still comes for them.
TEST_F(AttributeRemoveReceiverTest, MadeForThePeerGoesWithoutEchoAndOwnStays)
{
    const unsigned made = sym("made");
    feed(receiver, Body() << 71u << 70u, RemoveType);
    EXPECT_EQ(at(node, "made"), nullptr);
    EXPECT_EQ(at(node, "local"), local);
    EXPECT_EQ(heard, (std::vector<Loomy::NodeWatcher::Event>{{Loomy::NodeWatcher::ATTRIBUTE_REMOVED, made}}));
    for (quint32 symbol : {70u, 71u}) {
        const Loomy::LoomySessionAttribute &record = *storage.findByReadSymbol(symbol);
        EXPECT_TRUE(record.removedByPeer);
        EXPECT_EQ(Types({record.readType, record.lastReceivedId, record.lastSentId}), Types({0, 0, 0}));
        EXPECT_EQ(skipped(record, QByteArray(8, '\0')), 4u);
    }
    local->setValue(3.f);
    EXPECT_TRUE(collect().empty());
    feed(newReceiver, Body() << 70u << 3u << 4u << 0u, NewType, 10);
    local->setValue(4.f);
    EXPECT_EQ(typesOf(collect()), Types{UpdateType});
    EXPECT_TRUE(trace.lines().isEmpty()) << trace.lines().join('\n').toStdString();
}

TEST_F(AttributeRemoveReceiverTest, UnknownSymbolOrGoneAttributeCostsOneRecord)
{
    delete local;
    collect();
    feed(receiver, Body() << 42u << 70u << 70u << 71u, RemoveType);
    EXPECT_EQ(at(node, "made"), nullptr);
    EXPECT_FALSE(storage.findByReadSymbol(70)->removedByPeer);
    EXPECT_EQ(storage.findByReadSymbol(70)->readType, 3u);
    EXPECT_EQ(trace.lines(), (QStringList{"AttributeRemoveHandler::handleBundle # Failed to find attribute with symbol 42",
                                          "AttributeRemoveHandler::handleBundle # Attribute 70 already removed",
                                          "AttributeRemoveHandler::handleBundle # Attribute 70 already removed"}));
}

// The peer names the empty path, this node, announces it and removes it: the announcement is
// refused, so the removal finds nothing, and the node and the records after it stay. A record that
// points at the node all the same (made here by hand) is refused by the removal itself.
TEST_F(AttributeRemoveReceiverTest, PeerCannotRemoveTheSynchronisedNode)
{
    peerSymbol(72, "");
    feed(newReceiver, Body() << 72u << 3u << 4u << 1u << 5.f, NewType, 5);
    feed(receiver, Body() << 72u << 70u, RemoveType);
    Loomy::LoomySessionAttribute *forged = storage.create("");
    forged->localOrigin = false;
    storage.indexByReadSymbol(74, forged);
    feed(receiver, Body() << 74u << 71u, RemoveType);
    EXPECT_EQ(app.attribute("remote"), &node);
    EXPECT_EQ(at(node, "made"), nullptr);
    EXPECT_TRUE(storage.findByReadSymbol(70)->removedByPeer);
    EXPECT_EQ(trace.lines(), (QStringList{"NewAttributeReceiver::handleBundle # Refused path '' at message index 0: an empty "
                                          "component, or the synchronised node or a node above it",
                                          "AttributeRemoveHandler::handleBundle # Failed to find attribute with symbol 72",
                                          "AttributeRemoveHandler::handleBundle # Refused to remove the synchronised node or a "
                                          "node above it (symbol 74)"}));
}

} // namespace
