#include "loomy/assets/ServerBase.h"

#include "net/NetTestUtil.h"
#include "common/TraceCapture.h"

#include "kestrel/TimeStamp.h"
#include "tamarack/Node.h"

#include <gtest/gtest.h>

#include <atomic>

using Loomy::ConnectionThread;

namespace {

// Records its callbacks; the connections it makes are plain recording ones.
class Server : public Loomy::ServerBase
{
public:
    ~Server() override { shutdown(); }

    std::vector<std::weak_ptr<ConnectionThread>> made() const { Lock l(m_mutex); return m_made; }
    QStringList calls() const { Lock l(m_mutex); return m_calls; }
    int removed() const { Lock l(m_mutex); return m_removed; }
    int port() const { return Kestrel::TCPServerSocket::port(); }

protected:
    std::shared_ptr<ConnectionThread> createConnection(Kestrel::TCPSocket *socket) override
    {
        auto connection = std::make_shared<RecordingConnection>(socket, true);
        Lock l(m_mutex);
        m_made.push_back(connection);
        return connection;
    }
    void connected(std::shared_ptr<ConnectionThread> c) override { call("connected", c); }
    void disconnected(std::shared_ptr<ConnectionThread> c) override { call("disconnected", c); }
    void removedInstance(std::shared_ptr<ConnectionThread> c) override
    {
        call("removed", c);
        Lock l(m_mutex);
        ++m_removed;
    }

private:
    using Lock = std::lock_guard<std::mutex>;
    void call(const char *what, const std::shared_ptr<ConnectionThread> &c)
    {
        Lock l(m_mutex);
        int index = 0;
        while (index < int(m_made.size()) && m_made[index].lock() != c)
            ++index;
        m_calls << QStringLiteral("%1 %2").arg(what).arg(index);
    }
    mutable std::mutex m_mutex;
    std::vector<std::weak_ptr<ConnectionThread>> m_made;
    QStringList m_calls;
    int m_removed = 0;
};

std::shared_ptr<RecordingConnection> client(int port)
{
    auto connection = std::make_shared<RecordingConnection>(nullptr, false);
    connection->setReconnect(false);
    connection->connectToHost("127.0.0.1", port);
    return connection;
}

} // namespace

// Three clients; the first leaves: its removal moves the last entry into its place, and the
// object itself goes at the next host update, not before. Asked for port 0, the server logs the
// port it was given.
TEST(ServerBase, ListAfterTheFirstOfThreeClientsLeavesAndTheObjectGoesAtTheHostUpdate)
{
    TraceCapture trace;
    Server server;
    server.run("127.0.0.1", 0);
    ASSERT_TRUE(eventually([&] { return trace.lines(Kestrel::Trace::Level::Info).filter("Listening").size() == 1; }));
    EXPECT_EQ(trace.lines(Kestrel::Trace::Level::Info).filter("Listening"),
              QStringList{QStringLiteral("Listening 127.0.0.1:%1").arg(server.port())});
    EXPECT_NE(server.port(), 0);
    std::vector<std::shared_ptr<RecordingConnection>> clients;
    for (int i = 0; i < 3; ++i) {
        clients.push_back(client(server.port()));
        ASSERT_TRUE(eventually([&] { return server.calls().size() == i + 1; })) << i;
    }
    EXPECT_EQ(server.calls(), (QStringList{"connected 0", "connected 1", "connected 2"}));
    const auto made = server.made();
    const auto list = [&] {
        QStringList out;
        for (const auto &c : server.instances())
            out << QString::number(std::find_if(made.begin(), made.end(), [&](auto &w) { return w.lock() == c; }) - made.begin());
        return out;
    };
    EXPECT_EQ(list(), (QStringList{"0", "1", "2"}));

    clients[0]->stop();
    clients[0]->waitEnd(0);
    ASSERT_TRUE(eventually([&] { return server.removed() == 1; }));
    EXPECT_EQ(server.calls().mid(3), (QStringList{"disconnected 0", "removed 0"}));
    EXPECT_EQ(list(), (QStringList{"2", "1"}));
    EXPECT_FALSE(made[0].expired()) << "the last reference waits for the host update";
    Tamarack::Node::runHostUpdate();
    EXPECT_TRUE(made[0].expired());

    server.stop(true);
    ASSERT_TRUE(eventually([&] { return server.removed() == 3; }));
    EXPECT_TRUE(server.instances().isEmpty());
    Tamarack::Node::runHostUpdate();
    EXPECT_TRUE(made[1].expired() && made[2].expired());
}

// A client that fails its handshake sends no "disconnected", so it stays listed until the
// connections are closed.
TEST(ServerBase, AConnectionThatFailsItsHandshakeStaysListed)
{
    TraceCapture trace;
    Server server;
    server.run("127.0.0.1", 0);
    ASSERT_TRUE(eventually([&] { return server.port() != 0; }));
    {
        Kestrel::TCPSocket *socket = new Kestrel::TCPSocket;
        ASSERT_EQ(socket->open("127.0.0.1", server.port()), 0);
        RawPeer peer(socket);
        peer.line();
        peer.bytes(64);
        peer.send("Nobody 9.9\n");
        EXPECT_EQ(peer.line(), "Wrong username or password");
    }
    ASSERT_TRUE(eventually([&] { return trace.count("Handshake failed, closing connection") == 1; }));
    ASSERT_TRUE(eventually([&] { return server.made().size() == 1 && !server.made()[0].lock()->isRunning(); }));
    EXPECT_EQ(server.instances().size(), 1);
    EXPECT_EQ(server.removed(), 0);
    server.stop(false);
    server.closeConnections();
    EXPECT_TRUE(server.instances().isEmpty());
}

// A peer that connects and never speaks, and one that logs in with a wrong digest: each blocks
// or ends only its own connection, and a good client is served meanwhile.
TEST(ServerBase, SilentAndWrongPeersDoNotStopTheServing)
{
    Server server;
    server.run("127.0.0.1", 0);
    ASSERT_TRUE(eventually([&] { return server.port() != 0; }));
    const auto raw = [&] {
        auto *socket = new Kestrel::TCPSocket;
        EXPECT_EQ(socket->open("127.0.0.1", server.port()), 0);
        return std::make_unique<RawPeer>(socket);
    };
    const auto silent = raw();
    const auto wrong = raw();
    EXPECT_EQ(wrong->line(), "Lanternwick 2.14.4");
    wrong->bytes(64);
    wrong->send("Lanternwick 2.14.4\ntolly\n" + QByteArray(16, 'd'));
    EXPECT_EQ(wrong->line(), "Wrong username or password");
    EXPECT_TRUE(wrong->atEnd());
    const auto good = client(server.port());
    ASSERT_TRUE(eventually([&] { return good->isConnected(); }));
    // The server's side of the good connection may finish its login after the client's.
    EXPECT_TRUE(eventually([&] { return !server.calls().isEmpty(); }));
    EXPECT_EQ(server.calls(), QStringList{"connected 2"});
    EXPECT_EQ(silent->line().left(11), "Lanternwick");   // its connection still waits for a login
}

// The port is held by another socket: the server retries silently (the firewall call at every
// attempt) and binds within 5 seconds of the port's release.
TEST(ServerBase, BindsATakenPortWithinFiveSecondsOfItsRelease)
{
    Kestrel::TCPServerSocket blocker;
    ASSERT_EQ(blocker.open("127.0.0.1", 0, 2), 0);
    const int port = blocker.port();
    const QString firewall = QStringLiteral("PlatformUtils::openFirewallPortTCP # No firewall to configure for port %1 (Loomy test)").arg(port);
    const QString listening = QStringLiteral("Listening 127.0.0.1:%1").arg(port);
    TraceCapture trace;
    Server server;
    server.setAutoFirewallRules(true, "Loomy test");
    server.run("127.0.0.1", port);
    ASSERT_TRUE(eventually([&] { return trace.count(firewall) == 1; }));
    blocker.close();
    const Kestrel::TimeStamp released = Kestrel::TimeStamp::monotonicTime();
    ASSERT_TRUE(eventually([&] { return trace.count(listening) == 1; }));
    EXPECT_LT((Kestrel::TimeStamp::monotonicTime() - released).seconds(), 6.0) << "5.0 and a margin for a busy machine";
    EXPECT_EQ(server.port(), port);
    const QStringList lines = trace.lines();
    EXPECT_EQ(lines.count(firewall), 2) << "one call per attempt: the failed one and the one that bound";
    EXPECT_EQ(lines.indexOf(listening), lines.lastIndexOf(firewall) + 1) << lines.join('\n').toStdString();
}
