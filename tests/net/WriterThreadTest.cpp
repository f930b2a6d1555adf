#include "loomy/net/WriterThread.h"

#include "NetTestUtil.h"
#include "common/TraceCapture.h"

#include <future>

using Written = std::vector<std::pair<QByteArray, int>>;

namespace {

// A writer on a connection whose socket is one end of a loopback pair; the connection's own
// thread isn't started, so the writer is the only thing on the socket.
struct WriterRig
{
    SocketPair sockets;
    RawPeer peer{sockets.connecting};
    RecordingConnection connection{sockets.accepted, true};
    Loomy::WriterThread &writer = *connection.writerThread();
};

struct PieceCase
{
    const char *name;
    QList<QByteArray> blocks;
    Written events;
};
void PrintTo(const PieceCase &c, std::ostream *out) { *out << c.name; }

const PieceCase s_pieces[] = {
    {"OneBlockOf40000", {QByteArray(40000, 'a')}, {{"k", 16384}, {"k", 16384}, {"k", 7232}}},
    {"LineAndPayload", {QByteArray(9, 'l') + '\n', QByteArray(20000, 'p')}, {{"k", 10}, {"k", 16384}, {"k", 3616}}},
    {"EmptyBlockNoEvent", {QByteArray(), QByteArray("x\n")}, {{"k", 2}}},
};

class Pieces : public ::testing::TestWithParam<PieceCase> {};

TEST_P(Pieces, OneDataWrittenPerPiece)
{
    const PieceCase &c = GetParam();
    WriterRig rig;
    rig.writer.writeData(c.blocks, "k");
    rig.writer.start();
    const QByteArray all = c.blocks.join();
    EXPECT_EQ(rig.peer.bytes(all.size()), all);
    ASSERT_TRUE(eventually([&] { return rig.connection.written().size() == c.events.size(); }));
    EXPECT_EQ(rig.connection.written(), c.events);
    EXPECT_EQ(rig.writer.bufferedDataSize(), -all.size());   // counted before this run's start
}

INSTANTIATE_TEST_SUITE_P(Writer, Pieces, ::testing::ValuesIn(s_pieces),
                         [](const auto &i) { return std::string(i.param.name); });

TEST(Writer, RemoveFromBufferDropsEveryUnitOfTheKey)
{
    WriterRig rig;
    rig.writer.writeData(QByteArray("aa\n"), "x");
    rig.writer.writeData(QByteArray("keep\n"), "y");
    rig.writer.writeData(QList<QByteArray>{"b\n", "bb\n"}, "x");
    rig.writer.writeData(QByteArray("cccc\n"), "x");
    EXPECT_EQ(rig.writer.bufferedDataSize(), 3 + 5 + 5 + 5);
    rig.writer.removeFromBuffer("z");
    rig.writer.removeFromBuffer("X");
    EXPECT_EQ(rig.writer.bufferedDataSize(), 18);
    rig.writer.removeFromBuffer("x");
    EXPECT_EQ(rig.writer.bufferedDataSize(), 5);
    rig.writer.writeData(QByteArray("last\n"), "x");
    rig.writer.start();
    EXPECT_EQ(rig.peer.line(), "keep");
    EXPECT_EQ(rig.peer.line(), "last");
}

TEST(Writer, UpdateReplacedByNameAndRunBeforeUnits)
{
    WriterRig rig;
    std::vector<std::string> calls;   // written by the writer's thread only, read after the bytes came
    std::promise<void> release;
    std::promise<void> holding;
    rig.writer.update("before start", [&] { calls.push_back("dropped at start"); });
    rig.writer.writeData(QByteArray("first\n"), QByteArray());
    rig.writer.start();
    EXPECT_EQ(rig.peer.line(), "first");   // the run has begun, with its updates emptied
    // Hold the writer inside an update while the rest is queued, so it all waits together.
    rig.writer.update("0", [&] { holding.set_value(); release.get_future().wait(); });
    holding.get_future().wait();
    rig.writer.writeData(QByteArray("unit\n"), QByteArray());
    rig.writer.update("b", [&] { calls.push_back("b sent " + std::to_string(rig.connection.txBytes())); });
    rig.writer.update("a", [&] { calls.push_back("a first"); });
    rig.writer.update("a", [&] {
        calls.push_back("a second");
        rig.connection.writeData("direct\n", 7);   // under the send mutex, before any unit
    });
    release.set_value();
    EXPECT_EQ(rig.peer.line(), "direct");
    EXPECT_EQ(rig.peer.line(), "unit");
    EXPECT_EQ(calls, (std::vector<std::string>{"a second", "b sent 13"}));
}

TEST(Writer, ShortWriteLogsAndSendsErrorOnceWithoutClosing)
{
    TraceCapture trace;
    RecordingConnection connection(nullptr, false);   // no socket: every write is short
    auto &writer = *connection.writerThread();
    writer.writeData(QList<QByteArray>{QByteArray(20000, 'a'), "b\n"}, "k");
    writer.writeData(QByteArray("next\n"), "k");
    writer.start();
    ASSERT_TRUE(eventually([&] { return !writer.isRunning(); }));
    writer.waitEnd(0);
    EXPECT_EQ(trace.count("WriterThread::childLoop # Write error"), 1);
    EXPECT_EQ(connection.writeErrors(), 1);
    EXPECT_FALSE(connection.running());
    EXPECT_TRUE(connection.written().empty());
    // Zeroed at the start, less the failed unit; the next unit, counted before, waits for the next run.
    EXPECT_EQ(writer.bufferedDataSize(), -20002);
}

} // namespace
