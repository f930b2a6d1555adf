#include "SyncTestUtil.h"

#include "kestrel/BinaryData.h"

#include <atomic>
#include <map>
#include <thread>

using Loomy::LoomySessionAttribute;
using Loomy::NodeWatcher;

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
// "initialized" goes once, and an update with nothing to say uses no id.
TEST_F(NodeChangeSenderTest, FirstUpdateIsSymbolsThenInitialValuesThenInitialized)
{
    add("f", 1.5f);
    add("n/i", 7);
    start();
    const std::vector<Loomy::Bundle> out = collect();
    const quint32 initialized = sym("initialized");
    ASSERT_EQ(typesOf(out), (Types{SymbolType, NewType, EventType}));
    EXPECT_EQ(hex(out[0]), Body().entry(sym("f"), "f").entry(sym("n/i"), "n/i").entry(initialized, "initialized").bundle(SymbolType, 2));
    EXPECT_EQ(hex(out[1]), (Body() << sym("f") << 3u << 4u << 1u << 1.5f << sym("n/i") << 9u << 4u << 1u << 7).bundle(NewType, 3));
    EXPECT_EQ(hex(out[2]), (Body() << initialized << 0u).bundle(EventType, 4));
    EXPECT_EQ(record("f").lastSentId, 3u);
    EXPECT_TRUE(collect().empty());
    EXPECT_EQ(dispatcher.nextBundleId(), 5u);
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
    EXPECT_FALSE(record("f").serializer);
    EXPECT_TRUE(record("f").resendValue);
}

// One bundle per run of one type, in the compressed order.
TEST_F(NodeChangeSenderTest, OneBundlePerRunInTheCompressedOrder)
{
    auto *x = add("x", 1.0f);
    auto *y = add("y", 2.0f);
    started();
    add("p", 3.0f);
    add("q", 4);
    node.update();
    x->setValue(5.0f);
    delete y;
    const std::vector<Loomy::Bundle> out = collect();
    ASSERT_EQ(typesOf(out), (Types{SymbolType, NewType, UpdateType, RemoveType}));
    EXPECT_EQ(hex(out[0]), Body().entry(sym("p"), "p").entry(sym("q"), "q").bundle(SymbolType, 5));
    EXPECT_EQ(hex(out[1]), (Body() << sym("p") << 3u << 4u << 1u << 3.0f << sym("q") << 9u << 4u << 1u << 4).bundle(NewType, 6));
    EXPECT_EQ(hex(out[2]), (Body() << sym("x") << 5.0f).bundle(UpdateType, 7));
    EXPECT_EQ(hex(out[3]), (Body() << sym("y")).bundle(RemoveType, 8));
}

// Whether an announcement carries the value. The record stands for what the receivers leave: a
// path the peer announced (lastReceivedId set) and, unless it was here first, made for it.
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
    EXPECT_EQ(known->lastSentId, 5u);
}
INSTANTIATE_TEST_SUITE_P(Announcements, ValueRule, ::testing::ValuesIn(s_valueRules), [](const auto &i) { return std::string(i.param.name); });

// An attribute without serialiser costs its own record and a log line each time; its symbol still
// goes out.
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

TEST_F(NodeChangeSenderTest, IgnoredChangeIsNotSentAndTheEntryIsUsedUpOrStopped)
{
    auto *f = add("f", 1.0f);
    started();
    const NodeWatcher::Event changed{NodeWatcher::ATTRIBUTE_CHANGED, sym("f")};
    sender->ignoreOne(changed);
    sender->ignoreOne(changed);
    EXPECT_EQ(trace.lines(), QStringList{"NodeChangeSender::ignoreOne # Called for an already ignored symbol"});
    f->setValue(2.0f); // as a receiver applies a remote value
    EXPECT_FALSE(sender->stopIgnoring(changed));
    EXPECT_TRUE(collect().empty());
    sender->ignoreOne(changed);
    EXPECT_TRUE(sender->stopIgnoring(changed));
    f->setValue(3.0f);
    EXPECT_EQ(typesOf(collect()), Types{UpdateType});
}

// A path with flags SYNC_NONE gets no record; opened later, its changes find none and are reported.
TEST_F(NodeChangeSenderTest, PathWithSyncFlagNoneIsNotSent)
{
    node.setSyncFlags(Loomy::RemoteNode::makeRegExp("hidden/**"), Loomy::SyncFlags::SYNC_NONE);
    auto *a = add("hidden/a", 1.0f);
    started();
    a->setValue(2.0f);
    EXPECT_TRUE(collect().empty());
    EXPECT_EQ(storage.findByName("hidden/a"), nullptr);
    EXPECT_TRUE(trace.lines().isEmpty());
    node.updateSyncFlags(Loomy::RemoteNode::makeRegExp("hidden/a"), Loomy::SyncFlags::SYNC_DEFAULT);
    a->setValue(3.0f);
    EXPECT_TRUE(collect().empty());
    EXPECT_EQ(trace.lines(), QStringList{"NodeChangeSender::onAttributeChange # Could not find a session attribute for the given change"});
}

// Re-added after a removal in an earlier update, an attribute carries its value again without a
// symbol, and the peer's reader (a dummy while it was gone) writes it once more.
struct ReAddCase { const char *name; bool localOrigin; quint32 peerType, peerSize; QByteArray peerValue; float after; QStringList log; };
const ReAddCase s_reAdds[] = {
    {"OwnAttribute", true, 3, 4, (Body() << 7.5f).bytes(), 7.5f, {}},
    {"MadeForThePeer", false, 3, 4, (Body() << 7.5f).bytes(), 7.5f, {}},
    {"PeerTypeThatDoesntFitFallsBackToADummy", true, 1, 1, QByteArray("\1\0\0\0\xff", 5), 6.0f,
     {"NodeChangeSender::sendAdded # Tried to recreate a deserializer but failed. Will set it to null deserializer"}},
};
class ReAddition : public NodeChangeSenderTest, public ::testing::WithParamInterface<ReAddCase> {};

TEST_P(ReAddition, CarriesTheValueAgain)
{
    const ReAddCase &c = GetParam();
    add("r", 1.0f);
    started();
    LoomySessionAttribute &r = record("r");
    r.localOrigin = c.localOrigin;
    r.lastReceivedId = 4; // the peer has spoken about it
    r.readType = c.peerType;
    r.readSize = c.peerSize;
    delete node.attribute("r");
    EXPECT_EQ(typesOf(collect()), Types{RemoveType});
    auto *back = add("r", 6.0f);
    EXPECT_EQ(only(), (Body() << sym("r") << 3u << 4u << 1u << 6.0f).bundle(NewType, 6));
    EXPECT_FALSE(r.resendValue);
    EXPECT_EQ(skipped(r, c.peerValue), 4u);
    EXPECT_EQ(back->value(), c.after);
    EXPECT_EQ(trace.lines(), c.log);
}
INSTANTIATE_TEST_SUITE_P(Origins, ReAddition, ::testing::ValuesIn(s_reAdds), [](const auto &i) { return std::string(i.param.name); });

// Events go after the changes and their names' symbols after those of the changes; a payload is
// the first total() bytes of its buffer, whatever the buffer's position.
TEST_F(NodeChangeSenderTest, EventBodyAndItsSymbols)
{
    started();
    add("f", 1.0f);
    node.update();
    Kestrel::BinaryData payload, odd, none;
    payload.writeInt32(0x01020304);
    node.eventProcess("ping", payload);
    odd.writeBlob("abcdef", 6); // 8 + 8 bytes; the first 10 are the payload
    odd.setTotal(10);
    node.eventProcess("odd", odd);
    node.eventProcess("ping", none);
    const std::vector<Loomy::Bundle> out = collect();
    ASSERT_EQ(typesOf(out), (Types{SymbolType, NewType, EventType}));
    EXPECT_EQ(hex(out[0]), Body().entry(sym("f"), "f").entry(sym("ping"), "ping").entry(sym("odd"), "odd").bundle(SymbolType, 4));
    EXPECT_EQ(hex(out[2]), Body().entry(sym("ping"), QByteArray(payload.data(), 8)).entry(sym("odd"), QByteArray(odd.data(), 10))
                               .entry(sym("ping"), QByteArray()).bundle(EventType, 6));
    node.eventProcess("ping", none); // known now: no symbol bundle
    EXPECT_EQ(typesOf(collect()), Types{EventType});
}

// The node may go first; the sender must then leave it alone (the address sanitizer sees a touch).
TEST_F(NodeChangeSenderTest, NodeDeletedBeforeTheSenderIsNotTouchedAgain)
{
    auto *other = new Loomy::RemoteNode(&app, "other");
    Loomy::AttributeStorage otherStorage(*other);
    auto lone = std::make_shared<Loomy::NodeChangeSender>(*other, otherStorage, types);
    delete other;
    lone.reset();
    EXPECT_TRUE(trace.lines().isEmpty());
}

// Four threads change their own attributes while the frame thread collects: every attribute's last
// value leaves in the last record that names it.
TEST_F(NodeChangeSenderTest, ChangesFromManyThreadsLeaveWithTheirLastValue)
{
    constexpr int threads = 4, perThread = 16, rounds = 200;
    std::vector<FloatAttr *> attributes;
    for (int i = 0; i < threads * perThread; ++i)
        attributes.push_back(add("t/" + QByteArray::number(i), 0.0f));
    started();
    std::atomic<int> running{threads};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&, t] {
            for (int round = 1; round <= rounds; ++round)
                for (int i = 0; i < perThread; ++i)
                    attributes[t * perThread + i]->setValue(float(round));
            --running;
        });
    std::map<quint32, float> lastSent;
    for (bool last = false; !last;) {
        last = running.load() == 0; // one more pass after the workers are done
        for (const Loomy::Bundle &bundle : collect()) {
            EXPECT_EQ(bundle.messageType(), quint32(UpdateType));
            for (Loomy::BundleReader reader(bundle); reader.position() < unsigned(bundle.size());) {
                const quint32 symbol = reader.read<quint32>();
                lastSent[symbol] = reader.read<float>();
            }
        }
    }
    for (std::thread &worker : workers)
        worker.join();
    ASSERT_EQ(lastSent.size(), attributes.size());
    for (int i = 0; i < threads * perThread; ++i)
        EXPECT_EQ(lastSent[sym("t/" + QByteArray::number(i))], float(rounds)) << i;
}

} // namespace
