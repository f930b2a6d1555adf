#include "SyncTestUtil.h"

#include "loomy/sync/OneWayEventReceiver.h"
#include "kestrel/BinaryData.h"

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
            calls << name + ':' + QByteArray(data.data(), int(data.total())).toHex(); // what the handler can see
        };
    }

    Kestrel::SymbolRegistry recvSymbols;
    Loomy::OneWayEventReceiver receiver{recvSymbols};
    QList<QByteArray> calls;
    TraceCapture trace;
};

// Payloads padded to 4 or empty, in order; an unknown symbol is warned about and skipped.
TEST_F(OneWayEventReceiverTest, EventsReachTheHandlerInOrderWithTheirExactPayloads)
{
    feed(receiver, Body().entry(41, "\x01\x02\x03\x04\x05").entry(77, "lost").entry(40, "").entry(41, QByteArray(4, '\0')), EventType);
    EXPECT_EQ(calls, (QList<QByteArray>{"blob:0102030405", "ping:", "blob:00000000"}));
    EXPECT_EQ(trace.lines(Kestrel::Trace::Level::Warning), QStringList{"OneWayEventReceiver::handleBundle # Symbol 77 not found"});
    EXPECT_EQ(trace.lines().size(), 1);
    receiver.m_handler = nullptr; // without a handler events are read and dropped
    feed(receiver, Body().entry(41, "abc").entry(40, ""), EventType);
    EXPECT_EQ(trace.lines().size(), 1);
}

TEST_F(OneWayEventReceiverTest, PayloadLongerThanTheBundleThrowsBeforeTheHandler)
{
    EXPECT_THROW(feed(receiver, Body() << 40u << 0u << 41u << 64u << 0u, EventType), std::out_of_range);
    EXPECT_EQ(calls, QList<QByteArray>{"ping:"});
}

} // namespace
