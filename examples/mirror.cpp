// A client that mirrors a served tree and downloads the files the tree lists.
//
//   loomy-mirror-example <host> <port> <download folder>
//
// It connects to loomy-serve-example, waits for "assets/files", "assets/md5" and "assets/port"
// to arrive, fetches each listed file into the folder over a second connection, prints the tree
// and the files with their MD5s, and leaves: status 0 once every file arrived with the listed
// MD5, 1 after 30 seconds without.
#include "Peer.h"

#include "tamarack/AttributeT.h"
#include "tamarack/Node.h"

#include <QStringList>

#include <chrono>
#include <cstdlib>
#include <thread>

namespace {

// Reads the value at a "/"-separated path below node; false if no attribute of that type is there.
template <typename T>
bool get(Tamarack::Node &node, const QByteArray &path, T &out)
{
    Tamarack::Attribute *at = &node;
    for (const QByteArray &name : path.split('/')) {
        auto *inner = dynamic_cast<Tamarack::Node *>(at);
        at = inner ? inner->attribute(name) : nullptr;
    }
    auto *attribute = dynamic_cast<Tamarack::AttributeT<T> *>(at);
    if (attribute)
        out = attribute->value();
    return attribute != nullptr;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc != 4) {
        std::fprintf(stderr, "usage: loomy-mirror-example <host> <port> <download folder>\n");
        return 2;
    }
    const QString host = QString::fromLocal8Bit(argv[1]);
    Tamarack::Node app;
    auto *shared = new Loomy::RemoteNode(&app, "shared");   // owned by app
    auto peer = std::make_shared<Peer>(nullptr, *shared);
    peer->connectToHost(host, std::atoi(argv[2]));          // retried until it stands

    Loomy::AssetBase downloads(QString::fromLocal8Bit(argv[3]));
    std::shared_ptr<Files> files;
    QStringList names, md5s;
    bool requested = false, done = false;
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(30);
    while (!done && std::chrono::steady_clock::now() < deadline) {   // the frame loop
        Tamarack::Node::runHostUpdate();
        std::this_thread::sleep_for(std::chrono::milliseconds(16));
        if (!files) {
            int port = 0;
            if (!get(*shared, "assets/files", names) || !get(*shared, "assets/md5", md5s)
                || !get(*shared, "assets/port", port))
                continue;
            files = std::make_shared<Files>(nullptr, downloads);
            files->connectToHost(host, port);
        } else if (!requested && files->isConnected()) {
            for (const QString &name : names)
                files->requestFileInfo(name);   // the download of each begins with its info
            requested = true;
        } else if (requested) {
            done = true;
            for (int i = 0; i < names.size(); ++i)
                done = done && downloads.md5(names[i]) == md5s[i];
        }
    }

    QString title;
    get(*shared, "title", title);
    std::printf("title: %s\n", qUtf8Printable(title));
    for (int i = 0; i < names.size(); ++i)
        std::printf("%s %s\n", qUtf8Printable(names[i]), qUtf8Printable(downloads.md5(names[i])));
    if (files) {
        files->stop();
        files->waitEnd(0);
    }
    peer->stop();
    peer->waitEnd(0);
    peer.reset();
    Tamarack::Node::runHostUpdate();   // releases the session while the tree still stands
    return done ? 0 : 1;
}
