// Records the seeds of receive_fuzz: real traffic of a session from a peer that holds the same
// tree plus attributes of its own, at a few stages of its life. Each file holds all the peer sent
// from the start up to its stage, a frame after each batch. Usage: make_receive_corpus <folder>
#include "ReceiveSession.h"

#include "loomy/bundle/LocalConnection.h"
#include "loomy/sync/RemoteNode.h"
#include "kestrel/BinaryData.h"
#include "kestrel/Trace.h"

#include <QDir>
#include <QFile>

#include <cstdio>

int main(int argc, char **argv)
{
    if (argc != 2) {
        std::fprintf(stderr, "usage: %s <folder>\n", argv[0]);
        return 2;
    }
    Kestrel::Trace::setHook([](Kestrel::Trace::Level, const QString &) {});
    const QDir folder(QString::fromLocal8Bit(argv[1]));
    Tamarack::Node peerApp, localApp;
    auto *peer = new Loomy::RemoteNode(&peerApp, "remote");
    auto *local = new Loomy::RemoteNode(&localApp, "remote");
    ReceiveFuzz::makeTree(*peer);
    ReceiveFuzz::makeTree(*local);
    new Tamarack::AttributeT<float>(peer, "extra", 5.f);
    new Tamarack::AttributeT<QString>(new Tamarack::Node(new Tamarack::Node(peer, "deep"), "er"), "t", "peer's");

    Loomy::BundleControllerParams params;
    params.createMissingAttributes = true;
    Loomy::LocalSessionPair sessions = Loomy::connectLocally(*peer, params, *local, params);
    QByteArray input(1, char(ReceiveFuzz::CreateMissing));
    sessions.toSecond->setObserver([&input](const std::vector<Loomy::Bundle> &bundles) {
        for (const Loomy::Bundle &bundle : bundles)
            ReceiveFuzz::appendBundle(input, bundle);
        input += char(ReceiveFuzz::Frame);
    });
    const auto frames = [] { for (int i = 0; i < 4; ++i) Tamarack::Node::runHostUpdate(); };
    const auto save = [&](const char *name) {
        QFile file(folder.filePath(QString::fromLatin1(name)));
        if (!file.open(QIODevice::WriteOnly) || file.write(input) != input.size())
            std::fprintf(stderr, "could not write %s\n", name);
    };
    const auto at = [](Tamarack::Node &root, const char *name) { return root.attribute(name); };

    frames();
    save("initial");
    ReceiveFuzz::change(*at(*peer, "f"), 7);
    ReceiveFuzz::change(*at(*peer, "s"), 8);
    ReceiveFuzz::change(*at(*peer, "l"), 9);
    at(*peer, "g")->emitChange();
    input += char(ReceiveFuzz::LocalChange);
    input += char(1); // this side changes "i" in between
    ReceiveFuzz::change(*at(*local, "i"), 10);
    frames();
    save("changes");
    delete at(*peer, "extra");
    frames();
    new Tamarack::AttributeT<float>(peer, "extra", 6.f);
    frames();
    save("remove-readd");
    Kestrel::BinaryData small, big;
    small.writeBlob("hello", 5);
    big.writeBlob("0123456789abcdef", 16);
    peer->eventProcess("greet", small);
    peer->eventProcessSlice("large", big, 5);
    frames();
    save("events");
    sessions = Loomy::LocalSessionPair();
    Tamarack::Node::runHostUpdate();
    return 0;
}
