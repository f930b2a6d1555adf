#include "loomy/sync/RemoteNode.h"

#include "common/TraceCapture.h"
#include "tamarack/AttributeT.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <mutex>
#include <set>
#include <stdexcept>
#include <thread>

using Kestrel::BinaryData;
using Loomy::RemoteNode;
using IntAttr = Tamarack::AttributeT<int>;

namespace {

QByteArray bytesOf(const BinaryData &data)
{
    return QByteArray(data.data(), static_cast<int>(data.total()));
}

// A buffer holding one blob item.
BinaryData dataOf(const QByteArray &bytes)
{
    BinaryData data;
    data.writeBlob(bytes.constData(), bytes.size());
    data.rewind();
    return data;
}

// Records what passes its eventProcess: name, whether it is a received event, and the payload.
class RecordingNode : public RemoteNode
{
public:
    using RemoteNode::RemoteNode;
    void eventProcess(const QByteArray &name, BinaryData &data) override
    {
        processed << name + (handlingRemoteEvent(name, data) ? " remote " : " local ") + bytesOf(data).toHex();
        if (onProcess)
            onProcess(name, data);
        RemoteNode::eventProcess(name, data);
    }
    QStringList processed;
    std::function<void(const QByteArray &, BinaryData &)> onProcess;
};

// What left through the node, as (name, payload).
struct Sent
{
    QByteArray name;
    BinaryData data;
};

class RemoteEventsTest : public ::testing::Test
{
protected:
    RemoteEventsTest()
    {
        node.addEventListener([this](const RemoteNode::Event &event) {
            std::lock_guard<std::mutex> lock(mutex);
            sent.push_back(Sent{node.symbols().name(event.symbol), event.data});
        });
    }
    // A begin or slice event, built as the peer writes it.
    static BinaryData begin(int id, const char *name, int sliceSize, long total)
    {
        BinaryData d;
        d.writeInt32(id);
        d.writeString(name);
        d.writeInt32(sliceSize);
        d.writeInt64(total);
        d.rewind();
        return d;
    }
    static BinaryData slice(int id, int index, const QByteArray &bytes)
    {
        BinaryData d;
        d.writeInt32(id);
        d.writeInt32(index);
        d.writeBlob(bytes.constData(), bytes.size());
        d.rewind();
        return d;
    }
    void receive(const QByteArray &name, BinaryData data, long source = 0)
    {
        receiver.handleRemoteEvent(name, data, source);
    }

    RecordingNode node{nullptr, "sender"};
    RecordingNode receiver{nullptr, "receiver"};
    std::mutex mutex;
    std::vector<Sent> sent; // guarded by mutex
    TraceCapture trace;
};

TEST_F(RemoteEventsTest, LocalEventReachesEachListenerOnceAsARewoundDeepCopy)
{
    std::vector<RemoteNode::Event> second;
    node.addEventListener([&](const RemoteNode::Event &event) { second.push_back(event); });
    BinaryData data;
    data.writeInt32(7);
    data.writeInt32(8);
    data.rewind();
    data.readInt32(); // the caller's position does not matter
    node.eventProcess("ping", data);
    data.rewind();
    data.writeInt32(99); // nor does what the caller does with its buffer afterwards
    node.eventProcess("ping", data);

    ASSERT_EQ(sent.size(), 2u);
    ASSERT_EQ(second.size(), 2u);
    EXPECT_EQ(sent[0].name, QByteArray("ping"));
    EXPECT_EQ(second[0].symbol, node.symbols().lookup("ping"));
    EXPECT_EQ(second[1].symbol, second[0].symbol);
    EXPECT_EQ(sent[0].data.pos(), 0u);
    EXPECT_NE(sent[0].data.data(), data.data());
    EXPECT_EQ(sent[0].data.readInt32(), 7);
    EXPECT_EQ(sent[0].data.readInt32(), 8);
    EXPECT_EQ(sent[1].data.readInt32(), 99);
}

TEST_F(RemoteEventsTest, EventWithoutListenersIsDroppedSilently)
{
    RemoteNode lonely(nullptr, "lonely");
    BinaryData data = dataOf("x");
    lonely.eventProcess("ping", data);
    EXPECT_TRUE(trace.lines().isEmpty());
}

TEST_F(RemoteEventsTest, RemovedEventListenerHearsNothingAndUnknownIdsAreIgnored)
{
    int calls = 0;
    const long id = node.addEventListener([&](const RemoteNode::Event &) { ++calls; });
    node.removeEventLIstener(id + 100);
    BinaryData data;
    node.eventProcess("a", data);
    node.removeEventLIstener(id);
    node.eventProcess("b", data);
    EXPECT_EQ(calls, 1);
    EXPECT_EQ(sent.size(), 2u);
}

TEST_F(RemoteEventsTest, ReceivedEventGoesToTheNodeAndIsNeverSentBack)
{
    auto *speed = new IntAttr(&receiver, "speed");
    int out = 0;
    receiver.addEventListener([&](const RemoteNode::Event &) { ++out; });
    BinaryData data;
    data.writeInt32(42);
    data.rewind();
    receiver.handleRemoteEvent("speed", data, 0);
    EXPECT_EQ(speed->value(), 42);
    EXPECT_EQ(out, 0);
    EXPECT_EQ(receiver.processed, QStringList{"speed remote " + bytesOf(data).toHex()});
    EXPECT_FALSE(receiver.handlingRemoteEvent("speed", data)); // restored after the dispatch
}

TEST_F(RemoteEventsTest, AnswerSentWhileHandlingAReceivedEventGoesOut)
{
    QList<QByteArray> out;
    receiver.addEventListener([&](const RemoteNode::Event &event) { out << receiver.symbols().name(event.symbol); });
    receiver.onProcess = [&](const QByteArray &name, BinaryData &) {
        if (name == "ping") {
            BinaryData answer;
            receiver.eventProcess("pong", answer);
        }
    };
    receive("ping", dataOf("p"));
    EXPECT_EQ(out, QList<QByteArray>{"pong"});
}

TEST_F(RemoteEventsTest, DispatchRestoresTheHandlingPairWhenAnExceptionPasses)
{
    receiver.onProcess = [](const QByteArray &, BinaryData &) { throw std::runtime_error("boom"); };
    const QByteArray name("ping");
    BinaryData data;
    EXPECT_THROW(receiver.dispatchRemoteEvent(name, data), std::runtime_error);
    EXPECT_FALSE(receiver.handlingRemoteEvent(name, data));
}

TEST_F(RemoteEventsTest, InitializedRaisesTheNodesOwnEventAndSkipsEventProcess)
{
    int initialized = 0;
    receiver.eventAddListener("initialized", [&] { ++initialized; });
    receive("initialized", dataOf("ignored"));
    EXPECT_EQ(initialized, 1);
    EXPECT_TRUE(receiver.processed.isEmpty());
}

// A buffer whose used bytes are exactly the given ones; bytes must outlive it.
BinaryData rawOf(QByteArray &bytes)
{
    BinaryData data;
    data.linkTo(bytes.data(), bytes.size());
    data.setTotal(static_cast<unsigned>(bytes.size()));
    return data;
}

struct SliceCase { const char *name; QByteArray payload; unsigned long sliceSize; QList<QByteArray> slices; };
const SliceCase s_slicing[] = {
    {"TenBytesInFours", "abcdefghij", 4, {"abcd", "efgh", "ij"}},
    {"ExactlyTwoSlices", "abcdefgh", 4, {"abcd", "efgh"}},
    {"SmallerThanOneSliceIsStillSliced", "abc", 4, {"abc"}},
    {"OneByteSlices", "abc", 1, {"a", "b", "c"}},
};
class Slicing : public RemoteEventsTest, public ::testing::WithParamInterface<SliceCase> {};

TEST_P(Slicing, SendsABeginThenIndexedSlicesOfTheSentBytes)
{
    QByteArray payload = GetParam().payload;
    BinaryData raw = rawOf(payload);
    raw.readInt32(); // moves the position; the whole buffer is sent anyway
    node.eventProcessSlice("big", raw, GetParam().sliceSize);

    const QList<QByteArray> &slices = GetParam().slices;
    ASSERT_EQ(sent.size(), static_cast<std::size_t>(slices.size()) + 1);
    EXPECT_EQ(sent[0].name, QByteArray("event-slice-begin"));
    BinaryData &b = sent[0].data;
    const int id = b.readInt32();
    QByteArray name;
    ASSERT_TRUE(b.readString(name));
    EXPECT_EQ(name, QByteArray("big"));
    EXPECT_EQ(b.readInt32(), static_cast<int>(GetParam().sliceSize));
    bool ok = true;
    EXPECT_EQ(b.readInt64(&ok), payload.size()); // written as a 64-bit item
    EXPECT_TRUE(ok);
    EXPECT_EQ(b.pos(), b.total());

    for (int i = 0; i < slices.size(); ++i) {
        BinaryData &s = sent[i + 1].data;
        EXPECT_EQ(sent[i + 1].name, QByteArray("event-slice"));
        EXPECT_EQ(s.readInt32(), id);
        EXPECT_EQ(s.readInt32(), i);
        QByteArray bytes(slices[i].size(), '\0');
        EXPECT_TRUE(s.readBlob(bytes.data(), bytes.size())) << i;
        EXPECT_EQ(bytes, slices[i]);
        EXPECT_EQ(s.pos(), s.total());
    }
}

TEST_P(Slicing, ReassemblesInAnyOrderAndDispatchesWhenTheLastLands)
{
    QByteArray payload = GetParam().payload;
    BinaryData raw = rawOf(payload);
    node.eventProcessSlice("big", raw, GetParam().sliceSize);
    ASSERT_GE(sent.size(), 2u);
    receive(sent[0].name, sent[0].data);
    for (std::size_t i = sent.size() - 1; i >= 1; --i) {
        EXPECT_TRUE(receiver.processed.isEmpty()) << i;
        receive(sent[i].name, sent[i].data);
    }
    EXPECT_EQ(receiver.processed, QStringList{"big remote " + payload.toHex()});
    EXPECT_TRUE(trace.lines().isEmpty());
    // The record is gone: a repeated slice is unknown.
    receive(sent[1].name, sent[1].data);
    const int id = BinaryData(sent[0].data).readInt32();
    EXPECT_EQ(trace.lines(), QStringList{QStringLiteral("RemoteNode::handleSlicedEvent # Unknown event-slice %1").arg(id)});
}
INSTANTIATE_TEST_SUITE_P(Payloads, Slicing, ::testing::ValuesIn(s_slicing),
                         [](const auto &i) { return std::string(i.param.name); });

TEST_F(RemoteEventsTest, EmptyPayloadIsSentAsOnePlainEvent)
{
    BinaryData empty;
    node.eventProcessSlice("big", empty, 4);
    ASSERT_EQ(sent.size(), 1u);
    EXPECT_EQ(sent[0].name, QByteArray("big"));
    EXPECT_EQ(sent[0].data.total(), 0u);
}

TEST_F(RemoteEventsTest, ZeroSliceSizeIsRefused)
{
    QByteArray payload("abc");
    BinaryData raw = rawOf(payload);
    node.eventProcessSlice("big", raw, 0);
    EXPECT_TRUE(sent.empty());
    EXPECT_EQ(trace.lines(), QStringList{"RemoteNode::eventProcessSlice # Slice size must be positive"});
}

TEST_F(RemoteEventsTest, DuplicateBeginKeepsTheEarlierRecord)
{
    receive("event-slice-begin", begin(5, "first", 4, 8));
    receive("event-slice-begin", begin(5, "second", 2, 4));
    receive("event-slice", slice(5, 1, "efgh"));
    receive("event-slice", slice(5, 0, "abcd"));
    EXPECT_EQ(receiver.processed, QStringList{"first remote " + QByteArray("abcdefgh").toHex()});
    EXPECT_TRUE(trace.lines().isEmpty());
}

TEST_F(RemoteEventsTest, SourcesKeepTheirOwnSliceIds)
{
    receive("event-slice-begin", begin(1, "one", 2, 2), 1);
    receive("event-slice-begin", begin(1, "two", 2, 2), 2);
    receive("event-slice", slice(1, 0, "bb"), 2);
    receive("event-slice", slice(1, 0, "aa"), 1);
    EXPECT_EQ(receiver.processed, (QStringList{"two remote 6262", "one remote 6161"}));
}

TEST_F(RemoteEventsTest, SliceWithoutBeginIsUnknown)
{
    receive("event-slice", slice(42, 0, "ab"));
    EXPECT_EQ(trace.lines(), QStringList{"RemoteNode::handleSlicedEvent # Unknown event-slice 42"});
    EXPECT_TRUE(receiver.processed.isEmpty());
}

TEST_F(RemoteEventsTest, SliceIndexOutsideThePayloadIsBad)
{
    receive("event-slice-begin", begin(3, "e", 4, 8));
    receive("event-slice", slice(3, 2, "abcd"));
    receive("event-slice", slice(3, -1, "abcd"));
    EXPECT_EQ(trace.lines(), (QStringList{"RemoteNode::handleSlicedEvent # Bad slice (idx 2)",
                                          "RemoteNode::handleSlicedEvent # Bad slice (idx -1)"}));
    // The record is intact.
    receive("event-slice", slice(3, 0, "abcd"));
    receive("event-slice", slice(3, 1, "efgh"));
    EXPECT_EQ(receiver.processed.size(), 1);
}

TEST_F(RemoteEventsTest, SliceOfTheWrongLengthStaysMissingWithoutAReport)
{
    receive("event-slice-begin", begin(4, "e", 4, 6));
    receive("event-slice", slice(4, 1, "efg"));   // the last slice holds 2 bytes
    receive("event-slice", slice(4, 0, "abcd"));
    EXPECT_TRUE(receiver.processed.isEmpty());
    receive("event-slice", slice(4, 1, "ef"));
    EXPECT_EQ(receiver.processed, QStringList{"e remote " + QByteArray("abcdef").toHex()});
    EXPECT_TRUE(trace.lines().isEmpty());
}

TEST_F(RemoteEventsTest, BeginWithoutAPositiveSliceSizeIsDropped)
{
    for (int size : {0, -4}) {
        trace.clear();
        receive("event-slice-begin", begin(6, "e", size, 10));
        EXPECT_EQ(trace.lines(), QStringList{QStringLiteral("RemoteNode::handleSlicedEvent # Bad slice size %1").arg(size)});
        trace.clear();
        receive("event-slice", slice(6, 0, "ab"));
        EXPECT_EQ(trace.lines(), QStringList{"RemoteNode::handleSlicedEvent # Unknown event-slice 6"});
    }
}

TEST_F(RemoteEventsTest, ThreadsSlicingAtOnceGetDistinctIds)
{
    constexpr int kPerThread = 200;
    RemoteNode plain(nullptr, "plain"); // RecordingNode's own record is not thread safe
    plain.addEventListener([this, &plain](const RemoteNode::Event &event) {
        std::lock_guard<std::mutex> lock(mutex);
        sent.push_back(Sent{plain.symbols().name(event.symbol), event.data});
    });
    auto work = [&plain] {
        QByteArray payload("abcdef");
        for (int i = 0; i < kPerThread; ++i) {
            BinaryData raw = rawOf(payload);
            plain.eventProcessSlice("t", raw, 4);
        }
    };
    std::thread a(work);
    std::thread b(work);
    a.join();
    b.join();
    std::set<int> ids;
    int slices = 0;
    std::lock_guard<std::mutex> lock(mutex);
    for (auto &s : sent) {
        if (s.name == "event-slice-begin")
            ids.insert(s.data.readInt32());
        else
            ++slices;
    }
    EXPECT_EQ(ids.size(), 2u * kPerThread);
    EXPECT_EQ(slices, 2 * 2 * kPerThread);
}

} // namespace
