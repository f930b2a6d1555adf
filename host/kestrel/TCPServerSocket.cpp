#include "kestrel/TCPServerSocket.h"

#include "kestrel/SocketDescriptor.h"
#include "kestrel/TCPSocket.h"
#include "kestrel/Trace.h"

#include <cerrno>
#include <cstring>
#include <netdb.h>
#include <poll.h>
#include <signal.h>
#include <string>
#include <sys/socket.h>
#include <time.h>

namespace Kestrel {

class TCPServerSocket::D
{
public:
    SocketDescriptor descriptor;
};

TCPServerSocket::TCPServerSocket()
    : m_d(std::make_unique<D>())
{
}

TCPServerSocket::~TCPServerSocket()
{
    TCPServerSocket::close();
}

int TCPServerSocket::open(const char *host, int port, int backlog)
{
    close();
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    hints.ai_flags = AI_PASSIVE;
    addrinfo *found = nullptr;
    const std::string service = std::to_string(port);
    const int gai = ::getaddrinfo(host && *host ? host : nullptr, service.c_str(), &hints, &found);
    if (gai != 0) {
        Trace::debug("TCPServerSocket::open # Can't resolve %s: %s", host ? host : "", gai_strerror(gai));
        return EHOSTUNREACH;
    }
    int result = EADDRNOTAVAIL;
    for (addrinfo *a = found; a; a = a->ai_next) {
        const int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC, a->ai_protocol);
        if (fd < 0) {
            result = errno;
            continue;
        }
        const int one = 1;
        ::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &one, sizeof one);
        if (::bind(fd, a->ai_addr, a->ai_addrlen) != 0 || ::listen(fd, backlog) != 0) {
            result = errno;
            ::close(fd);
            continue;
        }
        result = m_d->descriptor.reset(fd) ? 0 : EBUSY;
        break;
    }
    ::freeaddrinfo(found);
    if (result != 0)
        Trace::debug("TCPServerSocket::open # Can't listen on %s:%d: %s", host ? host : "*", port, std::strerror(result));
    return result;
}

int TCPServerSocket::port() const
{
    return m_d->descriptor.localPort();
}

bool TCPServerSocket::isPendingConnection(unsigned waitMicroseconds)
{
    const int fd = m_d->descriptor.acquire();
    if (fd < 0)
        return false;
    pollfd p{fd, POLLIN, 0};
    const timespec timeout{time_t(waitMicroseconds / 1000000), long(waitMicroseconds % 1000000) * 1000L};
    const int ready = ::ppoll(&p, 1, &timeout, nullptr);
    m_d->descriptor.release();
    // A shut-down listener reports POLLHUP (and maybe POLLIN); only a live one has connections.
    return ready > 0 && (p.revents & POLLIN) && !(p.revents & (POLLHUP | POLLERR | POLLNVAL)) &&
           m_d->descriptor.isOpen();
}

TCPSocket *TCPServerSocket::accept()
{
    const int fd = m_d->descriptor.acquire();
    if (fd < 0)
        return nullptr;
    int accepted;
    do {
        accepted = ::accept4(fd, nullptr, nullptr, SOCK_CLOEXEC);
    } while (accepted < 0 && errno == EINTR);
    const int error = errno;
    m_d->descriptor.release();
    if (accepted < 0) {
        if (m_d->descriptor.isOpen())
            Trace::warning("TCPServerSocket::accept # accept failed: %s", std::strerror(error));
        return nullptr;
    }
    return new TCPSocket(accepted);
}

void TCPServerSocket::close()
{
    m_d->descriptor.close();
}

} // namespace Kestrel
