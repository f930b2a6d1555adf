#include "loomy/sync/NodeChangeSender.h"

#include "loomy/bundle/BundleDispatcher.h"
#include "loomy/bundle/BundleReader.h"
#include "loomy/sync/AttributeStorage.h"
#include "loomy/sync/RemoteNode.h"
#include "loomy/types/TypeRegistry.h"

#include "common/TraceCapture.h"
#include "kestrel/BinaryData.h"
#include "kestrel/SymbolRegistry.h"
#include "tamarack/AttributeT.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

using Loomy::AttributeStorage;
using Loomy::Bundle;
using Loomy::BundleDispatcher;
using Loomy::BundleReader;
using Loomy::LoomySessionAttribute;
using Loomy::NodeChangeSender;
using Loomy::NodeWatcher;
using Loomy::RemoteNode;
using Tamarack::Node;
using FloatAttr = Tamarack::AttributeT<float>;
using IntAttr = Tamarack::AttributeT<int>;

namespace {

// The numbers a fresh dispatcher hands out for the sender's registrations, in their order.
enum : quint32 { SYMBOLS = 1, NEW = 2, UPDATE = 3, REMOVE = 4, EVENT = 5 };

const QString s_cantSerializeAdded = "NodeChangeSender::sendAdded # Found an attribute that we can't serialize at '%1'. Ignoring";
const QString s_cantSerializeChanged = "NodeChangeSender::sendChanged # Found an attribute that we can't serialize at '%1'. Ignoring";

std::string hex(const QByteArray &bytes)
{
    return bytes.toHex(' ').toStdString();
}

// Little-endian words and raw bytes, for writing expected wire images.
class Wire
{
public:
    Wire &operator<<(quint32 word)
    {
        m_bytes.append(reinterpret_cast<const char *>(&word), 4);
        return *this;
    }
    Wire &operator<<(float value)
    {
        m_bytes.append(reinterpret_cast<const char *>(&value), 4);
        return *this;
    }
    // Length word, bytes, zero padding.
    Wire &block(const QByteArray &bytes)
    {
        *this << quint32(bytes.size());
        m_bytes += bytes;
        m_bytes.append((4 - bytes.size() % 4) % 4, '\0');
        return *this;
    }
    // A symbol record or an event record: a number, then a block.
    Wire &entry(quint32 symbol, const QByteArray &bytes) { return (*this << symbol).block(bytes); }
    QByteArray bundle(quint32 type, quint32 id, quint32 ack = 0) const
    {
        Wire header;
        header << quint32(m_bytes.size()) << type << id << ack;
        return header.m_bytes + m_bytes;
    }

private:
    QByteArray m_bytes;
};

std::vector<quint32> types(const std::vector<Bundle> &bundles)
{
    std::vector<quint32> out;
    for (const Bundle &bundle : bundles)
        out.push_back(bundle.messageType());
    return out;
}

class NodeChangeSenderTest : public ::testing::Test
{
protected:
    template <typename A, typename V>
    A *add(const QByteArray &path, const V &value)
    {
        auto *attribute = new A;
        attribute->setValue(value);
        EXPECT_TRUE(node.addDeepAttribute(path, attribute));
        return attribute;
    }
    // What Core does when the session starts: the sender listens before the node's update flushes
    // the watcher's queue, so attributes added before the start reach it from the queue and again
    // from sendInitialValues' walk; each must still be announced once.
    void start()
    {
        sender = std::make_shared<NodeChangeSender>(node, storage, registry);
        dispatcher.registerSender(sender);
        node.update();
        sender->sendInitialValues();
    }
    // One frame: the node raises its queued additions, then the session collects. The handshake
    // bundle (type 0, the dispatcher's own) is left out.
    std::vector<Bundle> frame()
    {
        node.update();
        std::vector<Bundle> out;
        for (const Bundle &bundle : dispatcher.collectUpdates())
            if (bundle.messageType() != 0)
                out.push_back(bundle);
        return out;
    }
    // Starts and takes the first update away, for tests about later ones.
    void started()
    {
        start();
        ASSERT_FALSE(frame().empty());
        trace.clear();
    }
    quint32 sym(const QByteArray &name) { return node.symbols().lookup(name); }
    LoomySessionAttribute &record(const QByteArray &path)
    {
        LoomySessionAttribute *r = storage.findByName(path);
        EXPECT_NE(r, nullptr) << path.constData();
        static LoomySessionAttribute none;
        return r ? *r : none;
    }

    // Declared so that the sender goes first (with the dispatcher) and the tree last.
    Node app;
    RemoteNode &node = *new RemoteNode(&app, "remote");
    Loomy::TypeRegistry registry;
    AttributeStorage storage{node};
    BundleDispatcher dispatcher;
    std::shared_ptr<NodeChangeSender> sender;
    TraceCapture trace;
};

TEST_F(NodeChangeSenderTest, FirstUpdateIsSymbolsThenInitialValuesThenInitialized)
{
    add<FloatAttr>("f", 1.5f);
    add<IntAttr>("n/i", 7);
    start();
    const std::vector<Bundle> bundles = frame();
    const quint32 initialized = sym("initialized");
    ASSERT_NE(initialized, 0u);
    ASSERT_EQ(bundles.size(), 3u);
    // The handshake took id 1.
    EXPECT_EQ(hex(bundles[0].data()), hex(Wire()
                                              .entry(sym("f"), "f")
                                              .entry(sym("n/i"), "n/i")
                                              .entry(initialized, "initialized")
                                              .bundle(SYMBOLS, 2)));
    EXPECT_EQ(hex(bundles[1].data()), hex((Wire() << sym("f") << 3u << 4u << 1u << 1.5f
                                                  << sym("n/i") << 9u << 4u << 1u << 7u).bundle(NEW, 3)));
    EXPECT_EQ(hex(bundles[2].data()), hex((Wire() << initialized << 0u).bundle(EVENT, 4)));
    EXPECT_TRUE(trace.lines().isEmpty()) << trace.lines().join('\n').toStdString();

    EXPECT_EQ(record("f").writeType, 3u);
    EXPECT_EQ(record("f").writeSize, 4u);
    EXPECT_EQ(record("f").lastSentId, 3u);
    EXPECT_TRUE(record("f").serializer);
}

TEST_F(NodeChangeSenderTest, AnUpdateWithNothingProducesNothing)
{
    started();
    const unsigned next = dispatcher.nextBundleId();
    EXPECT_TRUE(frame().empty());
    EXPECT_EQ(dispatcher.nextBundleId(), next);
}

TEST_F(NodeChangeSenderTest, InitializedIsSentOnceEvenWithAnEmptyTree)
{
    start();
    const std::vector<Bundle> first = frame();
    ASSERT_EQ(types(first), (std::vector<quint32>{SYMBOLS, EVENT}));
    EXPECT_EQ(hex(first[1].data()), hex((Wire() << sym("initialized") << 0u).bundle(EVENT, 3)));
    EXPECT_TRUE(frame().empty());
}

TEST_F(NodeChangeSenderTest, UpdateAndRemoveBodies)
{
    auto *f = add<FloatAttr>("f", 1.5f);
    add<Tamarack::AttributeT<QString>>("s", QString("hello"));
    started();
    f->setValue(2.25f);
    f->setValue(-4.0f); // only the value at collection time leaves
    std::vector<Bundle> bundles = frame();
    ASSERT_EQ(bundles.size(), 1u);
    EXPECT_EQ(hex(bundles[0].data()), hex((Wire() << sym("f") << -4.0f).bundle(UPDATE, 5)));
    EXPECT_EQ(record("f").lastSentId, 5u);

    static_cast<Tamarack::AttributeT<QString> *>(node.attribute("s"))->setValue("abcde");
    bundles = frame();
    ASSERT_EQ(bundles.size(), 1u);
    EXPECT_EQ(hex(bundles[0].data()), hex(Wire().entry(sym("s"), "abcde").bundle(UPDATE, 6)));

    delete f;
    bundles = frame();
    ASSERT_EQ(bundles.size(), 1u);
    EXPECT_EQ(hex(bundles[0].data()), hex((Wire() << sym("f")).bundle(REMOVE, 7)));
    EXPECT_EQ(record("f").lastSentId, 0u);
    EXPECT_FALSE(record("f").serializer);
    EXPECT_TRUE(record("f").resendValue);
    EXPECT_TRUE(trace.lines().isEmpty()) << trace.lines().join('\n').toStdString();
}

TEST_F(NodeChangeSenderTest, AckOfTheOutputIsStamped)
{
    started();
    // A bundle from the peer with id 9, of a type nobody bound: dropped, but acknowledged.
    Bundle incoming;
    incoming.stamp(77, 9, 0);
    BundleReader reader(incoming);
    dispatcher.dispatchBundle(reader);
    trace.clear();
    auto *f = add<FloatAttr>("f", 1.0f);
    f->setValue(2.0f);
    const std::vector<Bundle> bundles = frame();
    ASSERT_EQ(types(bundles), (std::vector<quint32>{SYMBOLS, NEW}));
    for (const Bundle &bundle : bundles)
        EXPECT_EQ(bundle.ackBundleId(), 9u);
}

TEST_F(NodeChangeSenderTest, TwoAddsOneChangeOneRemoveGiveOneBundlePerRun)
{
    auto *x = add<FloatAttr>("x", 1.0f);
    auto *y = add<FloatAttr>("y", 2.0f);
    started();
    add<FloatAttr>("p", 3.0f);
    add<IntAttr>("q", 4);
    node.update();
    x->setValue(5.0f);
    delete y;
    const std::vector<Bundle> bundles = frame();
    ASSERT_EQ(types(bundles), (std::vector<quint32>{SYMBOLS, NEW, UPDATE, REMOVE}));
    EXPECT_EQ(hex(bundles[0].data()), hex(Wire().entry(sym("p"), "p").entry(sym("q"), "q").bundle(SYMBOLS, 5)));
    EXPECT_EQ(hex(bundles[1].data()), hex((Wire() << sym("p") << 3u << 4u << 1u << 3.0f
                                                  << sym("q") << 9u << 4u << 1u << 4u).bundle(NEW, 6)));
    EXPECT_EQ(hex(bundles[2].data()), hex((Wire() << sym("x") << 5.0f).bundle(UPDATE, 7)));
    EXPECT_EQ(hex(bundles[3].data()), hex((Wire() << sym("y")).bundle(REMOVE, 8)));
}

// A change ahead of an addition of another attribute, then a second change: three runs.
TEST_F(NodeChangeSenderTest, RunsFollowTheCompressedOrder)
{
    auto *x = add<FloatAttr>("x", 1.0f);
    auto *z = add<FloatAttr>("z", 1.0f);
    started();
    x->setValue(2.0f);
    add<FloatAttr>("p", 3.0f);
    node.update();
    z->setValue(4.0f);
    const std::vector<Bundle> bundles = frame();
    ASSERT_EQ(types(bundles), (std::vector<quint32>{SYMBOLS, UPDATE, NEW, UPDATE}));
    EXPECT_EQ(hex(bundles[1].data()), hex((Wire() << sym("x") << 2.0f).bundle(UPDATE, 6)));
    EXPECT_EQ(hex(bundles[3].data()), hex((Wire() << sym("z") << 4.0f).bundle(UPDATE, 8)));
}

// The value rule of an announcement. The record stands for what the receivers leave behind:
// a path the peer announced (lastReceivedId set) and, unless it was here first, made for it.
struct ValueRuleCase
{
    const char *name;
    bool localOrigin;
    quint32 lastReceivedId;
    bool changedLocally;     // a change behind the addition, in the same update
    quint32 flags;
};
const ValueRuleCase s_valueRules[] = {
    {"OwnAndUnheardGoesWithValue", true, 0, false, 1},
    {"OwnButHeardGoesWithout", true, 2, false, 0},
    {"MadeForThePeerIsAnsweredWithout", false, 3, false, 0},
    {"MadeForThePeerAndChangedGoesWithValue", false, 3, true, 1},
    {"OwnHeardAndChangedGoesWithValue", true, 2, true, 1},
};
void PrintTo(const ValueRuleCase &c, std::ostream *os)
{
    *os << c.name;
}

class ValueRule : public NodeChangeSenderTest, public ::testing::WithParamInterface<ValueRuleCase> {};

TEST_P(ValueRule, DecidesTheFlagsOfTheAnnouncement)
{
    const ValueRuleCase &c = GetParam();
    started();
    LoomySessionAttribute *known = storage.create("v");
    known->localOrigin = c.localOrigin;
    known->lastReceivedId = c.lastReceivedId;
    auto *v = add<FloatAttr>("v", 8.0f);
    if (c.changedLocally) {
        node.update();
        v->setValue(9.5f);
    }
    const std::vector<Bundle> bundles = frame();
    ASSERT_EQ(types(bundles), (std::vector<quint32>{SYMBOLS, NEW}));
    Wire body;
    body << sym("v") << 3u << 4u << c.flags;
    if (c.flags)
        body << (c.changedLocally ? 9.5f : 8.0f);
    EXPECT_EQ(hex(bundles[1].data()), hex(body.bundle(NEW, 5)));
    EXPECT_EQ(known->lastSentId, 5u);
}

INSTANTIATE_TEST_SUITE_P(Announcements, ValueRule, ::testing::ValuesIn(s_valueRules),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(NodeChangeSenderTest, UnserializableAttributeLogsEachTimeWhileItsSymbolStillGoesOut)
{
    started();
    auto *plain = new Tamarack::Attribute;
    ASSERT_TRUE(node.addAttribute("plain", plain));
    const unsigned next = dispatcher.nextBundleId();
    std::vector<Bundle> bundles = frame();
    ASSERT_EQ(types(bundles), (std::vector<quint32>{SYMBOLS}));
    EXPECT_EQ(hex(bundles[0].data()), hex(Wire().entry(sym("plain"), "plain").bundle(SYMBOLS, next)));
    EXPECT_EQ(trace.lines(), QStringList{s_cantSerializeAdded.arg("plain")});
    EXPECT_EQ(dispatcher.nextBundleId(), next + 1); // the empty group used no id

    trace.clear();
    plain->emitChange();
    EXPECT_TRUE(frame().empty());
    plain->emitChange();
    EXPECT_TRUE(frame().empty());
    EXPECT_EQ(trace.lines(), (QStringList{s_cantSerializeChanged.arg("plain"), s_cantSerializeChanged.arg("plain")}));
    EXPECT_EQ(dispatcher.nextBundleId(), next + 1);
}

TEST_F(NodeChangeSenderTest, FailedRecordsAmongGoodOnesCostOneRecordEach)
{
    started();
    add<FloatAttr>("a", 1.0f);
    ASSERT_TRUE(node.addAttribute("plain", new Tamarack::Attribute));
    add<FloatAttr>("b", 2.0f);
    const std::vector<Bundle> bundles = frame();
    ASSERT_EQ(types(bundles), (std::vector<quint32>{SYMBOLS, NEW}));
    EXPECT_EQ(hex(bundles[1].data()), hex((Wire() << sym("a") << 3u << 4u << 1u << 1.0f
                                                  << sym("b") << 3u << 4u << 1u << 2.0f).bundle(NEW, 5)));
    EXPECT_EQ(trace.lines(), QStringList{s_cantSerializeAdded.arg("plain")});
}

// A run whose every record failed is neither added nor numbered, also ahead of another run.
TEST_F(NodeChangeSenderTest, RunThatWroteNothingIsDroppedWithoutAnId)
{
    auto *x = add<FloatAttr>("x", 1.0f);
    started();
    ASSERT_TRUE(node.addAttribute("plain", new Tamarack::Attribute));
    node.update();
    x->setValue(2.0f);
    const std::vector<Bundle> bundles = frame();
    ASSERT_EQ(types(bundles), (std::vector<quint32>{SYMBOLS, UPDATE}));
    EXPECT_EQ(hex(bundles[1].data()), hex((Wire() << sym("x") << 2.0f).bundle(UPDATE, 6)));
    EXPECT_EQ(trace.lines(), QStringList{s_cantSerializeAdded.arg("plain")});
}

TEST_F(NodeChangeSenderTest, IgnoredChangeIsNotSentAndTheEntryIsUsedUp)
{
    auto *f = add<FloatAttr>("f", 1.0f);
    started();
    const NodeWatcher::Event changed{NodeWatcher::ATTRIBUTE_CHANGED, sym("f")};
    sender->ignoreOne(changed);
    f->setValue(2.0f); // as a receiver would apply a remote value
    EXPECT_FALSE(sender->stopIgnoring(changed));
    EXPECT_TRUE(frame().empty());

    f->setValue(3.0f);
    const std::vector<Bundle> bundles = frame();
    ASSERT_EQ(types(bundles), (std::vector<quint32>{UPDATE}));
    EXPECT_TRUE(trace.lines().isEmpty());
}

TEST_F(NodeChangeSenderTest, IgnoreOneTwiceLogsAndOneStopEndsIt)
{
    auto *f = add<FloatAttr>("f", 1.0f);
    started();
    const NodeWatcher::Event changed{NodeWatcher::ATTRIBUTE_CHANGED, sym("f")};
    sender->ignoreOne(changed);
    sender->ignoreOne(changed);
    EXPECT_EQ(trace.lines(), QStringList{"NodeChangeSender::ignoreOne # Called for an already ignored symbol"});
    EXPECT_TRUE(sender->stopIgnoring(changed));
    EXPECT_FALSE(sender->stopIgnoring(changed));
    f->setValue(2.0f);
    EXPECT_EQ(types(frame()), (std::vector<quint32>{UPDATE}));
}

TEST_F(NodeChangeSenderTest, PathWithSyncFlagZeroGetsNoRecord)
{
    node.setSyncFlags(RemoteNode::makeRegExp("hidden/**"), Loomy::SyncFlags::SYNC_NONE);
    add<FloatAttr>("hidden/a", 1.0f);
    started();
    auto *later = add<FloatAttr>("hidden/b", 1.0f);
    node.update();
    later->setValue(2.0f);
    static_cast<FloatAttr *>(static_cast<Node *>(node.attribute("hidden"))->attribute("a"))->setValue(3.0f);
    EXPECT_TRUE(frame().empty());
    EXPECT_EQ(storage.findByName("hidden/a"), nullptr);
    EXPECT_EQ(storage.findByName("hidden/b"), nullptr);
    EXPECT_TRUE(trace.lines().isEmpty());
}

// An addition filtered out by the flags, then the flags opened: its changes have no record.
TEST_F(NodeChangeSenderTest, ChangeOfAnAttributeAddedWhileUnsynchronisedIsReported)
{
    node.setSyncFlags(RemoteNode::makeRegExp("late"), Loomy::SyncFlags::SYNC_NONE);
    auto *late = add<FloatAttr>("late", 1.0f);
    started();
    node.updateSyncFlags(RemoteNode::makeRegExp("late"), Loomy::SyncFlags::SYNC_DEFAULT);
    late->setValue(2.0f);
    EXPECT_TRUE(frame().empty());
    EXPECT_EQ(trace.lines(),
              QStringList{"NodeChangeSender::onAttributeChange # Could not find a session attribute for the given change"});
}

struct ReAddCase
{
    const char *name;
    bool localOrigin;
};
const ReAddCase s_reAdds[] = {{"OwnAttribute", true}, {"MadeForThePeer", false}};
void PrintTo(const ReAddCase &c, std::ostream *os)
{
    *os << c.name;
}

class ReAddition : public NodeChangeSenderTest, public ::testing::WithParamInterface<ReAddCase> {};

TEST_P(ReAddition, AfterARemovalInAnEarlierUpdateCarriesTheValueAgain)
{
    add<FloatAttr>("r", 1.0f);
    started();
    LoomySessionAttribute &r = record("r");
    r.localOrigin = GetParam().localOrigin;
    r.lastReceivedId = 4; // the peer has spoken about it
    r.readType = 3;
    r.readSize = 4;
    delete node.attribute("r");
    EXPECT_EQ(types(frame()), (std::vector<quint32>{REMOVE}));
    EXPECT_EQ(r.lastReceivedId, 0u);

    auto *back = add<FloatAttr>("r", 6.0f);
    const std::vector<Bundle> bundles = frame();
    ASSERT_EQ(bundles.size(), 1u); // no symbol bundle: the peer knows it
    EXPECT_EQ(hex(bundles[0].data()), hex((Wire() << sym("r") << 3u << 4u << 1u << 6.0f).bundle(NEW, 6)));
    EXPECT_FALSE(r.resendValue);

    // The peer's reader was a dummy while the attribute was gone; now it writes the attribute.
    const QByteArray value = (Wire() << 7.5f).bundle(0, 0).mid(16);
    Loomy::BundleReaderCore reader(value);
    r.deserializer(reader);
    EXPECT_EQ(back->value(), 7.5f);
    EXPECT_TRUE(trace.lines().isEmpty());
}

INSTANTIATE_TEST_SUITE_P(Origins, ReAddition, ::testing::ValuesIn(s_reAdds),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(NodeChangeSenderTest, ReAdditionWithAPeerTypeThatDoesntFitFallsBackToADummy)
{
    add<FloatAttr>("r", 1.0f);
    started();
    LoomySessionAttribute &r = record("r");
    r.readType = 1; // the peer holds a bool here
    r.readSize = 1;
    delete node.attribute("r");
    frame();
    auto *back = add<FloatAttr>("r", 6.0f);
    EXPECT_EQ(types(frame()), (std::vector<quint32>{NEW}));
    EXPECT_EQ(trace.lines(), QStringList{"NodeChangeSender::sendAdded # Tried to recreate a deserializer but failed. Will set it to null deserializer"});
    const QByteArray value("\1\0\0\0\xff", 5);
    Loomy::BundleReaderCore reader(value);
    r.deserializer(reader);
    EXPECT_EQ(reader.position(), 4u);
    EXPECT_EQ(back->value(), 6.0f);
}

TEST_F(NodeChangeSenderTest, RemovedByThePeerThenChangedLocallySendsNothing)
{
    auto *f = add<FloatAttr>("f", 1.0f);
    started();
    record("f").removedByPeer = true; // as AttributeRemoveReceiver leaves an attribute we own
    f->setValue(2.0f);
    EXPECT_TRUE(frame().empty());
    delete f;
    EXPECT_TRUE(frame().empty());
    EXPECT_TRUE(record("f").resendValue); // the removal is still booked
    EXPECT_TRUE(trace.lines().isEmpty());
}

TEST_F(NodeChangeSenderTest, EventsFollowTheChangesAndTheirSymbolsFollowTheChangeSymbols)
{
    started();
    add<FloatAttr>("f", 1.0f);
    node.update();
    Kestrel::BinaryData payload;
    payload.writeInt32(0x01020304);
    node.eventProcess("ping", payload);
    Kestrel::BinaryData odd;
    odd.writeBlob("abcdef", 6); // 8 + 8 bytes; the first 10 are the payload
    odd.setTotal(10);
    node.eventProcess("odd", odd);
    Kestrel::BinaryData none;
    node.eventProcess("ping", none);

    const std::vector<Bundle> bundles = frame();
    ASSERT_EQ(types(bundles), (std::vector<quint32>{SYMBOLS, NEW, EVENT}));
    EXPECT_EQ(hex(bundles[0].data()), hex(Wire()
                                              .entry(sym("f"), "f")
                                              .entry(sym("ping"), "ping")
                                              .entry(sym("odd"), "odd")
                                              .bundle(SYMBOLS, 4)));
    EXPECT_EQ(hex(bundles[2].data()), hex(Wire()
                                              .entry(sym("ping"), QByteArray(payload.data(), 8))
                                              .entry(sym("odd"), QByteArray(odd.data(), 10))
                                              .entry(sym("ping"), QByteArray())
                                              .bundle(EVENT, 6)));

    // Known now: the next event goes without a symbol bundle.
    node.eventProcess("ping", none);
    EXPECT_EQ(types(frame()), (std::vector<quint32>{EVENT}));
}

// The node may go first; the sender must then leave it alone (the address sanitizer sees a touch).
TEST_F(NodeChangeSenderTest, NodeDeletedBeforeTheSenderIsNotTouchedAgain)
{
    auto *other = new RemoteNode(&app, "other");
    AttributeStorage otherStorage(*other);
    auto lone = std::make_shared<NodeChangeSender>(*other, otherStorage, registry);
    delete other; // its deletion listener clears the registrations
    lone.reset();
    EXPECT_TRUE(trace.lines().isEmpty());
}

// Four threads change their own attributes while the frame thread collects. Every attribute's
// last value must leave in the last record that names it.
TEST_F(NodeChangeSenderTest, ChangesFromManyThreadsLeaveWithTheirLastValue)
{
    constexpr int threads = 4, perThread = 16, rounds = 200;
    std::vector<FloatAttr *> attributes;
    for (int i = 0; i < threads * perThread; ++i)
        attributes.push_back(add<FloatAttr>("t/" + QByteArray::number(i), 0.0f));
    started();

    std::map<quint32, float> lastSent;
    auto decode = [&](const std::vector<Bundle> &bundles) {
        for (const Bundle &bundle : bundles) {
            ASSERT_EQ(bundle.messageType(), quint32(UPDATE));
            BundleReader reader(bundle);
            while (reader.position() < unsigned(bundle.size())) {
                const quint32 symbol = reader.read<quint32>();
                lastSent[symbol] = reader.read<float>();
            }
        }
    };

    std::atomic<int> running{threads};
    std::vector<std::thread> workers;
    for (int t = 0; t < threads; ++t)
        workers.emplace_back([&, t] {
            for (int round = 1; round <= rounds; ++round)
                for (int i = 0; i < perThread; ++i)
                    attributes[t * perThread + i]->setValue(float(round));
            --running;
        });
    for (int bounded = 0; running.load() > 0 && bounded < 100000; ++bounded)
        decode(frame());
    for (std::thread &worker : workers)
        worker.join();
    decode(frame());

    ASSERT_EQ(lastSent.size(), attributes.size());
    for (int i = 0; i < threads * perThread; ++i)
        EXPECT_EQ(lastSent[sym("t/" + QByteArray::number(i))], float(rounds)) << i;
    EXPECT_TRUE(trace.lines().isEmpty());
}

} // namespace
