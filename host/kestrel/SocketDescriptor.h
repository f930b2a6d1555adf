#pragma once
// Internal to Kestrel: a socket descriptor shared between threads. Not part of the interface.

#include <mutex>

namespace Kestrel {

// Keeps a descriptor number from being reused while any thread may still pass it to the kernel.
// Users bracket each system call with acquire()/release(); close() shuts the socket down at once,
// which wakes users blocked in it, and the descriptor itself is closed by whoever leaves last.
class SocketDescriptor
{
public:
    SocketDescriptor() = default;
    ~SocketDescriptor();
    SocketDescriptor(const SocketDescriptor &) = delete;
    SocketDescriptor &operator=(const SocketDescriptor &) = delete;

    // Installs a new descriptor (taking ownership). Fails, closing `fd`, while the previous one is
    // still held by a user.
    bool reset(int fd);
    // The descriptor, counted as in use until release(); -1 when there is none or it is closing.
    int acquire();
    void release();
    void close();
    bool isOpen() const;
    bool isClosing() const;
    int localPort();              // the bound port; 0 without a descriptor

private:
    mutable std::mutex m_mutex;   // guards the rest
    int m_fd = -1;
    int m_users = 0;
    bool m_closing = false;       // shut down; m_fd is closed when m_users drops to 0
};

} // namespace Kestrel
