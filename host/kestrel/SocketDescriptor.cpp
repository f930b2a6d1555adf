#include "kestrel/SocketDescriptor.h"

#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace Kestrel {

SocketDescriptor::~SocketDescriptor()
{
    // No user can be left: users are members of the same owner, which is being destroyed.
    if (m_fd >= 0)
        ::close(m_fd);
}

bool SocketDescriptor::reset(int fd)
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fd >= 0) {
        if (m_users > 0) {
            ::close(fd);
            return false;
        }
        ::close(m_fd);
    }
    m_fd = fd;
    m_closing = false;
    return true;
}

int SocketDescriptor::acquire()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fd < 0 || m_closing)
        return -1;
    ++m_users;
    return m_fd;
}

void SocketDescriptor::release()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (--m_users == 0 && m_closing) {
        ::close(m_fd);
        m_fd = -1;
        m_closing = false;
    }
}

void SocketDescriptor::close()
{
    std::lock_guard<std::mutex> lock(m_mutex);
    if (m_fd < 0 || m_closing)
        return;
    ::shutdown(m_fd, SHUT_RDWR);
    if (m_users == 0) {
        ::close(m_fd);
        m_fd = -1;
    } else {
        m_closing = true;
    }
}

bool SocketDescriptor::isOpen() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_fd >= 0 && !m_closing;
}

bool SocketDescriptor::isClosing() const
{
    std::lock_guard<std::mutex> lock(m_mutex);
    return m_closing;
}

int SocketDescriptor::localPort()
{
    const int fd = acquire();
    if (fd < 0)
        return 0;
    sockaddr_storage address{};
    socklen_t length = sizeof address;
    int port = 0;
    if (::getsockname(fd, reinterpret_cast<sockaddr *>(&address), &length) == 0) {
        if (address.ss_family == AF_INET)
            port = ntohs(reinterpret_cast<sockaddr_in *>(&address)->sin_port);
        else if (address.ss_family == AF_INET6)
            port = ntohs(reinterpret_cast<sockaddr_in6 *>(&address)->sin6_port);
    }
    release();
    return port;
}

} // namespace Kestrel
