#include "loomy/net/ConnectionThread.h"

#include "NetTestUtil.h"
#include "common/TraceCapture.h"

#include "kestrel/TimeStamp.h"

#include <QDir>
#include <QFile>

using Kestrel::Trace::Level;

namespace {

// ---- Handshake, both roles ----------------------------------------------------------------

struct LoginCase
{
    const char *name;
    bool accepting;                         // the connection under test plays the server
    std::function<void(RawPeer &)> script;  // the peer's part, byte by byte
    const char *version;                    // remote version text after success; null: the login fails
    const char *log;                        // an error line the connection must log, or null
};
void PrintTo(const LoginCase &c, std::ostream *out) { *out << c.name; }

QByteArray wrongReply() { return "Wrong username or password"; }

// The client's side up to the digest, with a banner line (or none) and a login line.
void clientSends(RawPeer &peer, const QByteArray &prefix, bool swap = false)
{
    EXPECT_EQ(peer.line(), "Lanternwick 2.14.4");
    const QByteArray c = peer.bytes(64);
    peer.send(prefix + (swap ? digestOf(c.mid(32), c.left(32)) : digestOf(c.left(32), c.mid(32))));
}

// The server's side: banner and challenge; checks what the client answers and replies.
void serverExpects(RawPeer &peer, const QByteArray &banner, bool clientBanner, const QByteArray &reply)
{
    const QByteArray challenge = QByteArray(32, 'x') + QByteArray(32, 'y');
    peer.send(banner + "\n" + challenge);
    if (clientBanner) {
        EXPECT_EQ(peer.line(), "Lanternwick 2.14.4");
    }
    EXPECT_EQ(peer.line(), "tolly");
    EXPECT_EQ(peer.bytes(16), digestOf(challenge.left(32), challenge.mid(32)));
    peer.send(reply + "\n");
}

const LoginCase s_logins[] = {
    {"ServerAcceptsCurrentClient", true, [](RawPeer &p) { clientSends(p, "Lanternwick 2.14.4\ntolly\n");
         EXPECT_EQ(p.line(), "ok"); }, "2.14.4", nullptr},
    {"ServerAcceptsClientWithoutBannerAs190", true, [](RawPeer &p) { clientSends(p, "tolly\n");
         EXPECT_EQ(p.line(), "ok"); }, "1.9.0", nullptr},
    {"ServerTakesSuffix", true, [](RawPeer &p) { clientSends(p, "Lanternwick 2.1.0-bramble\ntolly\n");
         EXPECT_EQ(p.line(), "ok"); }, "2.1.0-bramble", nullptr},
    {"ServerRefusesLoginInOtherCase", true, [](RawPeer &p) { clientSends(p, "Lanternwick 2.14.4\nTolly\n");
         EXPECT_EQ(p.line(), wrongReply()); }, nullptr, "Handshake failed, closing connection"},
    {"ServerRefusesWrongDigest", true, [](RawPeer &p) { EXPECT_EQ(p.line(), "Lanternwick 2.14.4"); p.bytes(64);
         p.send("Lanternwick 2.14.4\ntolly\n" + QByteArray(16, '\0'));
         EXPECT_EQ(p.line(), wrongReply()); }, nullptr, "Handshake failed, closing connection"},
    {"ServerRefusesSwappedHalves", true, [](RawPeer &p) { clientSends(p, "Lanternwick 2.14.4\ntolly\n", true);
         EXPECT_EQ(p.line(), wrongReply()); }, nullptr, "Handshake failed, closing connection"},
    {"ServerRefusesMajor3BeforeTheDigest", true, [](RawPeer &p) { EXPECT_EQ(p.line(), "Lanternwick 2.14.4");
         p.bytes(64); p.send("Lanternwick 3.0.0\n");
         EXPECT_EQ(p.line(), wrongReply()); }, nullptr, "Handshake failed, closing connection"},
    {"ClientLogsIn", false, [](RawPeer &p) { serverExpects(p, "Lanternwick 2.14.4", true, "ok"); }, "2.14.4", nullptr},
    {"ClientSendsNoBannerTo190", false, [](RawPeer &p) { serverExpects(p, "Lanternwick 1.9.0", false, "ok"); },
     "1.9.0", nullptr},
    {"ClientSendsBannerTo191", false, [](RawPeer &p) { serverExpects(p, "Lanternwick 1.9.1", true, "ok"); },
     "1.9.1", nullptr},
    {"ClientHearsRefusal", false, [](RawPeer &p) { serverExpects(p, "Lanternwick 2.14.4", true, wrongReply()); },
     nullptr, "Remote host sent handshake error: Wrong username or password"},
    {"ClientRefusesMajor3", false, [](RawPeer &p) { p.send("Lanternwick 3.0.0\n"); }, nullptr,
     "Unknown server version 'Lanternwick 3.0.0', expected \"Lanternwick (1|2).*.*\""},
};

class Login : public ::testing::TestWithParam<LoginCase> {};

TEST_P(Login, BytesAndOutcome)
{
    const LoginCase &c = GetParam();
    TraceCapture trace;
    Kestrel::TCPServerSocket server;
    ASSERT_EQ(server.open("127.0.0.1", 0, 4), 0);
    std::shared_ptr<RecordingConnection> connection;
    std::unique_ptr<RawPeer> peer;
    if (c.accepting) {
        auto *client = new Kestrel::TCPSocket;
        ASSERT_EQ(client->open("127.0.0.1", server.port()), 0);
        ASSERT_TRUE(server.isPendingConnection(10 * 1000 * 1000));
        connection = std::make_shared<RecordingConnection>(server.accept(), true);
        peer = std::make_unique<RawPeer>(client);
        connection->run();
    } else {
        connection = std::make_shared<RecordingConnection>(nullptr, false);
        connection->connectToHost("127.0.0.1", server.port());
        ASSERT_TRUE(server.isPendingConnection(10 * 1000 * 1000));
        peer = std::make_unique<RawPeer>(server.accept());
    }
    c.script(*peer);
    if (c.version) {
        EXPECT_EQ(peer->line(), "ping initialized");
        ASSERT_TRUE(eventually([&] { return connection->isConnected(); }));
        EXPECT_EQ(connection->remoteVersionText(), c.version);
        EXPECT_EQ(connection->remoteUser(), c.accepting ? "tolly" : "");
        EXPECT_EQ(connection->hooks(), QStringList{"connected"});
    } else {
        EXPECT_TRUE(peer->atEnd());   // closed after the refusal
        ASSERT_TRUE(eventually([&] { return trace.count("Handshake failed, closing connection") == 1; }));
        EXPECT_TRUE(connection->hooks().isEmpty());   // neither connected nor connectionFailed
        EXPECT_FALSE(connection->isConnected());
    }
    if (c.log) {
        EXPECT_TRUE(trace.lines(Level::Error).contains(c.log)) << trace.lines().join('\n').toStdString();
    }
}

INSTANTIATE_TEST_SUITE_P(Handshake, Login, ::testing::ValuesIn(s_logins),
                         [](const auto &i) { return std::string(i.param.name); });

TEST(RemoteVersion, ComparesNumbersAndBundleCapability)
{
    struct Row { int major, minor, patch; const char *suffix; bool atLeast191, bundles; };
    const Row rows[] = {
        {1, 9, 0, "", false, false}, {1, 9, 1, "", true, false}, {1, 10, 0, "", true, false},
        {2, 0, 3, "bramble", true, false}, {2, 0, 4, "", true, false}, {2, 0, 4, "x-bramble", true, true},
        {2, 0, 4, "Bramble", true, false}, {2, 2, 0, "", true, true},
    };
    RecordingConnection connection(nullptr, false);
    for (const Row &r : rows) {
        connection.setRemoteVersion(r.major, r.minor, r.patch, r.suffix);
        EXPECT_EQ(connection.remoteVersion(1, 9, 1), r.atLeast191) << r.major << r.minor << r.patch;
        EXPECT_EQ(connection.isLoomy15Supported(), r.bundles) << r.major << r.minor << r.patch << r.suffix;
    }
}

// ---- Lines after the handshake ------------------------------------------------------------

struct LineCase
{
    const char *name;
    bool usePing;
    const char *clientBanner;
    QByteArray input;
    QStringList replies;   // lines the peer hears, up to the marker
    QStringList parsed;
    QStringList hooks;     // after "connected"
    QList<QMap<QString, QString>> maps;
    const char *log;
};
void PrintTo(const LineCase &c, std::ostream *out) { *out << c.name; }

QByteArray mapBlock(const QByteArray &items)   // a map body: the size item, then the items
{
    const int total = 8 + items.size();
    return QByteArray("INT4", 4) + QByteArray(reinterpret_cast<const char *>(&total), 4) + items;
}

const LineCase s_lines[] = {
    {"PingAndPingWithPayloadAnswered", true, "Lanternwick 2.14.4", "ping\nping 42\npingx\nping \n",
     {"pong", "pong 42"}, {"pingx", "ping "}, {}, {}, nullptr},
    {"PongSetsActiveAndGivesPayload", true, "Lanternwick 2.14.4", "pong\npong abc\n", {}, {},
     {"pong()", "pong(abc)"}, {}, nullptr},
    {"PingOffGoesToParse", false, "Lanternwick 2.14.4", "ping\npong 1\n", {}, {"ping", "pong 1"}, {}, {}, nullptr},
    {"EmptyLinesAndCrLfSkipped", true, "Lanternwick 2.14.4", "a\r\n\n\nb\rc\n", {}, {"a", "b", "c"}, {}, {}, nullptr},
    {"UnparsedLineLoggedAndConnectionGoesOn", true, "Lanternwick 2.14.4", "unknown x\nnext\n", {}, {"next"}, {}, {},
     "Failed to parse command 'unknown x'"},
    {"LongLine", true, "Lanternwick 2.14.4", QByteArray(300000, 'z') + "\n", {}, {QString(300000, 'z')}, {}, {}, nullptr},
    {"MapBlockFromNewPeer", true, "Lanternwick 2.14.4",
     "map 2\n" + mapBlock(QByteArray("STR \1\0\0\0k\0\0\0STR \2\0\0\0v1\0\0STR \1\0\0\0k\0\0\0STR \1\0\0\0w\0\0\0", 48))
         + "after\n",
     {}, {"map 2", "after"}, {}, {{{"k", "w"}}}, nullptr},
    {"MapLinesFromOldPeer", true, nullptr, "map 2\nk1\nv1\nk2\nv2\nafter\n", {}, {"map 2", "after"}, {},
     {{{"k1", "v1"}, {"k2", "v2"}}}, nullptr},
};

class Lines : public ::testing::TestWithParam<LineCase> {};

TEST_P(Lines, RepliesParsesAndHooks)
{
    const LineCase &c = GetParam();
    TraceCapture trace;
    SocketPair sockets;
    RawPeer peer(sockets.connecting);
    auto connection = std::make_shared<RecordingConnection>(sockets.accepted, true);
    connection->setUsePing(c.usePing);
    connection->run();
    if (c.clientBanner) {
        loginAsClient(peer, c.clientBanner);
    } else {
        EXPECT_EQ(peer.line(), "Lanternwick 2.14.4");
        const QByteArray challenge = peer.bytes(64);
        peer.send("tolly\n" + digestOf(challenge.left(32), challenge.mid(32)));
        EXPECT_EQ(peer.line(), "ok");
    }
    if (c.usePing) {
        EXPECT_EQ(peer.line(), "ping initialized");
    }
    peer.send(c.input);
    ASSERT_TRUE(eventually([&] {
        return connection->lines().size() == c.parsed.size() && connection->hooks().size() == c.hooks.size() + 1;
    })) << connection->lines().join('|').left(200).toStdString();
    connection->queue("marker\n");
    QStringList replies;
    for (QByteArray line = peer.line(); line != "marker" && !line.isEmpty(); line = peer.line())
        replies << line;
    EXPECT_EQ(replies, c.replies);
    EXPECT_EQ(connection->lines(), c.parsed);
    EXPECT_EQ(connection->hooks(), QStringList{"connected"} + c.hooks);
    EXPECT_EQ(connection->maps(), c.maps);
    EXPECT_EQ(connection->pingActive(), !c.hooks.isEmpty());
    if (c.log) {
        EXPECT_EQ(trace.count(c.log), 1);
    }
    EXPECT_TRUE(connection->isConnected());
}

INSTANTIATE_TEST_SUITE_P(LineProtocol, Lines, ::testing::ValuesIn(s_lines),
                         [](const auto &i) { return std::string(i.param.name); });

TEST(MapBuffer, BlockForNewPeerLinesForOld)
{
    RecordingConnection connection(nullptr, false);
    connection.setRemoteVersion(1, 9, 1, "");
    EXPECT_EQ(connection.buildMapBuffer("cmd", {}), QByteArray("cmd 0\nINT4\x08\0\0\0", 14));
    EXPECT_EQ(connection.buildMapBuffer("cmd", {{"b", "22"}, {"a", "1"}}),
              "cmd 2\n" + mapBlock(QByteArray("STR \1\0\0\0a\0\0\0STR \1\0\0\0" "1\0\0\0"
                                              "STR \1\0\0\0b\0\0\0STR \2\0\0\0" "22\0\0", 48)));
    connection.setRemoteVersion(1, 9, 0, "");
    EXPECT_EQ(connection.buildMapBuffer("cmd", {{"b\nx", "2\n"}, {"a", ""}}), QByteArray("cmd 2\na\n\nbx\n2\n"));
}

// Read by the test thread, as a parser would: each short read logs its own text, exactly.
TEST(ShortReads, LogTheirTextsAndEndTheConnection)
{
    struct Row { std::function<bool(RecordingConnection &)> read; QByteArray wire; const char *log; Level level; };
    const Row rows[] = {
        {[](RecordingConnection &c) { return c.readData(5).isEmpty(); }, "abc",
         "ConnectionThread::readData # Read error (:5000 expected 5 bytes, got 3 bytes", Level::Error},
        {[](RecordingConnection &c) { unsigned char b[4]; return !c.readData(b, 4); }, "ab",
         "ConnectionThread::readData # Read error", Level::Error},
        {[](RecordingConnection &c) { c.skip(1000); return true; }, QByteArray(600, 's'),
         "ConnectionThread::skip # Read error", Level::Error},
        {[](RecordingConnection &c) { return c.line().isEmpty(); }, "no end",
         "ConnectionThread::line # no reply from :5000 (could not read from socket)", Level::Debug},
        {[](RecordingConnection &c) { return c.readMap(1).isEmpty(); }, "INT4",
         "ConnectionThread::readMap # error while reading data", Level::Error},
    };
    for (const Row &row : rows) {
        TraceCapture trace;
        SocketPair sockets;
        RecordingConnection connection(sockets.accepted, true);
        connection.setRemoteVersion(2, 14, 4, "");
        RawPeer(sockets.connecting).send(row.wire);
        EXPECT_TRUE(row.read(connection)) << row.log;
        EXPECT_EQ(trace.lines(row.level), QStringList{row.log});
        EXPECT_FALSE(connection.running()) << row.log;
    }
}

// Each read is refused before anything is allocated for it: the peer sends no more than the
// part that is over, so a guard that read first would block instead of failing.
TEST(SizeGuard, RefusesOversizedLineBlockAndMapAndEndsTheConnection)
{
    struct Row { std::function<bool(RecordingConnection &)> read; QByteArray wire; const char *log; };
    const Row rows[] = {
        {[](RecordingConnection &c) { return c.line() == "12345678"; }, "12345678\n", nullptr},
        {[](RecordingConnection &c) { return c.line().isEmpty(); }, "123456789",
         "ConnectionThread::line # 9 bytes exceed the limit of 8, closing connection"},
        {[](RecordingConnection &c) { return c.readData(8).size() == 8; }, "12345678", nullptr},
        {[](RecordingConnection &c) { return c.readData(2000000000).isEmpty(); }, "",
         "ConnectionThread::readData # 2000000000 bytes exceed the limit of 8, closing connection"},
        {[](RecordingConnection &c) { return c.readMap(1).isEmpty(); }, QByteArray("INT4\xff\xff\xff\x7f", 8),
         "ConnectionThread::readMap # 2147483647 bytes exceed the limit of 8, closing connection"},
    };
    for (const Row &row : rows) {
        TraceCapture trace;
        SocketPair sockets;
        RecordingConnection connection(sockets.accepted, true);
        RawPeer peer(sockets.connecting);
        connection.setRemoteVersion(2, 14, 4, "");
        connection.setMaxValueLength(8);
        peer.send(row.wire);
        EXPECT_TRUE(row.read(connection)) << row.wire.constData();
        EXPECT_EQ(trace.lines(Level::Error), row.log ? QStringList{row.log} : QStringList()) << row.wire.constData();
        EXPECT_EQ(connection.running(), row.log == nullptr) << row.wire.constData();
    }
}

TEST(Queue, BeforeTheConnectionBehindTheFirstPingAfterItAtOnce)
{
    SocketPair sockets;
    RawPeer peer(sockets.connecting);
    auto connection = std::make_shared<RecordingConnection>(sockets.accepted, true);
    connection->queue("early 1\n");
    connection->queue("early 2\n");
    connection->writeBufferData(QByteArray(), "k");
    EXPECT_EQ(connection->bufferedDataSize(), 0);
    connection->run();
    loginAsClient(peer);
    EXPECT_EQ(peer.line(), "ping initialized");
    EXPECT_EQ(peer.line(), "early 1");
    EXPECT_EQ(peer.line(), "early 2");
    ASSERT_TRUE(eventually([&] { return connection->isConnected(); }));
    connection->queue("late\n");
    EXPECT_EQ(peer.line(), "late");
}

// ---- Time: retry period, keep-alive, ping time-out ----------------------------------------

int threadsNamed(const QString &name)
{
    int count = 0;
    for (const QString &task : QDir("/proc/self/task").entryList(QDir::Dirs | QDir::NoDotAndDotDot)) {
        QFile comm("/proc/self/task/" + task + "/comm");
        if (comm.open(QIODevice::ReadOnly) && comm.readAll().trimmed() == name)
            ++count;
    }
    return count;
}

double secondsSince(Kestrel::TimeStamp start)
{
    return (Kestrel::TimeStamp::monotonicTime() - start).seconds();
}

// Slow by nature (about 11 seconds): a connection of 2 seconds, the retry 1 second after it
// ended, then a peer that answers the first ping and then stays silent.
TEST(ConnectionTiming, RetryAfterPeriodKeepAliveAndTimeout)
{
    TraceCapture trace;
    Kestrel::TCPServerSocket server;
    ASSERT_EQ(server.open("127.0.0.1", 0, 4), 0);
    auto connection = std::make_shared<RecordingConnection>(nullptr, false);
    connection->setPingTimeout(7.0);
    connection->connectToHost("127.0.0.1", server.port());
    {
        ASSERT_TRUE(server.isPendingConnection(10 * 1000 * 1000));
        RawPeer peer(server.accept());
        serverExpects(peer, "Lanternwick 2.14.4", true, "ok");
        EXPECT_EQ(peer.line(), "ping initialized");
        std::this_thread::sleep_for(std::chrono::seconds(2));   // the connection's lifetime
    }
    const Kestrel::TimeStamp ended = Kestrel::TimeStamp::monotonicTime();
    ASSERT_TRUE(server.isPendingConnection(10 * 1000 * 1000));
    EXPECT_GT(secondsSince(ended), 0.6);   // not at once, and not a whole period after the end
    EXPECT_LT(secondsSince(ended), 1.6);
    RawPeer peer(server.accept());
    serverExpects(peer, "Lanternwick 2.14.4", true, "ok");
    EXPECT_EQ(peer.line(), "ping initialized");
    peer.send("pong initialized\n");
    const Kestrel::TimeStamp silent = Kestrel::TimeStamp::monotonicTime();
    EXPECT_EQ(peer.line(), "ping");                          // the keep-alive
    EXPECT_GT(secondsSince(silent), 5.0);
    EXPECT_LT(secondsSince(silent), 6.8);   // the writer looks once a second
    EXPECT_TRUE(peer.atEnd());                               // given up: no byte came since the ping
    EXPECT_GT(secondsSince(silent), 7.0);
    EXPECT_LT(secondsSince(silent), 8.8);
    ASSERT_TRUE(eventually([&] { return connection->hooks().count("disconnected") == 2; }));
    EXPECT_EQ(trace.count(QString("127.0.0.1:%1: Ping timeout, disconnecting").arg(server.port())), 1);
    EXPECT_EQ(connection->writeErrors(), 1);
    EXPECT_EQ(connection->hooks(), (QStringList{"connected", "disconnected", "connected", "pong(initialized)",
                                                "disconnected"}));
    connection->stop();
    EXPECT_TRUE(connection->waitEnd(5000));
    EXPECT_EQ(threadsNamed("LoomyConn"), 0);
    EXPECT_EQ(threadsNamed("LoomyWriter"), 0);
}

// A peer that answers pings once and then stops reading: the writer used to block in its write
// for ever while the queue grew. Now the stalled write ends the connection at the ping time-out,
// and the queue goes with the object.
TEST(ConnectionTiming, APeerThatStopsReadingIsCutAtThePingTimeout)
{
    TraceCapture trace;
    SocketPair sockets;
    RawPeer peer(sockets.connecting);
    const QByteArray block(1 << 20, 'x');
    {
        auto connection = std::make_shared<RecordingConnection>(sockets.accepted, true);
        connection->setPingTimeout(1.0);
        connection->run();
        loginAsClient(peer);
        // Written by the writer's loop, so its count of queued bytes has been reset since: queued
        // earlier, the bytes below would take it below zero.
        EXPECT_EQ(peer.line(), "ping initialized");
        peer.send("pong\n");
        ASSERT_TRUE(eventually([&] { return connection->pingActive(); }));
        for (int i = 0; i < 64; ++i)   // far more than the sockets' buffers take
            connection->writeBufferData(block, QByteArray());
        ASSERT_TRUE(eventually([&] { return connection->hooks().contains("disconnected"); }));
        EXPECT_GT(connection->bufferedDataSize(), 32LL << 20);
        EXPECT_EQ(trace.count(":5000: Ping timeout, disconnecting"), 1);
    }
    EXPECT_TRUE(block.isDetached());
}

// The same stalled write ended by the peer's close instead: a write error, no time-out. The line
// used to be logged for every failed write once pings were answered.
TEST(ConnectionTiming, APeerThatClosesDuringAStalledWriteIsNoPingTimeout)
{
    TraceCapture trace;
    SocketPair sockets;
    RawPeer peer(sockets.connecting);
    auto connection = std::make_shared<RecordingConnection>(sockets.accepted, true);
    connection->setPingTimeout(30.0);
    connection->run();
    loginAsClient(peer);
    EXPECT_EQ(peer.line(), "ping initialized");   // as above
    peer.send("pong\n");
    ASSERT_TRUE(eventually([&] { return connection->pingActive(); }));
    for (int i = 0; i < 64; ++i)
        connection->writeBufferData(QByteArray(1 << 20, 'x'), QByteArray());
    ASSERT_TRUE(eventually([&] { return connection->bufferedDataSize() < (64LL << 20); }));
    peer.socket().close();
    ASSERT_TRUE(eventually([&] { return connection->hooks().contains("disconnected"); }));
    EXPECT_EQ(trace.lines().filter("Ping timeout"), QStringList());
    connection->stop();
    EXPECT_TRUE(connection->waitEnd(5000));
}

TEST(ConnectionTiming, ConnectToHostMovesTheRunningThread)
{
    Kestrel::TCPServerSocket first, second;
    ASSERT_EQ(first.open("127.0.0.1", 0, 4), 0);
    ASSERT_EQ(second.open("127.0.0.1", 0, 4), 0);
    auto connection = std::make_shared<RecordingConnection>(nullptr, false);
    connection->connectToHost("127.0.0.1", first.port());
    ASSERT_TRUE(first.isPendingConnection(10 * 1000 * 1000));
    RawPeer one(first.accept());
    serverExpects(one, "Lanternwick 2.14.4", true, "ok");
    EXPECT_EQ(one.line(), "ping initialized");
    connection->connectToHost("127.0.0.1", second.port());
    EXPECT_TRUE(one.atEnd());
    ASSERT_TRUE(second.isPendingConnection(10 * 1000 * 1000));   // within the retry period
    RawPeer two(second.accept());
    serverExpects(two, "Lanternwick 2.14.4", true, "ok");
    EXPECT_EQ(two.line(), "ping initialized");
    EXPECT_EQ(threadsNamed("LoomyConn"), 1);
    EXPECT_EQ(connection->hooks(), (QStringList{"connected", "disconnected", "connected"}));
}

TEST(ConnectionStop, CutsShortTheFirstConnect)
{
    Kestrel::TCPServerSocket server;   // a full backlog: connects hang unanswered
    ASSERT_EQ(server.open("127.0.0.1", 0, 0), 0);
    std::vector<std::unique_ptr<Kestrel::TCPSocket>> fillers;
    for (int i = 0; i < 4; ++i) {
        fillers.emplace_back(new Kestrel::TCPSocket);
        fillers.back()->open("127.0.0.1", server.port(), 200);
    }
    auto connection = std::make_shared<RecordingConnection>(nullptr, false);
    connection->connectToHost("127.0.0.1", server.port());
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    const Kestrel::TimeStamp stopped = Kestrel::TimeStamp::monotonicTime();
    connection->stop();
    EXPECT_TRUE(connection->waitEnd(5000));
    EXPECT_LT(secondsSince(stopped), 1.0);
    EXPECT_FALSE(connection->isConnected());
}

} // namespace
