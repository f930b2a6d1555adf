#pragma once
// The fuzzer's end of a connection: a socket pair, the other end handed to a ConnectionThread.
// What the connection writes is read and thrown away on a thread of its own, so that it never
// blocks on a full socket while the input is still being written.
#include "kestrel/TCPSocket.h"

#include <QByteArray>

#include <sys/socket.h>
#include <unistd.h>

#include <thread>

namespace Fuzz {

class Peer
{
public:
    Peer()
    {
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, m_fds) != 0)
            ::abort();
        m_drain = std::thread([fd = m_fds[1]] {
            char buffer[4096];
            while (::read(fd, buffer, sizeof buffer) > 0) {
            }
        });
    }
    ~Peer() { close(); }
    // The connection's end, to be owned by it.
    Kestrel::TCPSocket *socket()
    {
        auto *s = new Kestrel::TCPSocket(m_fds[0]);
        m_fds[0] = -1;
        return s;
    }
    // Sends the bytes and then the end of the stream.
    void sendAndEnd(const QByteArray &bytes)
    {
        for (int done = 0; done < bytes.size();) {
            // The connection may close first: that is a short write here, not a SIGPIPE.
            const ssize_t n = ::send(m_fds[1], bytes.constData() + done, size_t(bytes.size() - done), MSG_NOSIGNAL);
            if (n <= 0)
                break;
            done += int(n);
        }
        ::shutdown(m_fds[1], SHUT_WR);
    }
    // Once the connection has closed its end, the drain ends.
    void close()
    {
        if (m_fds[1] < 0)
            return;
        ::shutdown(m_fds[1], SHUT_RDWR);
        m_drain.join();
        ::close(m_fds[1]);
        m_fds[1] = -1;
        if (m_fds[0] >= 0)
            ::close(m_fds[0]);
    }

private:
    int m_fds[2] = {-1, -1};
    std::thread m_drain;
};

} // namespace Fuzz
