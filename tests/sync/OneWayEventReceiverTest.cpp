#include "ReceiverFixture.h"

#include "loomy/sync/OneWayEventReceiver.h"
#include "kestrel/BinaryData.h"

#include <QStringList>

#include <stdexcept>

namespace {

class OneWayEventReceiverTest : public ::testing::Test
{
protected:
    OneWayEventReceiverTest()
    {
        recvSymbols.define("ping", "ping", 40);
        recvSymbols.define("blob", "blob", 41);
        receiver.m_handler = [this](const QByteArray &name, Kestrel::BinaryData &data) {
            // The bytes the handler can see: the first total() of the data.
            calls << name + ':' + QByteArray(data.data(), int(data.total())).toHex();
        };
    }

    void apply(const Body &body)
    {
        const Loomy::Bundle bundle = makeBundle(body, EventType, 3);
        Loomy::BundleReader reader(bundle);
        receiver.handleBundle(reader);
        EXPECT_EQ(reader.position(), unsigned(bundle.size()));
    }

    Kestrel::SymbolRegistry recvSymbols;
    Loomy::OneWayEventReceiver receiver{recvSymbols};
    QList<QByteArray> calls;
    TraceCapture trace;
};

TEST_F(OneWayEventReceiverTest, EmptyBodyDoesNothing)
{
    apply(Body());
    EXPECT_TRUE(calls.isEmpty());
}

TEST_F(OneWayEventReceiverTest, EventsReachTheHandlerInOrderWithTheirExactPayloads)
{
    Body body;
    body.word(41).block(QByteArray("\x01\x02\x03\x04\x05", 5));  // padded to 8
    body.word(40).word(0);                                        // no payload at all
    body.word(41).block(QByteArray("\0\0\0\0", 4));
    apply(body);

    EXPECT_EQ(calls, (QList<QByteArray>{"blob:0102030405", "ping:", "blob:00000000"}));
    EXPECT_TRUE(trace.lines().isEmpty());
}

TEST_F(OneWayEventReceiverTest, UnknownSymbolIsWarnedAndSkipped)
{
    Body body;
    body.word(77).block("lost");
    body.word(40).word(0);
    apply(body);

    EXPECT_EQ(calls, QList<QByteArray>{"ping:"});
    EXPECT_EQ(trace.lines(Kestrel::Trace::Level::Warning),
              QStringList{"OneWayEventReceiver::handleBundle # Symbol 77 not found"});
}

TEST_F(OneWayEventReceiverTest, WithoutHandlerEventsAreReadAndDropped)
{
    receiver.m_handler = nullptr;
    Body body;
    body.word(41).block("abc").word(40).word(0);
    apply(body);
    EXPECT_TRUE(trace.lines().isEmpty());
}

TEST_F(OneWayEventReceiverTest, PayloadLongerThanTheBundleThrowsBeforeTheHandler)
{
    Body body;
    body.word(40).word(0).word(41).word(64).word(0);
    const Loomy::Bundle bundle = makeBundle(body, EventType, 3);
    Loomy::BundleReader reader(bundle);
    EXPECT_THROW(receiver.handleBundle(reader), std::out_of_range);
    EXPECT_EQ(calls, QList<QByteArray>{"ping:"});
}

} // namespace
