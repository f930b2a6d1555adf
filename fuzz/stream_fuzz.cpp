// The connection's byte stream after a completed login, into a FileTransferHandler that also
// takes bundle batches: lines, ping and pong, maps, "loomy2" batches, and the file commands with
// their payloads, over a socket pair, with a temporary asset root that holds one small file.
// The handler plays the client role: the input is preceded by the server's banner, a challenge
// and "ok", so that the login completes without a round trip. It runs on the fuzzer's thread
// until the input ends; then the batches it scheduled are processed.
//
// Oracle, besides the sanitizers: once the connection has ended, no ".filesync.part" file is left,
// and the one file is either as it was or a file whose MD5 was announced for it.
#include "FuzzPeer.h"

#include "loomy/assets/AssetBase.h"
#include "loomy/assets/FileTransferHandler.h"
#include "loomy/bundle/BundleController.h"
#include "loomy/bundle/Loomy1Support.h"
#include "loomy/sync/RemoteNode.h"

#include "kestrel/Trace.h"

#include <QCryptographicHash>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>

#include <cstdint>
#include <cstdio>
#include <cstdlib>

namespace {

const QByteArray s_original = "the original bytes of /a.txt\n";

QTemporaryDir *s_home = nullptr;

class Handler : public Loomy::FileTransferHandler
{
public:
    Handler(Kestrel::TCPSocket *socket, Loomy::AssetBase &assets, QString root)
        : FileTransferHandler(socket, false, assets), m_root(std::move(root))
    {
        Loomy::BundleControllerParams params;
        params.useGlobalUpdate = false;
        controller = Loomy::BundleController::create(*node, params);
        m_partSize = 16;   // many parts from small inputs
        setMaxBundleSize(1 << 20);
        setMaxValueLength(1 << 20);
    }
    ~Handler() override
    {
        stop();
        waitEnd(0);
    }
    void serve() { handleConnection(); }
    QString assetRoot() override { return m_root; }
    void reserved() override {}
    void downloadProgress(long long, const QString &) override {}

    Tamarack::Node root;
    Loomy::RemoteNode *node = new Loomy::RemoteNode(&root, "shared");
    std::shared_ptr<Loomy::BundleController> controller;

protected:
    bool parse(QString line) override
    {
        if (line.startsWith(QLatin1String("map "))) {
            readMap(line.midRef(4).toInt());
            return true;
        }
        return Loomy::processLoomy2(controller, *this, line) || FileTransferHandler::parse(line);
    }

private:
    const QString m_root;
};

QByteArray readAll(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    Kestrel::Trace::setHook([](Kestrel::Trace::Level, const QString &) {});
    // Scans keep a cache under the user's settings: one of this process, not the user's.
    s_home = new QTemporaryDir;
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, s_home->path() + "/config");
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, s_home->path() + "/config");
    qputenv("XDG_DATA_HOME", (s_home->path() + "/data").toUtf8());
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    QTemporaryDir root;
    {
        QFile file(root.path() + "/a.txt");
        if (!file.open(QIODevice::WriteOnly) || file.write(s_original) != s_original.size())
            std::abort();
    }
    const QByteArray input(reinterpret_cast<const char *>(data), int(size));
    {
        Loomy::AssetBase assets(root.path());
        assets.buildFileList(nullptr);
        Fuzz::Peer peer;
        auto handler = std::make_shared<Handler>(peer.socket(), assets, root.path());
        peer.sendAndEnd("Lanternwick 2.14.4\n" + QByteArray(64, 'c') + "ok\n" + input);
        handler->serve();
        handler->controller->update();
        handler->stop();
        peer.close();
    }

    QDirIterator it(root.path(), QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        if (path.endsWith(".filesync.part")) {
            std::fprintf(stderr, "a part file outlived its connection: %s\n", qUtf8Printable(path));
            std::abort();
        }
    }
    const QByteArray now = readAll(root.path() + "/a.txt");
    const QByteArray md5 = QCryptographicHash::hash(now, QCryptographicHash::Md5).toHex();
    if (now != s_original && !input.toLower().contains(md5)) {
        std::fprintf(stderr, "/a.txt is neither the old file nor one announced by the sender\n");
        std::abort();
    }
    return 0;
}
