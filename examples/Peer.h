// What the serving and the mirroring example share: a peer of a tree over TCP, a file transfer
// connection, and a server that makes either for each socket it accepts.
#pragma once
#include "loomy/assets/AssetBase.h"
#include "loomy/assets/FileTransferHandler.h"
#include "loomy/assets/ServerBase.h"
#include "loomy/bundle/Loomy1Support.h"
#include "loomy/net/ConnectionThread.h"
#include "loomy/net/WriterThread.h"
#include "loomy/sync/RemoteNode.h"

#include <cstdio>
#include <functional>
#include <memory>
#include <mutex>

// One peer of a RemoteNode: a session while the connection stands, so that each new connection
// starts a new session.
class Peer : public Loomy::ConnectionThread
{
public:
    // socket: null on the connecting side; an accepted socket on the serving side, whose session
    // is authoritative (its values win where both trees hold an attribute).
    Peer(Kestrel::TCPSocket *socket, Loomy::RemoteNode &node)
        : ConnectionThread(socket, socket != nullptr), m_node(node), m_authoritative(socket != nullptr)
    {
    }
    ~Peer() override
    {
        stop();
        waitEnd(0);
    }
    // Any thread.
    bool hasSession()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_controller != nullptr;
    }
    // For the frame thread at the end, once the connection's thread has ended.
    void dropSession()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_controller.reset();
    }

protected:
    // connected(), disconnected() and parse() all run on the connection's own thread.
    void connected() override
    {
        // Bundles that the last connection's session left unsent belong to that session only.
        writerThread()->removeFromBuffer("loomy2");
        Loomy::BundleControllerParams params;
        params.createMissingAttributes = true;
        params.authoritative = m_authoritative;
        params.connection = std::make_shared<Loomy::Loomy1Connection>(weak_from_this());
        auto controller = Loomy::BundleController::create(m_node, params);
        std::lock_guard<std::mutex> lock(m_mutex);
        m_controller = std::move(controller);
    }
    void disconnected() override { dropSession(); }
    bool parse(QString line) override
    {
        std::shared_ptr<Loomy::BundleController> controller;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            controller = m_controller;
        }
        return Loomy::processLoomy2(controller, *this, line);
    }

private:
    Loomy::RemoteNode &m_node;
    const bool m_authoritative;
    std::mutex m_mutex;   // guards m_controller: made and dropped on the connection's thread, read by others
    std::shared_ptr<Loomy::BundleController> m_controller;
};

// Moves files between the asset folder of this process and the peer's.
class Files : public Loomy::FileTransferHandler
{
public:
    Files(Kestrel::TCPSocket *socket, Loomy::AssetBase &assets)
        : FileTransferHandler(socket, socket != nullptr, assets)
    {
    }
    ~Files() override
    {
        stop();
        waitEnd(0);
    }
    QString assetRoot() override { return m_assets.root(); }
    void reserved() override {}
    void downloadProgress(long long bytes, const QString &name) override
    {
        std::printf("%s: %lld bytes more\n", qUtf8Printable(name), bytes);
    }
};

// Makes a connection of the caller's kind for each accepted socket.
class Server : public Loomy::ServerBase
{
public:
    using Make = std::function<std::shared_ptr<Loomy::ConnectionThread>(Kestrel::TCPSocket *)>;
    explicit Server(Make make) : m_make(std::move(make)) {}
    ~Server() override { shutdown(); }

protected:
    std::shared_ptr<Loomy::ConnectionThread> createConnection(Kestrel::TCPSocket *socket) override
    {
        return socket ? m_make(socket) : nullptr;   // null: accept failed
    }

private:
    Make m_make;
};
