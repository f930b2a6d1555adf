// An application that serves its tree and the files of an asset folder.
//
//   loomy-serve-example <port> <asset folder>     (port 0 picks one; it is printed)
//
// The tree "shared" holds a title, the list of the folder's files with their MD5s, and the port
// of the file server, so that a peer knows what it can fetch and where (see mirror.cpp). It runs
// until it is killed.
#include "Peer.h"

#include "tamarack/AttributeT.h"
#include "tamarack/Node.h"

#include <QStringList>

#include <chrono>
#include <cstdlib>
#include <thread>

namespace {

template <typename T>
void add(Loomy::RemoteNode &node, const QByteArray &path, const T &value)
{
    auto *attribute = new Tamarack::AttributeT<T>;   // owned by the tree
    node.addDeepAttribute(path, attribute);
    attribute->setValue(value);
}

// The port a server listens on once it is bound; 0 if it isn't within ten seconds.
int boundPort(Server &server)
{
    for (int i = 0; i < 1000 && server.port() == 0; ++i)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    return server.port();
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 3) {
        std::fprintf(stderr, "usage: loomy-serve-example <port> <asset folder>\n");
        return 2;
    }
    Tamarack::Node app;
    auto *shared = new Loomy::RemoteNode(&app, "shared");   // owned by app

    Loomy::AssetBase assets(QString::fromLocal8Bit(argv[2]));
    QStringList names, md5s;
    for (const QString &name : assets.buildFileList(nullptr).keys()) {
        names << name;
        md5s << assets.md5(name);
    }
    Server files([&](Kestrel::TCPSocket *socket) { return std::make_shared<Files>(socket, assets); });
    files.run("127.0.0.1", 0);
    if (!boundPort(files))
        return 1;

    add(*shared, "title", QString("served by loomy-serve-example"));
    add(*shared, "assets/files", names);
    add(*shared, "assets/md5", md5s);
    add(*shared, "assets/port", files.port());

    Server tree([&](Kestrel::TCPSocket *socket) { return std::make_shared<Peer>(socket, *shared); });
    tree.run("127.0.0.1", std::atoi(argv[1]));
    if (!boundPort(tree))
        return 1;
    std::printf("listening on port %d, %d files\n", tree.port(), int(names.size()));
    std::fflush(stdout);

    for (;;) {   // the frame loop: sends what changed, applies what arrived
        Tamarack::Node::runHostUpdate();
        std::this_thread::sleep_for(std::chrono::milliseconds(16));
    }
}
