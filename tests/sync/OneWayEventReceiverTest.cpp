#include "SyncTestUtil.h"

#include "loomy/sync/OneWayEventReceiver.h"

#include <stdexcept>

// The handler sees each payload as sent, in order; an unknown symbol is warned about and skipped;
// without a handler events are read and dropped; a payload past the end throws before the handler.
TEST(OneWayEventReceiver, EventsReachTheHandlerInOrderWithTheirExactPayloads)
{
    TraceCapture trace;
    Kestrel::SymbolRegistry symbols;
    symbols.define("ping", "ping", 40);
    symbols.define("blob", "blob", 41);
    Loomy::OneWayEventReceiver receiver{symbols};
    QList<QByteArray> calls;
    receiver.m_handler = [&](const QByteArray &name, Kestrel::BinaryData &data) { calls << name + ':' + hexOf(data); };
    feed(receiver, Body().entry(41, "\x01\x02\x03\x04\x05").entry(77, "lost").entry(40, "").entry(41, QByteArray(4, '\0')), EventType);
    EXPECT_EQ(calls, (QList<QByteArray>{"blob:0102030405", "ping:", "blob:00000000"}));
    EXPECT_EQ(trace.lines(Kestrel::Trace::Level::Warning), QStringList{"OneWayEventReceiver::handleBundle # Symbol 77 not found"});
    EXPECT_THROW(feed(receiver, Body() << 40u << 0u << 41u << 64u << 0u, EventType), std::out_of_range);
    EXPECT_EQ(calls.size(), 4);
    receiver.m_handler = nullptr;
    feed(receiver, Body().entry(41, "abc").entry(40, ""), EventType);
    EXPECT_EQ(trace.lines().size(), 1);
}
