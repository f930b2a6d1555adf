#pragma once
#include "loomy/net/ConnectionThread.h"
#include "loomy/net/WriterThread.h"

#include "kestrel/BinaryData.h"
#include "kestrel/TCPServerSocket.h"
#include "kestrel/TCPSocket.h"
#include "kestrel/KestrelTestUtil.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QMap>
#include <QStringList>

#include <gtest/gtest.h>

#include <functional>
#include <iosfwd>
#include <memory>
#include <mutex>
#include <utility>
#include <vector>

inline void PrintTo(const QString &text, std::ostream *out) { *out << '"' << text.toStdString() << '"'; }

// A connection whose hooks record what they see, and whose parser reads a map behind "map <n>",
// refuses lines beginning with "unknown" and takes and records everything else. Recorded state
// is guarded, so the test thread may look at any time.
class RecordingConnection : public Loomy::ConnectionThread
{
public:
    using Loomy::ConnectionThread::ConnectionThread;
    ~RecordingConnection() override
    {
        stop();
        waitEnd(0);
        writerThread()->waitEnd(0);   // tests also start the writer by themselves
    }

    QStringList lines() const { Lock l(m_mutex); return m_lines; }
    QStringList hooks() const { Lock l(m_mutex); return m_hooks; }
    QList<QMap<QString, QString>> maps() const { Lock l(m_mutex); return m_maps; }
    std::vector<std::pair<QByteArray, int>> written() const { Lock l(m_mutex); return m_written; }
    int writeErrors() const { Lock l(m_mutex); return m_writeErrors; }
    bool pingActive() const { return m_pingActive; }
    bool running() const { return m_running; }
    void setPingTimeout(double seconds) { m_pingTimeout = seconds; }

    void eventProcess(const QByteArray &id, Kestrel::BinaryData &data) override
    {
        if (id == "data-written") {
            QByteArray key;
            data.readString(key);
            const int size = data.readInt32();
            Lock l(m_mutex);
            m_written.emplace_back(key, size);
        } else if (id == "write-error") {
            Lock l(m_mutex);
            ++m_writeErrors;
        }
        Loomy::ConnectionThread::eventProcess(id, data);
    }

protected:
    bool parse(QString line) override
    {
        if (line.startsWith("unknown"))
            return false;
        if (line.startsWith("map ")) {
            const auto map = readMap(line.mid(4).toInt());
            Lock l(m_mutex);
            m_maps << map;
        }
        Lock l(m_mutex);
        m_lines << line;
        return true;
    }
    void connected() override { hook("connected"); }
    void disconnected() override { hook("disconnected"); }
    void connectionFailed() override { hook("connectionFailed"); }
    void pong(const QByteArray &payload) override { hook("pong(" + payload + ")"); }
    void hook(const QString &what) { Lock l(m_mutex); m_hooks << what; }

private:
    using Lock = std::lock_guard<std::mutex>;
    mutable std::mutex m_mutex;
    QStringList m_lines, m_hooks;
    QList<QMap<QString, QString>> m_maps;
    std::vector<std::pair<QByteArray, int>> m_written;
    int m_writeErrors = 0;
};

// The other end, raw: a socket the test drives byte by byte.
class RawPeer
{
public:
    explicit RawPeer(Kestrel::TCPSocket *socket) : m_socket(socket) {}
    QByteArray line()   // up to the LF, without it; what came before EOF otherwise
    {
        QByteArray out;
        char c;
        while (m_socket->read(&c, 1, true) == 1 && c != '\n')
            out += c;
        return out;
    }
    QByteArray bytes(int count)
    {
        QByteArray out(count, '\0');
        out.resize(m_socket->read(out.data(), count, true));
        return out;
    }
    void send(const QByteArray &bytes) { ASSERT_EQ(m_socket->write(bytes.constData(), bytes.size()), bytes.size()); }
    bool atEnd()   // the other side closed
    {
        char c;
        return m_socket->read(&c, 1, false) == 0;
    }
    Kestrel::TCPSocket &socket() { return *m_socket; }

private:
    std::unique_ptr<Kestrel::TCPSocket> m_socket;
};

// A loopback pair: the listener's side accepted, the other connected.
struct SocketPair
{
    SocketPair()
    {
        EXPECT_EQ(server.open("127.0.0.1", 0, 4), 0);
        connecting = new Kestrel::TCPSocket;
        EXPECT_EQ(connecting->open("127.0.0.1", server.port()), 0);
        EXPECT_TRUE(server.isPendingConnection(10 * 1000 * 1000));
        accepted = server.accept();
    }
    Kestrel::TCPServerSocket server;
    Kestrel::TCPSocket *connecting = nullptr;   // owned by whoever takes it
    Kestrel::TCPSocket *accepted = nullptr;
};

inline QByteArray digestOf(const QByteArray &first, const QByteArray &second)
{
    return QCryptographicHash::hash(first + "tollytolly" + second, QCryptographicHash::Md5);
}

// The client's side of a successful handshake against a connection in the server role.
inline void loginAsClient(RawPeer &peer, const QByteArray &banner = "Lanternwick 2.14.4")
{
    EXPECT_EQ(peer.line(), "Lanternwick 2.14.4");
    const QByteArray challenge = peer.bytes(64);
    peer.send(banner + "\ntolly\n" + digestOf(challenge.left(32), challenge.mid(32)));
    EXPECT_EQ(peer.line(), "ok");
}
