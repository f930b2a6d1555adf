#pragma once
#include "kestrel/kestrel_export.h"

#include <memory>

namespace Kestrel {

// A connected TCP stream socket with blocking reads and writes.
//
// Threads: one thread may read while another writes, and close() may come from any thread: it
// shuts the connection down, which wakes a blocked read or write at once, and the descriptor is
// released only when no read or write is inside any more, so that a descriptor number reused by
// the process is never touched. Counters are atomic. Small reads are served from a read-ahead
// buffer of the reading thread, so open() is for that thread too, or for when none reads.
class KESTREL_EXPORT TCPSocket
{
public:
    enum Flags { NoFlags = 0, WaitAll = 2 };

    TCPSocket();
    // Takes ownership of a connected descriptor, such as one from accept().
    explicit TCPSocket(int fd);
    virtual ~TCPSocket();      // closes
    TCPSocket(const TCPSocket &) = delete;
    TCPSocket &operator=(const TCPSocket &) = delete;

    // Connects to host:port (name or numeric address, IPv4 or IPv6), closing a previous
    // connection first. Gives up after `timeoutMilliseconds` (ETIMEDOUT), or when close() is
    // called meanwhile (ECANCELED). Returns 0 or an errno value (EHOSTUNREACH when the name
    // doesn't resolve).
    int open(const char *host, int port, int timeoutMilliseconds = 10000);

    // Without WaitAll: waits for at least one byte and returns what is there, up to `bytes`.
    // With WaitAll: waits until all bytes came or the connection failed. Returns the count read,
    // never negative: a count below `bytes` with WaitAll, or 0 without it, means the connection
    // was closed or failed.
    int read(void *buffer, int bytes, Flags flags);
    virtual int read(void *buffer, int bytes, bool waitAll) { return read(buffer, bytes, waitAll ? WaitAll : NoFlags); }
    // Blocks until all bytes are written or the connection failed; returns the count written.
    // With a write time-out, also returns short once no byte could be written for that long.
    virtual int write(const void *buffer, int bytes);
    // Milliseconds a write may wait without progress; 0 (the default) waits for ever. Any thread.
    void setWriteTimeout(int milliseconds);
    // Whether the last short write of this socket ran out of its time-out, rather than failing
    // (a peer that closed or reset). For the writing thread, after write() returned short.
    bool writeTimedOut() const;
    virtual void close();

    bool isOpen() const;       // connected and not closed
    bool setNoDelay(bool noDelay);
    int localPort() const;     // 0 when not connected
    unsigned long long rxBytes() const;
    unsigned long long txBytes() const;

private:
    class D;
    std::unique_ptr<D> m_d;
};

} // namespace Kestrel
