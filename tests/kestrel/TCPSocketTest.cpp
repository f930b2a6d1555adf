#include "kestrel/TCPSocket.h"

#include "kestrel/TCPServerSocket.h"
#include "KestrelTestUtil.h"

#include <gtest/gtest.h>

#include <QByteArray>

#include <cerrno>
#include <memory>

using Kestrel::TCPServerSocket;
using Kestrel::TCPSocket;

namespace {

// A connected pair over the loopback interface.
class TCPSocketPair : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(server.open("127.0.0.1", 0, 4), 0);
        ASSERT_EQ(client.open("127.0.0.1", server.port()), 0);
        ASSERT_TRUE(server.isPendingConnection(10 * 1000 * 1000));
        accepted.reset(server.accept());
        ASSERT_NE(accepted, nullptr);
    }

    TCPServerSocket server;
    TCPSocket client;
    std::unique_ptr<TCPSocket> accepted;
};

} // namespace

// Bytes are counted on both sides, and a peer's close ends reads short.
TEST_F(TCPSocketPair, BytesTravelBothWaysAndOnlyAWaitAllReadWaitsForTheWholeCount)
{
    auto writer = std::async(std::launch::async, [&] {
        client.write("abc", 3);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        client.write("defgh", 5);
    });
    QByteArray in(100000, '\0');
    EXPECT_EQ(accepted->read(in.data(), 8, true), 8);
    EXPECT_EQ(in.left(8), "abcdefgh");
    writer.get();
    const QByteArray reply(100000, 'r');   // more than one segment
    auto replier = std::async(std::launch::async, [&] { return accepted->write(reply.constData(), reply.size()); });
    EXPECT_EQ(client.read(in.data(), in.size(), true), reply.size());
    EXPECT_EQ(replier.get(), reply.size());
    EXPECT_EQ(in, reply);
    EXPECT_EQ(client.txBytes(), 8u);
    EXPECT_EQ(client.rxBytes(), 100000u);
    EXPECT_EQ(accepted->rxBytes(), 8u);
    EXPECT_EQ(accepted->txBytes(), 100000u);
    client.write("xyz", 3);
    int got = 0;
    for (int i = 0; i < 3 && got < 3; ++i)   // TCP may split even three bytes
        got += accepted->read(in.data() + got, 64 - got, TCPSocket::NoFlags);
    EXPECT_EQ(in.left(got), "xyz");
    client.write("!", 1);
    client.close();
    EXPECT_EQ(accepted->read(in.data(), 10, true), 1);
    EXPECT_EQ(accepted->read(in.data(), 10, false), 0);
}

// Small reads come from the read-ahead buffer: mixed with large ones they keep the byte order, a
// read without WaitAll returns what is buffered without waiting for more, and the counter counts
// bytes delivered.
TEST_F(TCPSocketPair, ReadsOfEverySizeKeepTheOrderAndABufferedReadDoesNotWait)
{
    QByteArray sent(300000, Qt::Uninitialized);
    for (int i = 0; i < sent.size(); ++i)
        sent[i] = char(i * 7 + i / 251);
    auto writer = std::async(std::launch::async, [&] { return client.write(sent.constData(), sent.size()); });
    QByteArray got(sent.size(), '\0');
    int at = 0;
    for (const int size : {1, 29, 70000, 3, 65536, 100, 131072}) {
        ASSERT_EQ(accepted->read(got.data() + at, size, true), size) << at;
        at += size;
    }
    while (at < sent.size()) {
        const int n = accepted->read(got.data() + at, 7, false);
        ASSERT_GT(n, 0);
        at += n;
    }
    EXPECT_EQ(writer.get(), sent.size());
    EXPECT_EQ(got, sent);
    EXPECT_EQ(accepted->rxBytes(), (unsigned long long)sent.size());

    client.write("hello", 5);
    ASSERT_EQ(accepted->read(got.data(), 1, true), 1);
    int rest = 0;   // "ello" may be buffered already, or come in more than one piece
    while (rest < 4)
        rest += accepted->read(got.data() + 1 + rest, 100, false);
    EXPECT_EQ(rest, 4) << "no read waits for more than the peer sent";
    EXPECT_EQ(got.left(5), "hello");
}

// After the close the peer's writes come back short, without a SIGPIPE that would end the tests.
TEST_F(TCPSocketPair, CloseFromAnotherThreadWakesABlockedReadAndThePeerWritesShort)
{
    auto reader = std::async(std::launch::async, [&] {
        char in[16];
        return accepted->read(in, 16, true);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));   // let it block in the kernel
    accepted->close();
    ASSERT_TRUE(ready(reader)) << "read still blocked after close()";
    EXPECT_EQ(reader.get(), 0);
    char in[1];
    EXPECT_EQ(accepted->read(in, 1, true), 0);
    EXPECT_EQ(accepted->write("a", 1), 0);
    const QByteArray chunk(65536, 'w');
    int written = chunk.size();
    for (int i = 0; i < 200 && written == chunk.size(); ++i)   // the first may still fit in the kernel's buffer
        written = client.write(chunk.constData(), chunk.size());
    EXPECT_LT(written, chunk.size());
}

// A peer that never reads: with a write time-out the write returns short once the buffers are
// full, and the connection stays usable for a close; without one it would block for ever.
TEST_F(TCPSocketPair, AWriteTimeOutEndsAWriteThatCannotProgress)
{
    client.setWriteTimeout(200);
    const QByteArray block(64 << 20, 'w');   // far more than the kernel's buffers on both sides
    auto writer = std::async(std::launch::async, [&] { return client.write(block.constData(), block.size()); });
    ASSERT_TRUE(ready(writer)) << "write still blocked";
    const int written = writer.get();
    EXPECT_GT(written, 0);
    EXPECT_LT(written, block.size());
    EXPECT_EQ(client.txBytes(), (unsigned long long)written);
}

TEST(TCPServerSocket, ListenerHoldsItsPortUntilACloseFromAnotherThreadEndsTheWait)
{
    TCPServerSocket server, second;
    ASSERT_EQ(server.open(nullptr, 0, 1), 0);   // every interface
    const int port = server.port();
    EXPECT_FALSE(server.isPendingConnection(1000));
    EXPECT_EQ(second.open("127.0.0.1", port, 1), EADDRINUSE);
    // The wait is longer than the patience, so a wait that ends within it was ended by close().
    auto waiter = std::async(std::launch::async, [&] { return server.isPendingConnection(60 * 1000 * 1000); });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    server.close();
    ASSERT_TRUE(ready(waiter)) << "close() didn't end the wait";
    EXPECT_FALSE(waiter.get());
    EXPECT_EQ(server.accept(), nullptr);
    EXPECT_EQ(server.port(), 0);
    TCPSocket socket;
    EXPECT_EQ(socket.open("127.0.0.1", port), ECONNREFUSED);
}

// A listener whose backlog is full leaves further connects unanswered: the caller's limit ends them.
TEST(TCPSocket, OpenGivesUpAfterItsTimeout)
{
    TCPServerSocket server;
    ASSERT_EQ(server.open("127.0.0.1", 0, 0), 0);
    int result = 0;
    for (int i = 0; i < 4 && result != ETIMEDOUT; ++i) {
        TCPSocket socket;
        const auto start = std::chrono::steady_clock::now();
        result = socket.open("127.0.0.1", server.port(), 200);
        EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(1000));
    }
    EXPECT_EQ(result, ETIMEDOUT);
}
