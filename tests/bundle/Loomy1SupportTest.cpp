#include "loomy/bundle/Loomy1Support.h"

#include "loomy/bundle/Bundle.h"
#include "loomy/sync/RemoteNode.h"

#include "common/TraceCapture.h"
#include "net/NetTestUtil.h"

#include <QtEndian>

#include <stdexcept>

using Kestrel::Trace::Level;

namespace {

QByteArray word(quint32 value)
{
    QByteArray out(4, '\0');
    qToLittleEndian(value, out.data());
    return out;
}

QByteArray bundleBytes(quint32 type, const QByteArray &body, quint32 claimed = ~0u)
{
    return word(claimed == ~0u ? quint32(body.size()) : claimed) + word(type) + word(1) + word(0) + body;
}

// A session that runs only when told (no global frame loop), and reports each bundle it
// dispatches by the dispatcher's warning for a type it doesn't know.
struct Session
{
    Session()
    {
        Loomy::BundleControllerParams params;
        params.useGlobalUpdate = false;
        controller = Loomy::BundleController::create(*node, params);
    }
    QStringList dispatched(TraceCapture &trace)
    {
        trace.clear();
        controller->update();
        QStringList out;
        for (const QString &line : trace.lines(Level::Warning))
            if (line.startsWith("BundleDispatcher::dispatchBundle # Unknown bundle type "))
                out << line.section(' ', -1);
        return out;
    }
    Tamarack::Node root;
    Loomy::RemoteNode *node = new Loomy::RemoteNode(&root, "shared");
    std::shared_ptr<Loomy::BundleController> controller;
};

struct ReadCase
{
    const char *name;
    const char *line;
    QByteArray wire;       // what the peer sends; it closes behind it
    bool handled;
    const char *warning;
    QStringList types;     // dispatched, in order
    const char *next;      // the line that follows in the stream, or null
};
void PrintTo(const ReadCase &c, std::ostream *out) { *out << c.name; }

const ReadCase s_reads[] = {
    {"CountZeroReadsNothing", "loomy2 0", "rest\n", true, nullptr, {}, "rest"},
    {"TwoBundlesInOrder", "loomy2 2", bundleBytes(901, "12345678") + bundleBytes(902, "") + "rest\n", true, nullptr,
     {"901", "902"}, "rest"},
    {"NotANumber", "loomy2 x", "", false, nullptr, {}, nullptr},
    {"NoBlank", "loomy2", "", false, nullptr, {}, nullptr},
    {"Capitals", "LOOMY2 1", bundleBytes(901, ""), false, nullptr, {}, nullptr},
    {"ShortHeaderDropsTheBatch", "loomy2 2", bundleBytes(901, "1234") + "12345", true,
     "processLoomy2 # Failed to read Bundle header", {}, nullptr},
    {"ShortBodyDropsTheBatch", "loomy2 1", bundleBytes(901, "1234", 8), true, "processLoomy2 # Failed to read Bundle",
     {}, nullptr},
    {"BodyTooLargeForAnArrayEndsTheConnection", "loomy2 1", bundleBytes(901, "1234", 0xfffffff0u) + "rest\n", true,
     "processLoomy2 # Failed to read Bundle", {}, nullptr},
};

class Reads : public ::testing::TestWithParam<ReadCase> {};

// The connection's thread isn't started: the test thread reads as its parser would.
TEST_P(Reads, ScheduledBatchAndWhatTheStreamKeeps)
{
    const ReadCase &c = GetParam();
    TraceCapture trace;
    Session session;
    SocketPair sockets;
    RecordingConnection connection(sockets.accepted, true);
    {
        RawPeer peer(sockets.connecting);
        peer.send(c.wire);
    }
    EXPECT_EQ(Loomy::processLoomy2(session.controller, connection, c.line), c.handled);
    const QStringList warnings = trace.lines(Level::Warning);
    EXPECT_EQ(warnings, c.warning ? QStringList{c.warning} : QStringList());
    EXPECT_EQ(session.dispatched(trace), c.types);
    if (c.next) {
        EXPECT_EQ(connection.line(), c.next);
    }
    EXPECT_EQ(connection.running(), c.warning == nullptr);
}

INSTANTIATE_TEST_SUITE_P(Loomy2, Reads, ::testing::ValuesIn(s_reads),
                         [](const auto &i) { return std::string(i.param.name); });

TEST(Loomy2Reads, NegativeCountThrowsLengthError)
{
    Session session;
    RecordingConnection connection(nullptr, false);
    EXPECT_THROW(Loomy::processLoomy2(session.controller, connection, "loomy2 -1"), std::length_error);
}

TEST(Loomy2Reads, BundleOverTheGuardIsRefusedBeforeItsBody)
{
    for (const quint32 body : {84u, 85u}) {   // 100 bytes with the header: at the limit, one over
        TraceCapture trace;
        Session session;
        SocketPair sockets;
        RecordingConnection connection(sockets.accepted, true);
        connection.setMaxBundleSize(100);
        RawPeer peer(sockets.connecting);
        // The over-long body isn't sent: a guard that read it first would block here.
        peer.send(bundleBytes(901, QByteArray(body == 84 ? 84 : 0, 'b'), body));
        EXPECT_TRUE(Loomy::processLoomy2(session.controller, connection, "loomy2 1"));
        const bool refused = body == 85;
        EXPECT_EQ(trace.lines(Level::Error),
                  refused ? QStringList{"processLoomy2 # 101 bytes exceed the limit of 100, closing connection"}
                          : QStringList());
        EXPECT_EQ(session.dispatched(trace), refused ? QStringList() : QStringList{"901"});
        EXPECT_EQ(connection.running(), !refused);
    }
}

// The count alone once made room for that many bundles before the first header was read.
TEST(Loomy2Reads, HugeCountAllocatesOnlyForBundlesThatCame)
{
    TraceCapture trace;
    Session session;
    SocketPair sockets;
    RecordingConnection connection(sockets.accepted, true);
    RawPeer(sockets.connecting).send(bundleBytes(901, "abcd"));
    EXPECT_TRUE(Loomy::processLoomy2(session.controller, connection, "loomy2 2147483647"));
    EXPECT_EQ(trace.lines(Level::Warning), QStringList{"processLoomy2 # Failed to read Bundle header"});
    EXPECT_FALSE(connection.running());
}

// The thread's boundary catches what processLoomy2 lets through: that connection ends, the
// process and the server's other connections go on.
class Loomy2Connection : public RecordingConnection
{
public:
    using RecordingConnection::RecordingConnection;
    Session session;
protected:
    bool parse(QString line) override
    {
        return Loomy::processLoomy2(session.controller, *this, line) || RecordingConnection::parse(line);
    }
};

TEST(Loomy2Reads, NegativeCountOnALiveConnectionEndsOnlyThatConnection)
{
    TraceCapture trace;
    SocketPair first, second;
    RawPeer hostile(first.connecting), other(second.connecting);
    auto a = std::make_shared<Loomy2Connection>(first.accepted, true);
    auto b = std::make_shared<Loomy2Connection>(second.accepted, true);
    a->run();
    b->run();
    loginAsClient(hostile);
    loginAsClient(other);
    hostile.send("loomy2 -1\nafter\n");
    for (QByteArray seen; !(seen = hostile.line()).isEmpty();)   // the ping may or may not leave first
        EXPECT_EQ(seen, "ping initialized");
    EXPECT_TRUE(hostile.atEnd());
    ASSERT_TRUE(eventually([&] { return a->hooks().contains("disconnected"); }));
    EXPECT_EQ(trace.lines(Level::Error),
              QStringList{"ConnectionThread::handleConnection # cannot create std::vector larger than max_size() "
                          "while parsing 'loomy2 -1', closing connection"});
    EXPECT_TRUE(a->lines().isEmpty());
    other.send("still served\n");
    EXPECT_TRUE(eventually([&] { return b->lines() == QStringList{"still served"}; }));
}

std::vector<Loomy::Bundle> twoBundles()
{
    return {Loomy::Bundle(bundleBytes(901, "abcd")), Loomy::Bundle(bundleBytes(902, ""))};
}

TEST(Loomy1Connection, QueuesOneUnitWhileDownWritesNothingEmptyAndNothingWithoutConnection)
{
    auto connection = std::make_shared<RecordingConnection>(nullptr, false);
    Loomy::Loomy1Connection transport(connection);
    transport.send({});
    EXPECT_EQ(connection->bufferedDataSize(), 0);
    transport.send(twoBundles());   // not up: not asked for the capability, queued all the same
    EXPECT_EQ(connection->bufferedDataSize(), 9 + 20 + 16);
    connection->writerThread()->removeFromBuffer("loomy2");
    EXPECT_EQ(connection->bufferedDataSize(), 0);
    connection.reset();
    transport.send(twoBundles());   // gone: nothing happens
}

TEST(Loomy1Connection, SendsToCurrentPeerDropsForOldPeer)
{
    for (const QByteArray &banner : {QByteArray("Lanternwick 2.14.4"), QByteArray("Lanternwick 2.2.0-x"),
                                    QByteArray("Lanternwick 2.1.9")}) {
        const bool capable = banner != "Lanternwick 2.1.9";
        SocketPair sockets;
        RawPeer peer(sockets.connecting);
        auto connection = std::make_shared<RecordingConnection>(sockets.accepted, true);
        connection->run();
        loginAsClient(peer, banner);
        EXPECT_EQ(peer.line(), "ping initialized");
        ASSERT_TRUE(eventually([&] { return connection->isConnected(); }));
        Loomy::Loomy1Connection(connection).send(twoBundles());
        connection->queue("marker\n");
        if (capable) {
            EXPECT_EQ(peer.line(), "loomy2 2") << banner.constData();
            EXPECT_EQ(peer.bytes(36), bundleBytes(901, "abcd") + bundleBytes(902, ""));
        }
        EXPECT_EQ(peer.line(), "marker") << banner.constData();
    }
}

} // namespace
