#include "SyncTestUtil.h"

#include "loomy/sync/AttributeRemoveReceiver.h"
#include "loomy/sync/NewAttributeReceiver.h"

using Loomy::LoomySessionAttribute;

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
    // Forgotten as the peer's, and what still comes for it is stepped over by the announced size.
    void expectRemovedByPeer(const LoomySessionAttribute &record, quint32 readSymbol)
    {
        EXPECT_TRUE(record.removedByPeer);
        EXPECT_EQ(record.readType + record.lastReceivedId + record.lastSentId, 0u);
        EXPECT_EQ(storage.findByReadSymbol(readSymbol), &record);
        EXPECT_EQ(skipped(record, QByteArray(8, '\0')), 4u);
    }

    FloatAttr *local = new FloatAttr(&node, "local", 1.f);
    Loomy::NewAttributeReceiver newReceiver{node, storage, recvSymbols, types, *sender};
    Loomy::AttributeRemoveReceiver receiver{node, storage, *sender};
};

TEST_F(AttributeRemoveReceiverTest, AttributeMadeForThePeerGoesWithoutEcho)
{
    LoomySessionAttribute *made = storage.findByReadSymbol(71);
    ASSERT_NE(at(node, "made"), nullptr);
    feed(receiver, Body() << 71u, RemoveType);
    EXPECT_EQ(at(node, "made"), nullptr);
    EXPECT_EQ(heardCount(Loomy::NodeWatcher::ATTRIBUTE_REMOVED, made->writeSymbol), 1);
    expectRemovedByPeer(*made, 71);
    EXPECT_TRUE(collect().empty());
    EXPECT_TRUE(trace.lines().isEmpty()) << trace.lines().join('\n').toStdString();
}

// This side's own attribute stays and is not sent until the peer announces the path again.
TEST_F(AttributeRemoveReceiverTest, OwnAttributeStaysUntilAnnouncedAgain)
{
    LoomySessionAttribute *record = storage.findByReadSymbol(70);
    feed(receiver, Body() << 70u, RemoveType);
    EXPECT_EQ(at(node, "local"), local);
    expectRemovedByPeer(*record, 70);
    local->setValue(3.f);
    EXPECT_TRUE(collect().empty());
    feed(newReceiver, Body() << 70u << 3u << 4u << 0u, NewType, 10);
    EXPECT_FALSE(record->removedByPeer);
    local->setValue(4.f);
    EXPECT_EQ(typesOf(collect()), std::vector<quint32>{UpdateType});
}

TEST_F(AttributeRemoveReceiverTest, UnknownSymbolOrGoneAttributeCostsOneRecord)
{
    delete at(node, "local");
    collect();
    trace.clear();
    feed(receiver, Body() << 42u << 70u << 70u << 71u, RemoveType);
    EXPECT_EQ(at(node, "made"), nullptr);
    EXPECT_FALSE(storage.findByReadSymbol(70)->removedByPeer);
    EXPECT_EQ(storage.findByReadSymbol(70)->readType, 3u);
    EXPECT_EQ(trace.lines(), (QStringList{"AttributeRemoveHandler::handleBundle # Failed to find attribute with symbol 42",
                                          "AttributeRemoveHandler::handleBundle # Attribute 70 already removed",
                                          "AttributeRemoveHandler::handleBundle # Attribute 70 already removed"}));
}

} // namespace
