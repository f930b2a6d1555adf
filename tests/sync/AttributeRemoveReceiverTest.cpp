#include "ReceiverFixture.h"

#include "loomy/sync/AttributeRemoveReceiver.h"
#include "loomy/sync/NewAttributeReceiver.h"

#include "tamarack/AttributeAlias.h"

using Loomy::LoomySessionAttribute;
using Loomy::NodeWatcher;

namespace {

class AttributeRemoveReceiverTest : public ReceiverFixture
{
protected:
    AttributeRemoveReceiverTest()
    {
        local = new FloatAttr(&node, "local", 1.f);
        announceLocalTree();
        newReceiver.setCreateMissingAttributes(true);
        peerSymbol(70, "local");
        peerSymbol(71, "made");
        // The peer announces both: "local" exists here, "made" is made for the peer.
        Body body;
        body.word(70).word(3).word(4).word(0);
        body.word(71).word(3).word(4).word(1).f32(2.f);
        const Loomy::Bundle bundle = makeBundle(body, NewType, 4);
        Loomy::BundleReader reader(bundle);
        newReceiver.handleBundle(reader);
        collect();
        heard.clear();
        localRecord = storage.findByReadSymbol(70);
        madeRecord = storage.findByReadSymbol(71);
    }

    void apply(const Body &body)
    {
        const Loomy::Bundle bundle = makeBundle(body, RemoveType, 9);
        Loomy::BundleReader reader(bundle);
        receiver.handleBundle(reader);
        EXPECT_EQ(reader.position(), unsigned(bundle.size()));
    }

    void expectRemovedByPeer(const LoomySessionAttribute &record, quint32 readSymbol)
    {
        EXPECT_TRUE(record.removedByPeer);
        EXPECT_EQ(record.readType, 0u);
        EXPECT_EQ(record.lastReceivedId, 0u);
        EXPECT_EQ(record.lastSentId, 0u);
        EXPECT_EQ(record.readSymbol, readSymbol);
        EXPECT_EQ(storage.findByReadSymbol(readSymbol), &record);
        // What still comes for it is stepped over by the announced size.
        const QByteArray bytes(8, '\0');
        Loomy::BundleReaderCore reader(bytes);
        record.deserializer(reader);
        EXPECT_EQ(reader.position(), 4u);
    }

    FloatAttr *local = nullptr;
    LoomySessionAttribute *localRecord = nullptr;
    LoomySessionAttribute *madeRecord = nullptr;
    Loomy::NewAttributeReceiver newReceiver{node, storage, recvSymbols, types, *sender};
    Loomy::AttributeRemoveReceiver receiver{node, storage, *sender};
};

TEST_F(AttributeRemoveReceiverTest, EmptyBodyDoesNothing)
{
    apply(Body());
    EXPECT_NE(node.attribute("made"), nullptr);
    EXPECT_FALSE(madeRecord->removedByPeer);
    EXPECT_TRUE(heard.empty());
}

TEST_F(AttributeRemoveReceiverTest, AttributeMadeForThePeerGoesWithoutEcho)
{
    ASSERT_NE(node.attribute("made"), nullptr);
    Body body;
    apply(body.word(71));

    EXPECT_EQ(node.attribute("made"), nullptr);
    EXPECT_EQ(heardCount(NodeWatcher::ATTRIBUTE_REMOVED, madeRecord->writeSymbol), 1);
    expectRemovedByPeer(*madeRecord, 71);
    EXPECT_EQ(countOfType(collect(), RemoveType), 0);
    EXPECT_TRUE(trace.lines().isEmpty()) << trace.lines().join('\n').toStdString();
}

TEST_F(AttributeRemoveReceiverTest, OwnAttributeStaysAndIsNotSentUntilAnnouncedAgain)
{
    Body body;
    apply(body.word(70));

    EXPECT_EQ(node.attribute("local"), local);
    expectRemovedByPeer(*localRecord, 70);
    local->setValue(3.f);
    EXPECT_EQ(countOfType(collect(), UpdateType), 0);

    // The peer has the path again: its changes travel once more.
    Body again;
    again.word(70).word(3).word(4).word(0);
    const Loomy::Bundle bundle = makeBundle(again, NewType, 10);
    Loomy::BundleReader reader(bundle);
    newReceiver.handleBundle(reader);
    EXPECT_FALSE(localRecord->removedByPeer);
    local->setValue(4.f);
    EXPECT_EQ(countOfType(collect(), UpdateType), 1);
}

TEST_F(AttributeRemoveReceiverTest, UnknownSymbolCostsOneRecord)
{
    Body body;
    apply(body.word(42).word(71));

    EXPECT_EQ(node.attribute("made"), nullptr);
    EXPECT_EQ(trace.lines(), QStringList{"AttributeRemoveHandler::handleBundle # Failed to find attribute with symbol 42"});
}

TEST_F(AttributeRemoveReceiverTest, AttributeAlreadyGoneLeavesTheRecord)
{
    delete node.attribute("made");
    collect();
    trace.clear();

    Body body;
    apply(body.word(71).word(71));

    EXPECT_FALSE(madeRecord->removedByPeer);
    EXPECT_EQ(madeRecord->readType, 3u);
    EXPECT_EQ(trace.lines(), (QStringList{"AttributeRemoveHandler::handleBundle # Attribute 71 already removed",
                                          "AttributeRemoveHandler::handleBundle # Attribute 71 already removed"}));
}

} // namespace
