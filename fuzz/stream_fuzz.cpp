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
#include <QDateTime>
#include <QDir>
#include <QDirIterator>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

const QByteArray s_original = "the original bytes of /a.txt\n";

std::unique_ptr<QTemporaryDir> s_home;   // removed at exit
QString s_root;

// The asset root as each input finds it: /a.txt alone, as it was, with the same time as ever. One
// root for the whole run, so that the scans' cache stays one small entry that matches the folder:
// no input pays for hashing or for writing the cache, and the cache doesn't grow with every input.
// Most inputs leave the root as they found it; then nothing is written.
void resetRoot()
{
    const QDateTime time = QDateTime::fromSecsSinceEpoch(1000000000);
    QFile file(s_root + "/a.txt");
    const QStringList names = QDir(s_root).entryList(QDir::AllEntries | QDir::Hidden | QDir::NoDotAndDotDot);
    if (names == QStringList{"a.txt"} && file.fileTime(QFileDevice::FileModificationTime) == time &&
        file.open(QIODevice::ReadOnly) && file.readAll() == s_original)
        return;
    file.close();
    if (!QDir(s_root).removeRecursively() || !QDir().mkpath(s_root) || !file.open(QIODevice::WriteOnly) ||
        file.write(s_original) != s_original.size() || !file.flush() ||
        !file.setFileTime(time, QFileDevice::FileModificationTime))
        std::abort();
}

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
    s_home = std::make_unique<QTemporaryDir>();
    QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, s_home->path() + "/config");
    QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, s_home->path() + "/config");
    qputenv("XDG_DATA_HOME", (s_home->path() + "/data").toUtf8());
    s_root = s_home->path() + "/assets";
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    resetRoot();
    const QByteArray input(reinterpret_cast<const char *>(data), int(size));
    {
        // As a server keeps one for all its connections; the scan forgets what the last input
        // left in its lists, as the folder has been reset.
        static Loomy::AssetBase *assets = new Loomy::AssetBase(s_root);
        assets->buildFileList(nullptr);
        Fuzz::Peer peer;
        auto handler = std::make_shared<Handler>(peer.socket(), *assets, s_root);
        peer.sendAndEnd("Lanternwick 2.14.4\n" + QByteArray(64, 'c') + "ok\n" + input);
        handler->serve();
        handler->controller->update();
        handler->stop();
        peer.close();
    }

    QDirIterator it(s_root, QDir::Files | QDir::Hidden, QDirIterator::Subdirectories);
    while (it.hasNext()) {
        const QString path = it.next();
        if (path.endsWith(".filesync.part")) {
            std::fprintf(stderr, "a part file outlived its connection: %s\n", qUtf8Printable(path));
            std::abort();
        }
    }
    const QByteArray now = readAll(s_root + "/a.txt");
    const QByteArray md5 = QCryptographicHash::hash(now, QCryptographicHash::Md5).toHex();
    if (now != s_original && !input.toLower().contains(md5)) {
        std::fprintf(stderr, "/a.txt is neither the old file nor one announced by the sender\n");
        std::abort();
    }
    return 0;
}
