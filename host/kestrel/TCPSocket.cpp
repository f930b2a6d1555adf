#include "kestrel/TCPSocket.h"

#include "kestrel/SocketDescriptor.h"
#include "kestrel/Trace.h"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <fcntl.h>
#include <netdb.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <string>
#include <sys/socket.h>
#include <unistd.h>

namespace Kestrel {

namespace {

const int s_connectSliceMs = 100;   // how soon a close() during open() is noticed
// Reads smaller than this are served from a buffer filled by one recv of up to this size, so that
// reading a protocol line byte by byte costs no system call per byte. Larger reads go straight
// into the caller's memory once the buffer is empty; the buffer is small so that little of a
// large block behind a line is copied twice.
const int s_readAhead = 8192;

// Connects a fresh non-blocking socket, watching for close() on `descriptor` between slices.
int connectWithin(SocketDescriptor &descriptor, int fd, const sockaddr *address, socklen_t length,
                  std::chrono::steady_clock::time_point deadline)
{
    if (::connect(fd, address, length) == 0)
        return 0;
    if (errno != EINPROGRESS)
        return errno;
    for (;;) {
        if (descriptor.isClosing())
            return ECANCELED;
        const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - std::chrono::steady_clock::now());
        if (left.count() <= 0)
            return ETIMEDOUT;
        pollfd p{fd, POLLOUT, 0};
        const int ready = ::poll(&p, 1, int(std::min<long long>(left.count(), s_connectSliceMs)));
        if (ready < 0 && errno != EINTR)
            return errno;
        if (ready > 0)
            break;
    }
    int error = 0;
    socklen_t errorLength = sizeof error;
    if (::getsockopt(fd, SOL_SOCKET, SO_ERROR, &error, &errorLength) != 0)
        return errno;
    return error;
}

} // namespace

class TCPSocket::D
{
public:
    SocketDescriptor descriptor;
    std::atomic<unsigned long long> rx{0};
    std::atomic<unsigned long long> tx{0};
    std::atomic<int> writeTimeoutMs{0};
    std::atomic<bool> writeTimedOut{false};
    // The reading thread's: bytes received and not yet delivered are input[inputBegin, inputEnd).
    std::unique_ptr<char[]> input;
    int inputBegin = 0;
    int inputEnd = 0;
};

TCPSocket::TCPSocket()
    : m_d(std::make_unique<D>())
{
}

TCPSocket::TCPSocket(int fd)
    : TCPSocket()
{
    if (fd >= 0)
        m_d->descriptor.reset(fd);
}

TCPSocket::~TCPSocket()
{
    TCPSocket::close();
}

int TCPSocket::open(const char *host, int port, int timeoutMilliseconds)
{
    close();
    m_d->inputBegin = m_d->inputEnd = 0;   // what the last connection left unread isn't this one's
    // One deadline for all the addresses of the name, so that the caller's limit holds.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(std::max(timeoutMilliseconds, 0));
    addrinfo hints{};
    hints.ai_family = AF_UNSPEC;
    hints.ai_socktype = SOCK_STREAM;
    addrinfo *found = nullptr;
    const std::string service = std::to_string(port);
    const int gai = ::getaddrinfo(host, service.c_str(), &hints, &found);
    if (gai != 0) {
        Trace::debug("TCPSocket::open # Can't resolve %s: %s", host ? host : "", gai_strerror(gai));
        return EHOSTUNREACH;
    }
    int result = EHOSTUNREACH;
    for (addrinfo *a = found; a; a = a->ai_next) {
        const int fd = ::socket(a->ai_family, a->ai_socktype | SOCK_CLOEXEC | SOCK_NONBLOCK, a->ai_protocol);
        if (fd < 0) {
            result = errno;
            continue;
        }
        // Published before connecting, so that a close() from another thread can abort the attempt.
        if (!m_d->descriptor.reset(fd)) {
            result = EBUSY;
            break;
        }
        const int inUse = m_d->descriptor.acquire();
        if (inUse < 0) {
            result = ECANCELED;
            break;
        }
        result = connectWithin(m_d->descriptor, inUse, a->ai_addr, a->ai_addrlen, deadline);
        if (result == 0)
            ::fcntl(inUse, F_SETFL, ::fcntl(inUse, F_GETFL) & ~O_NONBLOCK);
        m_d->descriptor.release();
        if (result == 0 || result == ECANCELED)
            break;
        m_d->descriptor.close();
    }
    ::freeaddrinfo(found);
    if (result != 0) {
        m_d->descriptor.close();
        Trace::debug("TCPSocket::open # Can't connect to %s:%d: %s", host ? host : "", port, std::strerror(result));
    }
    return result;
}

int TCPSocket::read(void *buffer, int bytes, Flags flags)
{
    if (bytes <= 0)
        return 0;
    const int fd = m_d->descriptor.acquire();
    if (fd < 0)
        return 0;
    char *out = static_cast<char *>(buffer);
    int done = 0;
    // Invariant: bytes are delivered in the order they came, the buffered ones first; the buffer
    // is refilled only once it is empty.
    const auto takeBuffered = [&] {
        const int step = std::min(bytes - done, m_d->inputEnd - m_d->inputBegin);
        if (step <= 0)
            return;   // nothing buffered; the buffer may not even exist yet
        std::memcpy(out + done, m_d->input.get() + m_d->inputBegin, size_t(step));
        m_d->inputBegin += step;
        done += step;
    };
    takeBuffered();
    while (done < bytes && (done == 0 || (flags & WaitAll))) {
        const bool direct = bytes - done >= s_readAhead;
        if (!direct && !m_d->input)
            m_d->input.reset(new char[s_readAhead]);
        const ssize_t n = direct ? ::recv(fd, out + done, size_t(bytes - done), 0)
                                 : ::recv(fd, m_d->input.get(), size_t(s_readAhead), 0);
        if (n > 0) {
            if (direct) {
                done += int(n);
            } else {
                m_d->inputBegin = 0;
                m_d->inputEnd = int(n);
                takeBuffered();
            }
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else {
            break;   // 0: the peer closed (or we shut down); below 0: the connection failed
        }
    }
    m_d->rx += (unsigned long long)done;
    m_d->descriptor.release();
    return done;
}

int TCPSocket::write(const void *buffer, int bytes)
{
    if (bytes <= 0)
        return 0;
    const int fd = m_d->descriptor.acquire();
    if (fd < 0)
        return 0;
    const char *in = static_cast<const char *>(buffer);
    int done = 0;
    const int timeoutMs = m_d->writeTimeoutMs.load();
    m_d->writeTimedOut = false;
    while (done < bytes) {
        // MSG_NOSIGNAL: a vanished peer is a short count, not a SIGPIPE for the whole process.
        // With a time-out the send doesn't block; the wait for room is the poll below.
        const ssize_t n = ::send(fd, in + done, size_t(bytes - done), MSG_NOSIGNAL | (timeoutMs > 0 ? MSG_DONTWAIT : 0));
        if (n > 0) {
            done += int(n);
            m_d->tx += (unsigned long long)n;
        } else if (n < 0 && errno == EINTR) {
            continue;
        } else if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK) && timeoutMs > 0) {
            // close() shuts the socket down, which ends the poll at once.
            pollfd p{fd, POLLOUT, 0};
            const int ready = ::poll(&p, 1, timeoutMs);
            if (ready <= 0 || m_d->descriptor.isClosing()) {
                m_d->writeTimedOut = ready == 0;
                break;
            }
        } else {
            break;
        }
    }
    m_d->descriptor.release();
    return done;
}

void TCPSocket::setWriteTimeout(int milliseconds)
{
    m_d->writeTimeoutMs = std::max(0, milliseconds);
}

bool TCPSocket::writeTimedOut() const
{
    return m_d->writeTimedOut.load();
}

void TCPSocket::close()
{
    m_d->descriptor.close();
}

bool TCPSocket::isOpen() const
{
    return m_d->descriptor.isOpen();
}

bool TCPSocket::setNoDelay(bool noDelay)
{
    const int fd = m_d->descriptor.acquire();
    if (fd < 0)
        return false;
    const int value = noDelay ? 1 : 0;
    const bool ok = ::setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &value, sizeof value) == 0;
    m_d->descriptor.release();
    return ok;
}

int TCPSocket::localPort() const
{
    return m_d->descriptor.localPort();
}

unsigned long long TCPSocket::rxBytes() const
{
    return m_d->rx.load();
}

unsigned long long TCPSocket::txBytes() const
{
    return m_d->tx.load();
}

} // namespace Kestrel
