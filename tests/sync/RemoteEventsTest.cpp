#include "SyncTestUtil.h"

#include <sys/resource.h>

#include <stdexcept>

using Kestrel::BinaryData;
using Loomy::RemoteNode;

namespace {

// Notes what passes its eventProcess: "<name> remote|local <payload in hex>".
class RecordingNode : public RemoteNode
{
public:
    using RemoteNode::RemoteNode;
    void eventProcess(const QByteArray &name, BinaryData &data) override
    {
        processed << name + (handlingRemoteEvent(name, data) ? " remote " : " local ") + hexOf(data);
        RemoteNode::eventProcess(name, data);
    }
    QStringList processed;
};

class RemoteEventsTest : public ::testing::Test
{
protected:
    // What leaves the sending node, as (name, payload).
    RemoteEventsTest() { node.addEventListener([this](const RemoteNode::Event &e) { sent.push_back({node.symbols().name(e.symbol), e.data}); }); }
    // Sends bytes sliced: the whole buffer, whatever its position.
    static void slice(RemoteNode &from, QByteArray bytes, unsigned long sliceSize)
    {
        BinaryData raw;
        raw.linkTo(bytes.data(), bytes.size());
        raw.setTotal(unsigned(bytes.size()));
        from.eventProcessSlice("big", raw, sliceSize);
    }
    void receive(const QByteArray &name, BinaryData data, long source = 0) { receiver.handleRemoteEvent(name, data, source); }

    RecordingNode node{nullptr, "sender"};
    RecordingNode receiver{nullptr, "receiver"};
    std::vector<std::pair<QByteArray, BinaryData>> sent;
    TraceCapture trace;
};

struct SliceCase { const char *name; QByteArray payload; unsigned long sliceSize; QList<QByteArray> slices; };
const SliceCase s_slicing[] = {
    {"TenBytesInFours", "abcdefghij", 4, {"abcd", "efgh", "ij"}},
    {"ExactlyTwoSlices", "abcdefgh", 4, {"abcd", "efgh"}},
    {"SmallerThanOneSliceIsStillSliced", "abc", 4, {"abc"}},
    {"OneByteSlices", "abc", 1, {"a", "b", "c"}},
};
class Slicing : public RemoteEventsTest, public ::testing::WithParamInterface<SliceCase> {};
// A begin and indexed slices, reassembled in any order and dispatched when the last lands; then the
// id is forgotten.
TEST_P(Slicing, SendsABeginThenIndexedSlicesAndReassemblesInAnyOrder)
{
    const QByteArray payload = GetParam().payload;
    slice(node, payload, GetParam().sliceSize);
    const QList<QByteArray> &slices = GetParam().slices;
    ASSERT_EQ(sent.size(), std::size_t(slices.size()) + 1);
    const int id = BinaryData(sent[0].second).readInt32();
    EXPECT_EQ(sent[0].first + hexOf(sent[0].second), "event-slice-begin" + hexOf(build({'B', 0, id, int(GetParam().sliceSize), "big", payload.size()})));
    for (int i = 0; i < slices.size(); ++i)
        EXPECT_EQ(sent[i + 1].first + hexOf(sent[i + 1].second), "event-slice" + hexOf(build({'S', 0, id, i, slices[i]}))) << i;
    receive(sent[0].first, sent[0].second);
    for (std::size_t i = sent.size() - 1; i >= 1; --i) {
        EXPECT_TRUE(receiver.processed.isEmpty()) << i;
        receive(sent[i].first, sent[i].second);
    }
    EXPECT_EQ(receiver.processed, QStringList{"big remote " + payload.toHex()});
    EXPECT_TRUE(trace.lines().isEmpty());
    receive(sent[1].first, sent[1].second);
    EXPECT_EQ(trace.lines(), QStringList{QStringLiteral("RemoteNode::handleSlicedEvent # Unknown event-slice %1").arg(id)});
}
INSTANTIATE_TEST_SUITE_P(Payloads, Slicing, ::testing::ValuesIn(s_slicing), [](const auto &i) { return std::string(i.param.name); });

// What a node makes of begins and slices: the events dispatched ("<name> <payload>"), the log.
struct ReceiveCase { const char *name; std::vector<Step> steps; QStringList dispatched, log; };
const QString s_unknown = "RemoteNode::handleSlicedEvent # Unknown event-slice %1";
const ReceiveCase s_receiving[] = {
    {"DuplicateBeginKeepsTheEarlierRecord",
     {{'B', 0, 5, 4, "first", 8}, {'B', 0, 5, 2, "second", 4}, {'S', 0, 5, 1, "efgh"}, {'S', 0, 5, 0, "abcd"}}, {"first abcdefgh"}, {}},
    {"SourcesKeepTheirOwnSliceIds",
     {{'B', 1, 1, 2, "one", 2}, {'B', 2, 1, 2, "two", 2}, {'S', 2, 1, 0, "bb"}, {'S', 1, 1, 0, "aa"}}, {"two bb", "one aa"}, {}},
    {"SliceWithoutBeginIsUnknown", {{'S', 0, 42, 0, "ab"}}, {}, {s_unknown.arg(42)}},
    {"SliceIndexOutsideThePayloadIsBadAndTheRecordStays",
     {{'B', 0, 3, 4, "e", 8}, {'S', 0, 3, 2, "abcd"}, {'S', 0, 3, -1, "abcd"}, {'S', 0, 3, 0, "abcd"}, {'S', 0, 3, 1, "efgh"}},
     {"e abcdefgh"}, {"RemoteNode::handleSlicedEvent # Bad slice (idx 2)", "RemoteNode::handleSlicedEvent # Bad slice (idx -1)"}},
    {"SliceOfTheWrongLengthStaysMissingWithoutAReport",
     {{'B', 0, 4, 4, "e", 6}, {'S', 0, 4, 1, "efg"}, {'S', 0, 4, 0, "abcd"}, {'S', 0, 4, 1, "ef"}}, {"e abcdef"}, {}},
    // In order, a repeat overwriting its place, one held behind the gap, the gap closed.
    {"RepeatedAndEarlySlicesLandInPlace",
     {{'B', 0, 7, 2, "e", 6}, {'S', 0, 7, 0, "ab"}, {'S', 0, 7, 0, "xy"}, {'S', 0, 7, 2, "ef"}, {'S', 0, 7, 1, "cd"}}, {"e xycdef"}, {}},
    {"BeginWithSliceSizeZeroIsDropped", {{'B', 0, 6, 0, "e", 10}, {'S', 0, 6, 0, "ab"}}, {},
     {"RemoteNode::handleSlicedEvent # Bad slice size 0", s_unknown.arg(6)}},
};
class Receiving : public RemoteEventsTest, public ::testing::WithParamInterface<ReceiveCase> {};
TEST_P(Receiving, DispatchesAndLogsExactly)
{
    for (const Step &step : GetParam().steps)
        receive(step.kind == 'B' ? "event-slice-begin" : "event-slice", build(step), step.source);
    QStringList dispatched;
    for (const QString &line : GetParam().dispatched)
        dispatched << line.section(' ', 0, 0) + " remote " + line.section(' ', 1).toLatin1().toHex();
    EXPECT_EQ(receiver.processed, dispatched);
    EXPECT_EQ(trace.lines(), GetParam().log);
}
INSTANTIATE_TEST_SUITE_P(Slices, Receiving, ::testing::ValuesIn(s_receiving), [](const auto &i) { return std::string(i.param.name); });

// What the peer only announces costs nothing: 20 million one-byte slices, none sent, leave the
// process's peak memory where it was (a record per slice would take a gigabyte). Once the
// slices come, the event arrives whole.
TEST_F(RemoteEventsTest, AnnouncedSizeIsNotPaidBeforeItsBytesArrive)
{
    const auto peakKiB = [] { rusage usage{}; getrusage(RUSAGE_SELF, &usage); return usage.ru_maxrss; };
    const long before = peakKiB();
    receive("event-slice-begin", build({'B', 0, 9, 1, "huge", 20000000}));
    EXPECT_LT(peakKiB() - before, 32 * 1024);
    receive("event-slice-begin", build({'B', 0, 10, 1, "small", 2}));
    receive("event-slice", build({'S', 0, 10, 1, "b"}));
    receive("event-slice", build({'S', 0, 10, 0, "a"}));
    EXPECT_EQ(receiver.processed, QStringList{"small remote 6162"});
    EXPECT_TRUE(trace.lines().isEmpty());
}

// A dispatch that throws on the reassembled event leaves no record behind.
TEST_F(RemoteEventsTest, ThrowingDispatchLeavesNoRecord)
{
    struct ThrowingNode : RemoteNode
    {
        using RemoteNode::RemoteNode;
        void eventProcess(const QByteArray &, BinaryData &) override { throw std::runtime_error("listener"); }
    } throwing{nullptr, "throwing"};
    BinaryData begin = build({'B', 0, 11, 2, "e", 2}), slice = build({'S', 0, 11, 0, "ab"});
    throwing.handleRemoteEvent("event-slice-begin", begin, 0);
    EXPECT_THROW(throwing.handleRemoteEvent("event-slice", slice, 0), std::runtime_error);
    slice.rewind();
    throwing.handleRemoteEvent("event-slice", slice, 0);
    EXPECT_EQ(trace.lines(), QStringList{s_unknown.arg(11)});
}

} // namespace
