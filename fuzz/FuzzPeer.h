#pragma once
// The fuzzer's end of a connection: a socket pair, the other end handed to a ConnectionThread.
// What the connection writes is read and thrown away on a thread of its own, so that it never
// blocks on a full socket while the input is still being written. That thread serves every
// input of the process, one Peer at a time: a thread started and joined per input costs more
// than the input.
#include "kestrel/TCPSocket.h"

#include <QByteArray>

#include <sys/socket.h>
#include <unistd.h>

#include <condition_variable>
#include <mutex>
#include <thread>

namespace Fuzz {

class Peer
{
public:
    Peer()
    {
        if (::socketpair(AF_UNIX, SOCK_STREAM, 0, m_fds) != 0)
            ::abort();
        drain().start(m_fds[1]);
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
    // Once the connection has closed its end, the drain is done with this socket.
    void close()
    {
        if (m_fds[1] < 0)
            return;
        ::shutdown(m_fds[1], SHUT_RDWR);
        drain().finish();
        ::close(m_fds[1]);
        m_fds[1] = -1;
        if (m_fds[0] >= 0)
            ::close(m_fds[0]);
    }

private:
    // Reads one socket at a time to its end. Never destroyed: it lives as long as the process.
    class Drain
    {
    public:
        Drain() { std::thread([this] { loop(); }).detach(); }
        void start(int fd)
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            m_fd = fd;
            m_done = false;
            m_changed.notify_all();
        }
        void finish()
        {
            std::unique_lock<std::mutex> lock(m_mutex);
            m_changed.wait(lock, [this] { return m_done; });
            m_fd = -1;
        }

    private:
        void loop()
        {
            char buffer[4096];
            for (;;) {
                int fd;
                {
                    std::unique_lock<std::mutex> lock(m_mutex);
                    m_changed.wait(lock, [this] { return m_fd >= 0 && !m_done; });
                    fd = m_fd;
                }
                while (::read(fd, buffer, sizeof buffer) > 0) {
                }
                std::lock_guard<std::mutex> lock(m_mutex);
                m_done = true;
                m_changed.notify_all();
            }
        }

        std::mutex m_mutex;                  // guards the two below
        std::condition_variable m_changed;
        int m_fd = -1;                       // the socket being read, -1 between inputs
        bool m_done = true;                  // m_fd has reached its end
    };

    static Drain &drain()
    {
        static Drain *instance = new Drain;
        return *instance;
    }

    int m_fds[2] = {-1, -1};
};

} // namespace Fuzz
