#include "loomy/bundle/Loomy1Support.h"

#include "loomy/bundle/Bundle.h"
#include "loomy/sync/NodeSerialization.h"
#include "loomy/sync/RemoteNode.h"

#include "tamarack/AttributeT.h"
#include "kestrel/TCPServerSocket.h"

#include "common/TraceCapture.h"
#include "net/NetTestUtil.h"

#include <QtEndian>

#include <chrono>
#include <random>
#include <thread>
#include <stdexcept>

using Kestrel::Trace::Level;

namespace {

QByteArray word(quint32 value) { value = qToLittleEndian(value); return QByteArray(reinterpret_cast<const char *>(&value), 4); }

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
    const char *failure;   // processLoomy2's one warning or error line; it ends the connection
    QStringList types;     // dispatched, in order
    const char *next;      // the line that follows in the stream, or null
    long long maxBundleSize = 0;
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
    // Regression: the count alone made room for that many bundles before the first header was read.
    {"HugeCountAllocatesOnlyForBundlesThatCame", "loomy2 2147483647", bundleBytes(901, "abcd"), true,
     "processLoomy2 # Failed to read Bundle header", {}, nullptr},
    // 100 bytes with the header: at the guard, and one over, which is refused before its body (not
    // sent: a guard that read the body first would log the short body instead).
    {"BundleAtTheGuard", "loomy2 1", bundleBytes(901, QByteArray(84, 'b')), true, nullptr, {"901"}, nullptr, 100},
    {"BundleOverTheGuardIsRefusedBeforeItsBody", "loomy2 1", bundleBytes(901, "", 85), true,
     "processLoomy2 # 101 bytes exceed the limit of 100, closing connection", {}, nullptr, 100},
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
    connection.setMaxBundleSize(c.maxBundleSize);
    RawPeer(sockets.connecting).send(c.wire);
    EXPECT_EQ(Loomy::processLoomy2(session.controller, connection, c.line), c.handled);
    // Every warning; of the errors only processLoomy2's (a read that meets the peer's close logs one).
    EXPECT_EQ(trace.lines(Level::Warning) + trace.lines(Level::Error).filter("processLoomy2"),
              c.failure ? QStringList{c.failure} : QStringList());
    EXPECT_EQ(session.dispatched(trace), c.types);
    if (c.next) {
        EXPECT_EQ(connection.line(), c.next);
    }
    EXPECT_EQ(connection.running(), c.failure == nullptr);
}

INSTANTIATE_TEST_SUITE_P(Loomy2, Reads, ::testing::ValuesIn(s_reads),
                         [](const auto &i) { return std::string(i.param.name); });

TEST(Loomy2Reads, NegativeCountThrowsLengthError)
{
    Session session;
    RecordingConnection connection(nullptr, false);
    EXPECT_THROW(Loomy::processLoomy2(session.controller, connection, "loomy2 -1"), std::length_error);
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

// A session per connection, as an application holds it: made when the connection stands and
// dropped when it ends; the accepting side's sessions are authoritative.
class SessionConnection : public Loomy::ConnectionThread
{
public:
    SessionConnection(Kestrel::TCPSocket *socket, bool accepted, Loomy::RemoteNode &node)
        : ConnectionThread(socket, accepted), m_node(node), m_authoritative(accepted)
    {
    }
    ~SessionConnection() override
    {
        stop();
        waitEnd(0);
    }
    bool hasSession() { Lock l(m_mutex); return m_controller != nullptr; }

protected:
    void connected() override
    {
        writerThread()->removeFromBuffer("loomy2");
        Loomy::BundleControllerParams params;
        params.createMissingAttributes = true;
        params.authoritative = m_authoritative;
        params.connection = std::make_shared<Loomy::Loomy1Connection>(weak_from_this());
        Lock l(m_mutex);
        m_controller = Loomy::BundleController::create(m_node, params);
    }
    void disconnected() override { Lock l(m_mutex); m_controller.reset(); }
    bool parse(QString line) override
    {
        std::shared_ptr<Loomy::BundleController> controller;
        {
            Lock l(m_mutex);
            controller = m_controller;
        }
        return Loomy::processLoomy2(controller, *this, line);
    }

private:
    using Lock = std::lock_guard<std::mutex>;
    Loomy::RemoteNode &m_node;
    const bool m_authoritative;
    std::mutex m_mutex;   // m_controller: set and dropped on the connection's thread, read by parse
    std::shared_ptr<Loomy::BundleController> m_controller;
};

float value(Loomy::RemoteNode &node, const QByteArray &name)
{
    auto *attribute = dynamic_cast<Tamarack::AttributeT<float> *>(node.attribute(name));
    return attribute ? attribute->value() : -1.f;
}

// Two trees in one process over loopback: the accepting side's sessions are authoritative, the
// client is one connection object that reconnects by itself.
class Restarts : public ::testing::Test
{
protected:
    Restarts()
    {
        open(0);
        client->connectToHost("127.0.0.1", port);
    }
    ~Restarts() override
    {
        client->stop();
        client->waitEnd(0);
        if (accepted) {
            accepted->stop();
            accepted->waitEnd(0);
        }
        client.reset();
        accepted.reset();
        Tamarack::Node::runHostUpdate();
    }
    void open(int at)
    {
        listener = std::make_unique<Kestrel::TCPServerSocket>();
        ASSERT_EQ(listener->open("127.0.0.1", at, 2), 0);
        port = listener->port();
    }
    // One frame, accepting a connection when one waits.
    void frame()
    {
        if (listener && listener->isPendingConnection(0)) {
            accepted = std::make_shared<SessionConnection>(listener->accept(), true, *server);
            accepted->run();
        }
        Tamarack::Node::runHostUpdate();
    }
    bool frames(const std::function<bool()> &condition)
    {
        return eventually([&] {
            frame();
            return condition();
        });
    }
    bool joined() { return accepted && accepted->hasSession() && client->isConnected(); }
    // The accepting side drops the connection; with `closeListener` it goes away altogether.
    void drop(bool closeListener)
    {
        accepted->stop();
        accepted->waitEnd(0);
        accepted.reset();
        if (closeListener)
            listener.reset();
    }

    Tamarack::Node serverRoot, clientRoot;
    Loomy::RemoteNode *server = new Loomy::RemoteNode(&serverRoot, "shared");
    Loomy::RemoteNode *clientNode = new Loomy::RemoteNode(&clientRoot, "shared");
    std::unique_ptr<Kestrel::TCPServerSocket> listener;
    int port = 0;
    std::shared_ptr<SessionConnection> accepted;
    std::shared_ptr<SessionConnection> client = std::make_shared<SessionConnection>(nullptr, false, *clientNode);
};

// The accepting side goes away and comes back on its port while the client keeps its tree; both
// change values meanwhile. The client reconnects within its retry period, and the new session
// leaves both trees with the accepting side's values.
TEST_F(Restarts, ReconnectionAfterARestartEndsWithTheAuthoritativeSidesValues)
{
    for (const char *name : {"a", "b"}) {
        auto *attribute = new Tamarack::AttributeT<float>;
        server->addDeepAttribute(name, attribute);
        attribute->setValue(name[0] == 'a' ? 1.f : 2.f);
    }
    ASSERT_TRUE(frames([&] { return value(*clientNode, "a") == 1.f && value(*clientNode, "b") == 2.f; }));

    drop(true);
    ASSERT_TRUE(frames([&] { return !client->isConnected(); }));
    dynamic_cast<Tamarack::AttributeT<float> *>(server->attribute("a"))->setValue(5.f);
    dynamic_cast<Tamarack::AttributeT<float> *>(clientNode->attribute("b"))->setValue(7.f);
    {
        // What the lost session may leave unsent: its announcement of the client's a. Delivered
        // to the new session ahead of that session's own, it made the client's later announcement
        // of a no first contact, so the accepting side took a=1 and the trees parted.
        Tamarack::Node oldRoot;
        auto *old = new Loomy::RemoteNode(&oldRoot, "shared");
        auto *a = new Tamarack::AttributeT<float>;
        old->addDeepAttribute("a", a);
        a->setValue(1.f);
        Loomy::BundleControllerParams params;
        params.useGlobalUpdate = false;
        params.connection = std::make_shared<Loomy::Loomy1Connection>(client);
        Loomy::BundleController::create(*old, params)->update();
        ASSERT_GT(client->bufferedDataSize(), 0);
    }
    const auto down = std::chrono::steady_clock::now();
    open(port);

    ASSERT_TRUE(frames([&] { return joined(); }));
    // Within the 3 s retry period, with room for a loaded machine; a missed attempt costs 3 s more.
    EXPECT_LT(std::chrono::steady_clock::now() - down, std::chrono::milliseconds(4500));
    EXPECT_TRUE(frames([&] { return value(*clientNode, "a") == 5.f && value(*clientNode, "b") == 2.f; }))
        << value(*clientNode, "a") << " " << value(*clientNode, "b");
    // Whatever else is under way lands within a few frames more.
    int settle = 30;
    frames([&] { return --settle == 0; });
    EXPECT_EQ((std::vector<float>{value(*clientNode, "a"), value(*clientNode, "b"), value(*server, "a"),
                                  value(*server, "b")}),
              (std::vector<float>{5.f, 2.f, 5.f, 2.f}));
}

// The synchronised leaves, as "path=value", sorted.
QStringList dump(Loomy::RemoteNode &node)
{
    QStringList out;
    Loomy::walkAttributesWithPath(node, [&](Tamarack::Attribute &attribute, const QByteArray &path) {
        if (auto *f = dynamic_cast<Tamarack::AttributeT<float> *>(&attribute))
            out << path + '=' + QString::number(f->value());
        else if (auto *i = dynamic_cast<Tamarack::AttributeT<int> *>(&attribute))
            out << path + "=int " + QString::number(i->value());
    });
    out.sort();
    return out;
}

class RestartsRandom : public Restarts, public ::testing::WithParamInterface<unsigned>
{
protected:
    // A random step on the side's own half of the paths ("s" or "c"): an addition or a change of a
    // float or int, the type fixed by the name (the peer's copy must take the value). No removals:
    // after a restart both sides hold every path on their own account, and a removal then leaves
    // the other side's copy alone, by design.
    void work(Loomy::RemoteNode &node, const char *half) { work(node, half, unsigned(random() % 32)); }
    void work(Loomy::RemoteNode &node, const char *half, unsigned n)
    {
        const QByteArray group = QByteArray(half) + "/g" + QByteArray::number(n % 4);
        const QByteArray name = "v" + QByteArray::number(n);
        auto *parent = dynamic_cast<Tamarack::Node *>(node.attribute(half));
        parent = parent ? dynamic_cast<Tamarack::Node *>(parent->attribute(group.mid(2))) : nullptr;
        Tamarack::Attribute *attribute = parent ? parent->attribute(name) : nullptr;
        if (!attribute) {
            if (n % 2)
                node.addDeepAttribute(group + '/' + name, new Tamarack::AttributeT<float>);
            else
                node.addDeepAttribute(group + '/' + name, new Tamarack::AttributeT<int>);
        } else if (auto *f = dynamic_cast<Tamarack::AttributeT<float> *>(attribute)) {
            f->setValue(float(random() % 1000) / 8);
        } else if (auto *i = dynamic_cast<Tamarack::AttributeT<int> *>(attribute)) {
            i->setValue(int(random() % 1000));
        }
    }
    // Frames with work on both sides until the condition holds (or for `seconds` when null).
    bool workingFrames(double seconds, const std::function<bool()> &condition)
    {
        const auto end = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
        while (std::chrono::steady_clock::now() < end) {
            for (int i = 0; i < 3; ++i) {
                work(*server, "s");
                work(*clientNode, "c");
            }
            frame();
            if (condition && condition())
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return !condition;
    }
    std::mt19937 random{GetParam()};
};

// Both sides write their own halves in every frame while the accepting side cuts the connection
// three times, and go on writing while it is down. Each connection outlives the 3 s retry period,
// so the client is back at once. When writing stops the trees end equal: at each first contact the
// accepting side's values win, and what either side added meanwhile reaches the other.
TEST_P(RestartsRandom, TreesEndEqualWhenWritingStops)
{
    TraceCapture trace;
    ASSERT_TRUE(workingFrames(10, [&] { return joined(); }));
    for (int cut = 0; cut < 3; ++cut) {
        workingFrames(3.2, nullptr);
        drop(false);
        ASSERT_TRUE(workingFrames(10, [&] { return joined(); })) << "cut " << cut;
    }
    workingFrames(0.3, nullptr);
    // At first contact the accepting side's value goes back to the client as a change, which may
    // cross a newer write of the client: the two then end apart, as the protocol has it, until the
    // path is written again. So the sides settle, then write every path of their halves once more.
    int settle = 50;
    frames([&] { return --settle == 0; });
    for (unsigned n = 0; n < 32; ++n) {
        work(*server, "s", n);
        work(*clientNode, "c", n);
    }
    EXPECT_TRUE(frames([&] { return dump(*server) == dump(*clientNode); }));
    EXPECT_EQ(dump(*server).join('\n'), dump(*clientNode).join('\n'));
    EXPECT_GT(dump(*server).size(), 20);
    EXPECT_EQ(trace.lines(Level::Warning) + trace.lines(Level::Error), QStringList());
}

INSTANTIATE_TEST_SUITE_P(Seeds, RestartsRandom, ::testing::Values(1u));

} // namespace
