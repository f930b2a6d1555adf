#pragma once
#include "loomy/loomy_export.h"

#include "kestrel/TCPServerSocket.h"
#include "kestrel/Thread.h"

#include <QList>
#include <QString>

#include <memory>

namespace Kestrel { class TCPSocket; }

namespace Loomy {

class ConnectionThread;

/// Listens on a TCP port and makes a connection of the subclass's kind for each accepted socket,
/// keeps the list of live connections, and takes one down when its client goes away: its thread is
/// joined on the background pool, and its last reference is dropped at the next host update
/// (Tamarack::Node::runHostUpdate), not on any connection's or pool thread.
///
/// A port that can't be bound is tried again 5.0 seconds after the attempt began, for as long as
/// the server runs, without a message; "Listening <host>:<port>" is logged once bound.
///
/// Threads: the thread "LoomyServerBase" binds and accepts; connected() and disconnected() run on
/// the connection's own thread, removedInstance() on a background thread, all with no lock of this
/// class held. run(), stop(), instances() and closeConnections() may be called from any thread.
///
/// Lifetime: a subclass that overrides the callbacks calls shutdown() in its own destructor, so
/// that none of them runs while it is being destroyed.
class LOOMY_EXPORT ServerBase : public Kestrel::Thread, public Kestrel::TCPServerSocket
{
public:
    ServerBase();
    ~ServerBase() override;   ///< shutdown()

    /// Starts listening on host:port (an empty host: all interfaces). Nothing if already running.
    void run(QString host, int port);
    /// Ends the accept loop and closes the listening socket; with closeInstances, asks every
    /// connection to stop too. Waits for nothing.
    void stop(bool closeInstances);
    /// Stops and joins every listed connection and empties the list. Nothing while running.
    void closeConnections();
    /// The live connections of this server, oldest first; any thread.
    QList<std::shared_ptr<ConnectionThread>> instances();
    /// Takes a connection out of the list once its thread has ended; null does nothing.
    void removeInstance(std::shared_ptr<ConnectionThread> connection);
    /// Whether to ask the platform's firewall to open the port before each attempt to bind.
    void setAutoFirewallRules(bool enable, const QString &ruleName);

protected:
    /// Binds, then accepts connections until stop(); on the server's own thread.
    void childLoop() override;
    /// Makes the connection for an accepted socket, which is handed over (an `accepted`
    /// ConnectionThread takes it). The socket may be null if accept failed; a null result drops
    /// the socket's handling. The server starts the connection's thread.
    virtual std::shared_ptr<ConnectionThread> createConnection(Kestrel::TCPSocket *socket) = 0;
    /// The connection has left the list and its thread has ended.
    virtual void removedInstance(std::shared_ptr<ConnectionThread> connection);
    /// The connection's handshake succeeded / its client went away.
    virtual void connected(std::shared_ptr<ConnectionThread> connection);
    /// Called when a connection of this server has ended; drops it from the list.
    virtual void disconnected(std::shared_ptr<ConnectionThread> connection);

    /// Stops and joins the accept thread, closes the connections, and finishes every removal that
    /// is under way, on the calling thread. Idempotent; the destructor calls it.
    void shutdown();

private:
    class D;
    std::unique_ptr<D> m_d;
};

} // namespace Loomy
