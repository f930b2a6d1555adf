#include "kestrel/TCPSocket.h"

#include "kestrel/TCPServerSocket.h"

#include <gtest/gtest.h>

#include <QByteArray>

#include <cerrno>
#include <chrono>
#include <future>
#include <memory>
#include <thread>

using Kestrel::TCPServerSocket;
using Kestrel::TCPSocket;

namespace {

const auto s_patience = std::chrono::seconds(10);

// A connected pair over the loopback interface.
class TCPSocketPair : public ::testing::Test
{
protected:
    void SetUp() override
    {
        ASSERT_EQ(server.open("127.0.0.1", 0, 4), 0);
        ASSERT_NE(server.port(), 0);
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

TEST_F(TCPSocketPair, BytesTravelBothWaysAndAreCounted)
{
    EXPECT_EQ(client.write("hello", 5), 5);
    char in[5];
    EXPECT_EQ(accepted->read(in, 5, true), 5);
    EXPECT_EQ(QByteArray(in, 5), QByteArray("hello"));

    const QByteArray reply(100000, 'r');   // more than one segment
    auto writer = std::async(std::launch::async, [&] { return accepted->write(reply.constData(), reply.size()); });
    QByteArray got(reply.size(), '\0');
    EXPECT_EQ(client.read(got.data(), got.size(), true), reply.size());
    EXPECT_EQ(writer.get(), reply.size());
    EXPECT_EQ(got, reply);

    EXPECT_EQ(client.txBytes(), 5u);
    EXPECT_EQ(client.rxBytes(), 100000u);
    EXPECT_EQ(accepted->rxBytes(), 5u);
    EXPECT_EQ(accepted->txBytes(), 100000u);
}

TEST_F(TCPSocketPair, WaitAllCollectsSeparateWrites)
{
    auto writer = std::async(std::launch::async, [&] {
        client.write("abc", 3);
        std::this_thread::sleep_for(std::chrono::milliseconds(50));
        client.write("defgh", 5);
    });
    char in[8];
    EXPECT_EQ(accepted->read(in, 8, true), 8);
    EXPECT_EQ(QByteArray(in, 8), QByteArray("abcdefgh"));
    writer.get();
}

TEST_F(TCPSocketPair, ReadWithoutWaitAllReturnsWhatIsThere)
{
    client.write("abc", 3);
    char in[64];
    int got = 0;
    // TCP may split even three bytes; collect them with bounded plain reads.
    for (int i = 0; i < 3 && got < 3; ++i)
        got += accepted->read(in + got, 64 - got, TCPSocket::NoFlags);
    EXPECT_EQ(got, 3);
    EXPECT_EQ(QByteArray(in, 3), QByteArray("abc"));
}

TEST_F(TCPSocketPair, PeerCloseGivesAShortRead)
{
    client.write("xyz", 3);
    client.close();
    char in[10];
    EXPECT_EQ(accepted->read(in, 10, true), 3);
    EXPECT_EQ(accepted->read(in, 10, false), 0);
}

TEST_F(TCPSocketPair, CloseFromAnotherThreadWakesABlockedRead)
{
    std::promise<void> reading;
    auto reader = std::async(std::launch::async, [&] {
        reading.set_value();
        char in[16];
        return accepted->read(in, 16, true);
    });
    reading.get_future().wait();
    std::this_thread::sleep_for(std::chrono::milliseconds(50));   // let it block in the kernel
    accepted->close();
    ASSERT_EQ(reader.wait_for(s_patience), std::future_status::ready) << "read still blocked after close()";
    EXPECT_EQ(reader.get(), 0);
    EXPECT_FALSE(accepted->isOpen());
    char in[1];
    EXPECT_EQ(accepted->read(in, 1, true), 0);
    EXPECT_EQ(accepted->write("a", 1), 0);
}

TEST_F(TCPSocketPair, WriteToAVanishedPeerIsShortAndRaisesNoSignal)
{
    accepted->close();
    const QByteArray chunk(65536, 'w');
    int written = chunk.size();
    // The first writes may still land in the kernel's buffer; a reset peer fails one soon after.
    for (int i = 0; i < 200 && written == chunk.size(); ++i)
        written = client.write(chunk.constData(), chunk.size());
    EXPECT_LT(written, chunk.size());
}

TEST_F(TCPSocketPair, NoDelayNeedsAnOpenSocket)
{
    EXPECT_TRUE(client.setNoDelay(true));
    EXPECT_TRUE(client.setNoDelay(false));
    client.close();
    EXPECT_FALSE(client.setNoDelay(true));
}

TEST_F(TCPSocketPair, ReopenAfterCloseConnectsAgain)
{
    client.close();
    ASSERT_EQ(client.open("127.0.0.1", server.port()), 0);
    ASSERT_TRUE(server.isPendingConnection(10 * 1000 * 1000));
    std::unique_ptr<TCPSocket> second(server.accept());
    ASSERT_NE(second, nullptr);
    client.write("2", 1);
    char in;
    EXPECT_EQ(second->read(&in, 1, true), 1);
    EXPECT_EQ(in, '2');
}

TEST(TCPSocket, ConnectionRefusedIsReported)
{
    TCPServerSocket probe;
    ASSERT_EQ(probe.open("127.0.0.1", 0, 1), 0);
    const int port = probe.port();
    probe.close();   // nobody listens there any more
    TCPSocket socket;
    EXPECT_EQ(socket.open("127.0.0.1", port), ECONNREFUSED);
    EXPECT_FALSE(socket.isOpen());
    char in;
    EXPECT_EQ(socket.read(&in, 1, true), 0);
}

TEST(TCPServerSocket, NoPendingConnectionWithinTheWait)
{
    TCPServerSocket server;
    ASSERT_EQ(server.open(nullptr, 0, 1), 0);
    EXPECT_FALSE(server.isPendingConnection(1000));
}

TEST(TCPServerSocket, CloseFromAnotherThreadEndsTheWait)
{
    TCPServerSocket server;
    ASSERT_EQ(server.open("127.0.0.1", 0, 1), 0);
    auto waiter = std::async(std::launch::async, [&] {
        const auto start = std::chrono::steady_clock::now();
        const bool pending = server.isPendingConnection(20 * 1000 * 1000);
        return std::make_pair(pending, std::chrono::steady_clock::now() - start);
    });
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    server.close();
    ASSERT_EQ(waiter.wait_for(std::chrono::seconds(15)), std::future_status::ready);
    const auto result = waiter.get();
    EXPECT_FALSE(result.first);
    EXPECT_LT(result.second, std::chrono::seconds(15)) << "woke by the time-out, not by close()";
    EXPECT_EQ(server.accept(), nullptr);
    EXPECT_EQ(server.port(), 0);
}

TEST(TCPServerSocket, SecondListenerOnABusyPortFails)
{
    TCPServerSocket first;
    ASSERT_EQ(first.open("127.0.0.1", 0, 1), 0);
    TCPServerSocket second;
    EXPECT_EQ(second.open("127.0.0.1", first.port(), 1), EADDRINUSE);
}
