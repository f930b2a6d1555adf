#include "SyncTestUtil.h"

using Loomy::LoomySessionAttribute;

namespace {

class NodeChangeSenderTest : public SessionSide
{
protected:
    LoomySessionAttribute &record(const QByteArray &path) { return *storage.findByName(path); }
    // The one bundle of the next frame, in hex.
    std::string only()
    {
        const std::vector<Loomy::Bundle> out = collect();
        EXPECT_EQ(out.size(), 1u);
        return out.empty() ? std::string() : hex(out[0]);
    }
};

// The handshake took id 1. Float is type 3, int type 9, both of size 4; flags 1: a value follows.
// "initialized" goes once; an update with nothing to say uses no id; later, one bundle per run of
// one type, in the compressed order.
TEST_F(NodeChangeSenderTest, FirstUpdateThenOneBundlePerRun)
{
    auto *f = add("f", 1.5f);
    add("n/i", 7);
    start();
    std::vector<Loomy::Bundle> out = collect();
    const quint32 initialized = sym("initialized");
    ASSERT_EQ(typesOf(out), (Types{SymbolType, NewType, EventType}));
    EXPECT_EQ(hex(out[0]), Body().entry(sym("f"), "f").entry(sym("n/i"), "n/i").entry(initialized, "initialized").bundle(SymbolType, 2));
    EXPECT_EQ(hex(out[1]), (Body() << sym("f") << 3u << 4u << 1u << 1.5f << sym("n/i") << 9u << 4u << 1u << 7).bundle(NewType, 3));
    EXPECT_EQ(hex(out[2]), (Body() << initialized << 0u).bundle(EventType, 4));
    EXPECT_EQ(record("f").lastSentId, 3u);
    EXPECT_TRUE(collect().empty());
    add("p", 3.0f);
    add("q", 4);
    node.update();
    f->setValue(5.0f);
    delete at(node, "n/i");
    out = collect();
    ASSERT_EQ(typesOf(out), (Types{SymbolType, NewType, UpdateType, RemoveType}));
    EXPECT_EQ(hex(out[0]), Body().entry(sym("p"), "p").entry(sym("q"), "q").bundle(SymbolType, 5));
    EXPECT_EQ(hex(out[1]), (Body() << sym("p") << 3u << 4u << 1u << 3.0f << sym("q") << 9u << 4u << 1u << 4).bundle(NewType, 6));
    EXPECT_EQ(hex(out[2]), (Body() << sym("f") << 5.0f).bundle(UpdateType, 7));
    EXPECT_EQ(hex(out[3]), (Body() << sym("n/i")).bundle(RemoveType, 8));
    EXPECT_TRUE(trace.lines().isEmpty()) << trace.lines().join('\n').toStdString();
}

// Only the value at collection time leaves, acknowledging the last bundle received; a removal
// forgets the last send and books a resend.
TEST_F(NodeChangeSenderTest, UpdateAndRemoveBodies)
{
    auto *f = add("f", 1.5f);
    auto *s = add("s", QString("hello"));
    started();
    Loomy::Bundle incoming; // of a type nobody bound: dropped, but acknowledged
    incoming.stamp(77, 9, 0);
    Loomy::BundleReader reader(incoming);
    dispatcher.dispatchBundle(reader);
    f->setValue(2.25f);
    f->setValue(-4.0f);
    EXPECT_EQ(only(), (Body() << sym("f") << -4.0f).bundle(UpdateType, 5, 9));
    EXPECT_EQ(record("f").lastSentId, 5u);
    s->setValue("abcde");
    EXPECT_EQ(only(), Body().entry(sym("s"), "abcde").bundle(UpdateType, 6, 9));
    delete f;
    EXPECT_EQ(only(), (Body() << sym("f")).bundle(RemoveType, 7, 9));
    EXPECT_EQ(record("f").lastSentId, 0u);
    EXPECT_TRUE(record("f").resendValue);
}

// Whether an announcement carries the value, and so moves the staleness mark. The record stands
// for what the receivers leave: a path the peer announced (lastReceivedId set) and, unless it was
// here first, made for it.
struct ValueRuleCase { const char *name; bool localOrigin; quint32 lastReceivedId; bool changedLocally; quint32 flags; };
const ValueRuleCase s_valueRules[] = {
    {"OwnAndUnheardGoesWithValue", true, 0, false, 1},
    {"OwnButHeardGoesWithout", true, 2, false, 0},
    {"MadeForThePeerIsAnsweredWithout", false, 3, false, 0},
    {"MadeForThePeerAndChangedGoesWithValue", false, 3, true, 1},
    {"OwnHeardAndChangedGoesWithValue", true, 2, true, 1},
};
class ValueRule : public NodeChangeSenderTest, public ::testing::WithParamInterface<ValueRuleCase> {};
TEST_P(ValueRule, DecidesTheFlagsOfTheAnnouncement)
{
    const ValueRuleCase &c = GetParam();
    started();
    LoomySessionAttribute *known = storage.create("v");
    known->localOrigin = c.localOrigin;
    known->lastReceivedId = c.lastReceivedId;
    known->lastSentId = 2; // an earlier value of ours
    auto *v = add("v", 8.0f);
    if (c.changedLocally) {
        node.update();
        v->setValue(9.5f);
    }
    const std::vector<Loomy::Bundle> out = collect();
    ASSERT_EQ(typesOf(out), (Types{SymbolType, NewType}));
    Body body;
    body << sym("v") << 3u << 4u << c.flags;
    EXPECT_EQ(hex(out[1]), (c.flags ? body << v->value() : body).bundle(NewType, 5));
    // Only a value moves the staleness mark: an answer without one must not make the peer's
    // next change, written before the answer arrived, look stale.
    EXPECT_EQ(known->lastSentId, c.flags ? 5u : 2u);
}
INSTANTIATE_TEST_SUITE_P(Announcements, ValueRule, ::testing::ValuesIn(s_valueRules), [](const auto &i) { return std::string(i.param.name); });

// An attribute without serialiser costs its own record and a log line each time; its symbol goes out.
TEST_F(NodeChangeSenderTest, UnserializableAttributeCostsOnlyItsOwnRecord)
{
    started();
    add("a", 1.0f);
    auto *plain = new Tamarack::Attribute;
    ASSERT_TRUE(node.addAttribute("plain", plain));
    add("b", 2.0f);
    const std::vector<Loomy::Bundle> out = collect();
    ASSERT_EQ(typesOf(out), (Types{SymbolType, NewType}));
    EXPECT_EQ(hex(out[0]), Body().entry(sym("a"), "a").entry(sym("plain"), "plain").entry(sym("b"), "b").bundle(SymbolType, 4));
    EXPECT_EQ(hex(out[1]), (Body() << sym("a") << 3u << 4u << 1u << 1.0f << sym("b") << 3u << 4u << 1u << 2.0f).bundle(NewType, 5));
    plain->emitChange();
    EXPECT_TRUE(collect().empty());
    EXPECT_EQ(trace.lines(), (QStringList{"NodeChangeSender::sendAdded # Found an attribute that we can't serialize at 'plain'. Ignoring",
                                          "NodeChangeSender::sendChanged # Found an attribute that we can't serialize at 'plain'. Ignoring"}));
}

// Events go after the changes, their symbols after those of the changes; a payload is a copy of the
// first total() bytes of its buffer.
TEST_F(NodeChangeSenderTest, EventBodyAndItsSymbols)
{
    started();
    add("f", 1.0f);
    node.update();
    Kestrel::BinaryData payload, odd, none;
    payload.writeInt32(0x01020304);
    const QByteArray ping(payload.data(), 8);
    node.eventProcess("ping", payload);
    payload.rewind();
    payload.writeInt32(0); // the event holds a copy
    odd.writeBlob("abcdef", 6); // 8 + 8 bytes; the first 10 are the payload
    odd.setTotal(10);
    node.eventProcess("odd", odd);
    node.eventProcess("ping", none);
    const std::vector<Loomy::Bundle> out = collect();
    ASSERT_EQ(typesOf(out), (Types{SymbolType, NewType, EventType}));
    EXPECT_EQ(hex(out[0]), Body().entry(sym("f"), "f").entry(sym("ping"), "ping").entry(sym("odd"), "odd").bundle(SymbolType, 4));
    EXPECT_EQ(hex(out[2]), Body().entry(sym("ping"), ping).entry(sym("odd"), QByteArray(odd.data(), 10))
                               .entry(sym("ping"), QByteArray()).bundle(EventType, 6));
    node.eventProcess("ping", none); // known now: no symbol bundle
    EXPECT_EQ(typesOf(collect()), Types{EventType});
}

} // namespace
