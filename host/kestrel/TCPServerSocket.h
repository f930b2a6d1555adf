#pragma once
#include "kestrel/kestrel_export.h"

#include <memory>

namespace Kestrel {

class TCPSocket;

// A listening TCP socket. close() may come from another thread than the one waiting in
// isPendingConnection() or accept(): it wakes that thread, and the descriptor is released only
// after it has left.
class KESTREL_EXPORT TCPServerSocket
{
public:
    TCPServerSocket();
    virtual ~TCPServerSocket();   // closes
    TCPServerSocket(const TCPServerSocket &) = delete;
    TCPServerSocket &operator=(const TCPServerSocket &) = delete;

    // Binds with SO_REUSEADDR and listens. A null or empty host means all interfaces; port 0
    // picks a free port (see port()). Returns 0 or an errno value.
    int open(const char *host, int port, int backlog);
    // The bound port, 0 when not open.
    int port() const;
    // True when accept() would not block; waits at most `waitMicroseconds` for that.
    bool isPendingConnection(unsigned waitMicroseconds);
    // The next connection, owned by the caller; null when closed or on failure (logged).
    TCPSocket *accept();
    virtual void close();

private:
    class D;
    std::unique_ptr<D> m_d;
};

} // namespace Kestrel
