// Two processes keep one attribute tree equal over TCP.
//
//   loomy-pair-example accept <port>          the left side: listens on 127.0.0.1 (0 picks a port)
//   loomy-pair-example connect <host> <port>  the right side
//
// Each process is what an application has: its own tree with a Loomy::RemoteNode in it, a
// connection (a Loomy::ConnectionThread subclass; on the accepting side made by a
// Loomy::ServerBase subclass for the socket it accepts), and for each connection that stands a
// Loomy::BundleController whose bundles go out through a Loomy::Loomy1Connection. The
// connection's parser hands "loomy2" lines to Loomy::processLoomy2, which schedules the bundles
// on the controller; the frame loop (Tamarack::Node::runHostUpdate, 60 times a second) applies
// them and sends what changed here.
//
// The script: each side starts with its own attributes and makes the other's from what arrives.
// After 30 frames of the session both change their own values, after 60 both add one, after 90
// the right changes its copy of a left attribute. Then each raises its "done/<side>" flag; as
// batches keep their order, a side that sees the peer's flag has everything the peer did. Both
// print their tree, one "path type value" line per attribute, and leave; the trees are equal if
// the printouts are (tools/run-example.sh and the example's test compare them).
#include "Peer.h"

#include "tamarack/AttributeT.h"
#include "tamarack/Node.h"
#include "wisket/Vector.h"

#include <QStringList>

#include <chrono>
#include <cstdio>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <thread>

using Tamarack::AttributeT;
using Tamarack::Node;

namespace {

// Waits up to the time for the condition, checking every 10 milliseconds.
template <typename Condition>
bool waitFor(Condition condition, std::chrono::seconds within)
{
    for (const auto deadline = std::chrono::steady_clock::now() + within; !condition();) {
        if (std::chrono::steady_clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return true;
}

// The attribute at a "/"-separated path below node, or null.
Tamarack::Attribute *find(Node &node, const QByteArray &path)
{
    Tamarack::Attribute *at = &node;
    for (const QByteArray &name : path.split('/')) {
        auto *inner = dynamic_cast<Node *>(at);
        at = inner ? inner->attribute(name) : nullptr;
    }
    return at;
}

template <typename T>
void set(Node &node, const QByteArray &path, const T &value)
{
    if (auto *attribute = dynamic_cast<AttributeT<T> *>(find(node, path)))
        attribute->setValue(value);
    else
        std::printf("missing %s\n", path.constData());
}

template <typename T>
void add(Loomy::RemoteNode &node, const QByteArray &path, const T &value)
{
    auto *attribute = new AttributeT<T>;
    node.addDeepAttribute(path, attribute);
    attribute->setValue(value);
}

// Every attribute below node by path, with its type and text.
void collect(const Node &node, const QByteArray &prefix, std::map<QByteArray, QByteArray> &out)
{
    for (const auto &child : node.attributes()) {
        const QByteArray path = prefix + child.first;
        if (auto *inner = dynamic_cast<const Node *>(child.second))
            collect(*inner, path + '/', out);
        else
            out[path] = child.second->type() + ' ' + child.second->asString().toUtf8().replace('\n', " | ");
    }
}

int usage()
{
    std::fprintf(stderr, "usage: loomy-pair-example accept <port> | connect <host> <port>\n");
    return 2;
}

} // namespace

int main(int argc, char **argv)
{
    const bool left = argc == 3 && std::strcmp(argv[1], "accept") == 0;
    if (!left && !(argc == 4 && std::strcmp(argv[1], "connect") == 0))
        return usage();
    const QByteArray me = left ? "left" : "right";
    const QByteArray peer = left ? "right" : "left";

    Node app;
    auto *shared = new Loomy::RemoteNode(&app, "shared");
    if (left) {
        add(*shared, "left/speed", 1.5f);
        add(*shared, "left/title", QString("hello"));
        add(*shared, "scene/camera/position", Wisket::Vector3f(0.f, 1.f, 5.f));
    } else {
        add(*shared, "right/count", 3);
        add(*shared, "right/tags", QStringList{"red", "round"});
    }

    std::unique_ptr<Server> server;
    std::shared_ptr<Peer> connection;
    if (left) {
        server = std::make_unique<Server>([shared](Kestrel::TCPSocket *socket) {
            return std::make_shared<Peer>(socket, *shared);
        });
        server->run("127.0.0.1", std::atoi(argv[2]));
        // A port that is taken is retried for as long as the server runs; this example gives up.
        if (!waitFor([&] { return server->port() != 0; }, std::chrono::seconds(10)))
            return 1;
        std::printf("listening on port %d\n", server->port());
        std::fflush(stdout);
        if (!waitFor([&] { return !server->instances().isEmpty(); }, std::chrono::seconds(30)))
            return 1;
        connection = std::static_pointer_cast<Peer>(server->instances().first());
    } else {
        connection = std::make_shared<Peer>(nullptr, *shared);
        connection->connectToHost(argv[2], std::atoi(argv[3]));
    }

    // The frame loop. Frames count from the first one with a session.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    int frame = 0;
    int finishing = -1;   // frames left once both flags are seen
    while (finishing != 0 && std::chrono::steady_clock::now() < deadline) {
        Node::runHostUpdate();
        std::this_thread::sleep_for(std::chrono::milliseconds(16));
        if (frame == 0 && !connection->hasSession())
            continue;
        switch (++frame) {
        case 30:
            if (left) {
                set(*shared, "left/speed", 2.5f);
                set(*shared, "left/title", QString("hello, world"));
            } else {
                set(*shared, "right/count", 4);
            }
            break;
        case 60:
            if (left)
                add(*shared, "left/exposure", 0.7f);
            else
                add(*shared, "right/gain", 2);
            break;
        case 90:
            if (!left)
                set(*shared, "left/speed", 3.0f);   // the right side's copy of a left attribute
            break;
        case 100:
            add(*shared, "done/" + me, 1);
            break;
        }
        if (finishing < 0 && frame > 100 && find(*shared, "done/" + peer))
            finishing = 30;   // lets this side's last batches leave before the socket closes
        else if (finishing > 0)
            --finishing;
    }

    std::map<QByteArray, QByteArray> tree;
    collect(*shared, "", tree);
    std::printf("== tree of the %s side\n", me.constData());
    for (const auto &row : tree)
        std::printf("%s %s\n", row.first.constData(), row.second.constData());
    std::printf("== end\n");

    // The connection's thread ends first, so that no batch arrives for a session going away. The
    // server's end finishes the connection's removal; the next pass then releases the session
    // and the connection's last reference while the tree still stands.
    if (server)
        server->stop(false);
    connection->stop();
    connection->waitEnd(0);
    connection->dropSession();
    connection.reset();
    server.reset();
    Node::runHostUpdate();
    return finishing == 0 ? 0 : 1;
}
