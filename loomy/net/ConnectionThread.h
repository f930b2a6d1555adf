#pragma once
#include "loomy/loomy_export.h"

#include "kestrel/Condition.h"
#include "kestrel/Mutex.h"
#include "kestrel/Thread.h"
#include "kestrel/TimeStamp.h"
#include "tamarack/Node.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QString>

#include <atomic>
#include <memory>

namespace Kestrel { class BinaryData; class TCPSocket; }

/// \class Loomy::ConnectionThread
/// One end of a TCP connection between two peers: a stream of text lines, with raw blocks behind
/// the lines that announce them.
///
///   - Lines are UTF-8 and end at the first CR or LF; empty lines are skipped, so CR LF is one
///     terminator. Senders end lines with LF alone. There is no length limit.
///   - A raw block has no terminator; its length stands in the line before it, and the parser
///     that recognises the line reads it through readData() before the next line is read.
///   - "ping" and "ping <payload>" are answered at once with the same line made "pong"; a pong
///     line switches on the writer's keep-alive (see WriterThread). Both only while usePing().
///
/// Before the lines, a handshake: the accepting side (server role) sends its banner
/// "Lanternwick <major>.<minor>.<patch>[-suffix]" and 64 random bytes; the connecting side
/// (client role) sends its banner (to a server of at least 1.9.1), the login name and the MD5 of
/// first 32 bytes + login secret + last 32 bytes; the server answers "ok" or one failure line.
///
/// Threads: the connection's own thread ("LoomyConn") connects, shakes hands, reads and calls
/// parse(); everything written after the handshake goes through the WriterThread ("LoomyWriter"),
/// so that a reader never blocks a sender. The writing operations, queue(), ping(), stop() and
/// connectToHost() may be called from any thread; line(), readData(), skip() and readMap() only
/// from the connection's thread, inside parse().
///
/// Lifetime: kept in a std::shared_ptr. The destructor stops and joins both threads before the
/// socket goes, so it must not run on the connection's own thread. A subclass calls stop() and
/// waitEnd(0) in its own destructor, since both threads call its overrides; the connection's
/// thread joins the writer before it ends.
namespace Loomy {

class WriterThread;

class LOOMY_EXPORT ConnectionThread : public Kestrel::Thread,
                                      public Tamarack::Node,
                                      public std::enable_shared_from_this<ConnectionThread>
{
public:
    /// `socket`: owned from now on; null on the client side until the first connect succeeds.
    /// `accepted`: the socket came from a server's accept (server role, no connecting, no retry).
    ConnectionThread(Kestrel::TCPSocket *socket, bool accepted);
    ~ConnectionThread() override;
    ConnectionThread(const ConnectionThread &) = delete;
    ConnectionThread &operator=(const ConnectionThread &) = delete;

    /// Connects, retries every 3.0 seconds from start to start, serves; on an accepted socket,
    /// serves once.
    void childLoop() override;
    /// Asks the connection to end: wakes a retry wait, cuts a connect short, closes the socket.
    /// Doesn't join; waitEnd() does.
    virtual void stop();
    /// "write-error" (from the writer) ends the connection; "data-written" is accepted.
    void eventProcess(const QByteArray &id, Kestrel::BinaryData &data) override;

    /// Stores the address and starts the thread, or moves a running one to the new address.
    void connectToHost(const QString &host, int port);
    /// True between a successful handshake and the end of the connection; any thread.
    bool isConnected() const;
    /// Bytes read from the socket so far; any thread.
    unsigned long long rxBytes() const;
    /// Bytes written to the socket so far; any thread.
    unsigned long long txBytes() const;
    /// Bytes handed to the writer and not yet sent; any thread.
    long long bufferedDataSize() const;
    /// The writer of this connection, owned by it and never null.
    WriterThread *writerThread() { return m_writer; }
    /// Whether ping lines are answered and the writer keeps the connection alive; any thread.
    bool usePing() const { return m_usePing; }
    /// Switches ping handling; any thread.
    void setUsePing(bool usePing) { m_usePing = usePing; }
    /// False: a lost or failed connection isn't tried again. Default true.
    void setReconnect(bool reconnect) { m_reconnect = reconnect; }
    /// The address given to connectToHost(); any thread.
    QString host() const;
    /// The port given to connectToHost() (5000 until then); any thread.
    int port() const;

    /// Size guard for a peer on an open network; 0 (the default) is unlimited, as the protocol has
    /// it. A bundle larger than maxBundleSize (header included), or a line, raw block or map block
    /// longer than maxValueLength, is refused before anything is allocated for it: one error line
    /// is logged and the connection ends. Set before the thread starts or from any thread.
    void setMaxBundleSize(long long bytes) { m_maxBundleSize = bytes; }
    /// The bundle size guard; 0 is unlimited. Any thread.
    long long maxBundleSize() const { return m_maxBundleSize; }
    /// Sets the guard for one line, raw block or map block; see setMaxBundleSize(). Any thread.
    void setMaxValueLength(long long bytes) { m_maxValueLength = bytes; }
    /// The value length guard; 0 is unlimited. Any thread.
    long long maxValueLength() const { return m_maxValueLength; }

    /// Results of the handshake; stable while connected.
    QString remoteUser() const { return m_remoteUser; }
    /// The peer's banner version, as it stood in the banner.
    QString remoteVersionText() const { return m_remoteVersionText; }
    /// The suffix of the peer's banner version, empty if none.
    QString remoteSuffix() const { return m_remoteSuffix; }
    /// Sets the peer's version; called by the handshake.
    void setRemoteVersion(int major, int minor, int patch, QString suffix);
    /// True if the remote version is at least the given one (numbers, not text).
    bool remoteVersion(int major, int minor, int patch) const;
    /// Whether the peer takes bundles: at least 2.2.0, or at least 2.0.4 with "bramble" in the suffix.
    bool isLoomy15Supported() const;

    /// Reading, on the connection's thread only. Every failure logs, stops the writer and ends the
    /// connection. An empty result is a failure.
    QString line();
    QByteArray readData(int count);                   ///< exactly count bytes; empty if count < 1
    bool readData(unsigned char *target, int count);  ///< true at once if count < 1
    /// Reads and drops count bytes; on the connection's thread only.
    void skip(int count);
    /// `count` key and value pairs behind a map command line (see buildMapBuffer).
    QMap<QString, QString> readMap(int count);
    /// Ends the connection as a failed read does, for a parser that can't follow the stream.
    void abortRead();
    /// False, logged as "<operation> # <size> bytes exceed the limit of <limit>, closing connection",
    /// with the connection ended, if a limit is set and `size` is over it.
    bool withinLimit(const char *operation, long long size, long long limit);

    /// Straight to the socket: for the handshake, and for what runs under m_sendMutex.
    bool writeData(const void *data, int size);
    bool puts(QString text);                          ///< adds the LF
    /// Through the writer, from any thread. Callers supply the line terminators; empty data or an
    /// empty list is dropped. The key tags the unit (see WriterThread) and isn't sent.
    void writeBufferData(QByteArray data, QByteArray key);
    /// Through the writer, as writeBufferData(), with the text in UTF-8.
    void writeBuffer(QString text, QByteArray key);
    /// The blocks go out back to back, with nothing between them.
    void writeBuffer(const QList<QByteArray> &blocks, QByteArray key);
    /// Sent at once when connected; otherwise kept and sent behind the first ping of the next
    /// connection, in order.
    void queue(QString line);
    /// Sends "ping <payload>" through the writer; any thread.
    void ping(const QByteArray &payload);
    /// "<command> <pairs>\n", then to a peer of at least 1.9.1 one BinaryData (an int32 item with
    /// the block's total size, then key and value strings in key order), to an older peer
    /// "key\nvalue\n" per pair with LFs removed.
    QByteArray buildMapBuffer(const QString &command, const QMap<QString, QString> &map) const;
    /// Hands buildMapBuffer's result to the writer with an empty key.
    void writeMapBuffer(const QString &command, const QMap<QString, QString> &map);

protected:
    /// Handshake, then the line loop, then teardown; on the connection's thread.
    virtual void handleConnection();
    /// Runs with m_sendMutex held; true if the connection may go on.
    virtual bool handshake();
    /// One line without its terminator; false if it wasn't understood (logged, not fatal).
    virtual bool parse(QString line) = 0;
    /// On the connection's thread, after the handshake succeeded and before the first line.
    virtual void connected() {}
    /// On the connection's thread, once the connection has ended, whatever ended it.
    virtual void disconnected() {}
    /// Client side: connects to host() and port(); on the connection's thread. False if it failed.
    virtual bool openConnection();
    /// Client side only: a connect failed.
    virtual void connectionFailed() {}
    /// During the wait between two attempts, after each step of it.
    virtual void retryProgress(double secondsLeft) { (void)secondsLeft; }
    /// On the connection's thread, for each "pong" line; the payload as it came.
    virtual void pong(const QByteArray &payload) { (void)payload; }

    /// The socket, null while none is open; its owner is this connection.
    Kestrel::TCPSocket *socket() const { return m_socket.load(std::memory_order_relaxed); }

    /// Lock order: m_sendMutex is never taken while the writer's own mutex is held (and the
    /// reverse); m_retryMutex, m_pendingMutex and m_addressMutex are leaves.
    Kestrel::Mutex m_sendMutex{true};                 ///< held while bytes go to the socket
    Kestrel::Mutex m_retryMutex;                      ///< guards the wait between two attempts
    Kestrel::Condition m_retryCondition;              ///< woken by stop()
    std::atomic<Kestrel::TCPSocket *> m_socket;       ///< owned; set once by the connection's thread
    QString m_remoteUser;                             ///< written by the handshake only
    /// False while no connection is to be served: after stop(), a failed handshake, or a lost
    /// connection that is not retried.
    std::atomic<bool> m_running{true};
    /// True while a handshaken connection stands.
    std::atomic<bool> m_connected{false};
    int m_remoteMajor = 0;                            ///< version fields: written by the handshake only
    /// Minor part of the peer's version.
    int m_remoteMinor = 0;
    /// Patch part of the peer's version.
    int m_remotePatch = 0;
    /// Suffix of the peer's version.
    QString m_remoteSuffix;
    /// The peer's version as its banner wrote it.
    QString m_remoteVersionText;
    /// The socket came from a server's accept: no connecting, no retry.
    const bool m_acceptedSocket;
    /// A lost or failed connection is tried again; see setReconnect().
    std::atomic<bool> m_reconnect{true};
    /// stop() was called and no connectToHost() since.
    std::atomic<bool> m_stopped{false};
    WriterThread *m_writer;                           ///< owned, never null
    Kestrel::Mutex m_pendingMutex;                    ///< guards m_pending
    /// Lines queue() keeps until the next connection; guarded by m_pendingMutex.
    QList<QByteArray> m_pending;
    /// Monotonic time of the last bytes read: written by the connection's thread, read by the writer.
    std::atomic<Kestrel::TimeStamp> m_lastReceived{Kestrel::TimeStamp()};
    std::atomic<bool> m_pingActive{false};            ///< a pong was seen; never cleared
    /// See usePing().
    std::atomic<bool> m_usePing{true};
    std::atomic<long long> m_maxBundleSize{0};        ///< see setMaxBundleSize()
    std::atomic<long long> m_maxValueLength{0};       ///< see setMaxValueLength()
    double m_pingTimeout = 10.0;                      ///< seconds of silence before the writer gives up

private:
    friend class WriterThread;

    bool readExactly(char *target, int count);

    mutable Kestrel::Mutex m_addressMutex;            ///< guards m_host, m_port
    QString m_host;
    int m_port = 5000;
    Kestrel::Mutex m_connectingMutex;                 ///< guards m_connecting
    Kestrel::TCPSocket *m_connecting = nullptr;       ///< a first socket while it connects
};

} // namespace Loomy
