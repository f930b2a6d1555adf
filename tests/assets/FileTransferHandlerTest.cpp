#include "loomy/assets/FileTransferHandler.h"

#include "loomy/assets/AssetBase.h"

#include "assets/AssetsTestUtil.h"
#include "common/IsolatedHome.h"
#include "common/TraceCapture.h"

#include "kestrel/BinaryData.h"

#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <atomic>
#include <set>
#include <string>

#include <arpa/inet.h>
#include <csignal>
#include <pthread.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

using Loomy::AssetBase;

namespace {

auto *const s_home = ::testing::AddGlobalTestEnvironment(new IsolatedHome);

struct Assets : AssetBase
{
    using AssetBase::AssetBase;
    void transferFinished() override { ++finished; }
    std::atomic<int> finished{0};
};

const auto s_long = std::chrono::seconds(60);   // for transfers of many MiB on a busy machine
const long long s_part = 65536;

// A handler over one asset root that records its progress reports and "file-info" events.
class Handler : public Loomy::FileTransferHandler
{
public:
    Handler(Kestrel::TCPSocket *socket, bool accepted, Assets &assets)
        : FileTransferHandler(socket, accepted, assets), m_root(assets.root())
    {
        eventAddListener("file-info", "seen-file-info", this, DIRECT, nullptr);
    }
    ~Handler() override
    {
        stop();
        waitEnd(0);
    }
    QString assetRoot() override
    {
        char name[16] = {};
        pthread_getname_np(pthread_self(), name, sizeof name);
        Lock l(m_mutex);
        m_rootCallers.insert(name);
        return m_root;
    }
    void reserved() override {}
    void downloadProgress(long long bytes, const QString &name) override
    {
        Lock l(m_mutex);
        m_progress << QStringLiteral("%1 %2").arg(name).arg(bytes);
    }
    void eventProcess(const QByteArray &id, Kestrel::BinaryData &data) override
    {
        if (id != "seen-file-info")
            return FileTransferHandler::eventProcess(id, data);
        QString name, md5;
        data.readString(name);
        const long long size = data.readInt64(), parts = data.readInt64();
        data.readString(md5);
        Lock l(m_mutex);
        m_fileInfos << QStringLiteral("%1 %2 %3 %4").arg(name).arg(size).arg(parts).arg(md5);
    }
    QStringList progress() const { Lock l(m_mutex); return m_progress; }
    QStringList fileInfos() const { Lock l(m_mutex); return m_fileInfos; }
    std::set<std::string> rootCallers() const { Lock l(m_mutex); return m_rootCallers; }   // thread names

private:
    using Lock = std::lock_guard<std::mutex>;
    const QString m_root;
    mutable std::mutex m_mutex;
    QStringList m_progress, m_fileInfos;
    std::set<std::string> m_rootCallers;
};

// The next line that isn't the connection's own ping.
QByteArray command(RawPeer &peer)
{
    QByteArray line;
    do
        line = peer.line();
    while (line.startsWith("ping"));
    return line;
}

// The server's side of a successful handshake against a connection in the client role.
void loginAsServer(RawPeer &peer)
{
    const QByteArray challenge = pattern(64, 7);
    peer.send("Lanternwick 2.14.4\n" + challenge);
    EXPECT_EQ(peer.line(), "Lanternwick 2.14.4");
    EXPECT_EQ(peer.line(), "tolly");
    EXPECT_EQ(peer.bytes(16), digestOf(challenge.left(32), challenge.mid(32)));
    peer.send("ok\n");
}

class FileTransfer : public ::testing::Test
{
protected:
    QString up(const QString &name) const { return m_upDir.path() + name; }
    QString down(const QString &name) const { return m_downDir.path() + name; }

    // Both asset bases have ended their first scans before a handler exists.
    void makeAssets()
    {
        m_upAssets = std::make_unique<Assets>(m_upDir.path());
        m_upAssets->buildFileList(nullptr);
        m_downAssets = std::make_unique<Assets>(m_downDir.path());
        m_downAssets->buildFileList(nullptr);
    }
    // A downloader that connects to the listener, and the socket it got there.
    Kestrel::TCPSocket *connectDownloader(Kestrel::TCPServerSocket &listener)
    {
        EXPECT_EQ(listener.open("127.0.0.1", 0, 2), 0);
        m_downloader = std::make_unique<Handler>(nullptr, false, *m_downAssets);
        m_downloader->setReconnect(false);
        m_downloader->connectToHost("127.0.0.1", listener.port());
        EXPECT_TRUE(listener.isPendingConnection(10 * 1000 * 1000));
        return listener.accept();
    }
    // The downloader connects to the uploader, which has the server role.
    void connectPair()
    {
        makeAssets();
        Kestrel::TCPServerSocket listener;
        m_uploader = std::make_unique<Handler>(connectDownloader(listener), true, *m_upAssets);
        m_uploader->run();
        ASSERT_TRUE(eventually([&] { return m_downloader->isConnected() && m_uploader->isConnected(); }));
    }
    // An uploader over a socket pair, and the scripted downloader's end of it, logged in.
    std::unique_ptr<RawPeer> startUploader()
    {
        SocketPair pair;
        m_uploader = std::make_unique<Handler>(pair.accepted, true, *m_upAssets);
        m_uploader->run();
        auto peer = std::make_unique<RawPeer>(pair.connecting);
        loginAsClient(*peer);
        return peer;
    }
    // Requests the file and waits for the end of its download, whatever the outcome.
    void download(const QString &name)
    {
        const int before = m_downAssets->finished;
        m_downloader->requestFileInfo(name);
        ASSERT_TRUE(eventually([&] { return m_downAssets->finished == before + 1; }, s_long)) << name.toStdString();
    }

    QTemporaryDir m_upDir, m_downDir;
    std::unique_ptr<Assets> m_upAssets, m_downAssets;
    std::unique_ptr<Handler> m_uploader, m_downloader;
};

} // namespace

// Sizes around the part boundary arrive byte for byte; a file that the uploader lacks gets no
// answer; a second request while the name downloads is refused and doesn't disturb the first;
// progress comes every 20 parts and at the end.
TEST_F(FileTransfer, FilesArriveByteExact)
{
    const std::vector<std::pair<QString, long long>> files = {
        {"/empty", 0}, {"/one", 1}, {"/sub/dir/exact", s_part}, {"/over", s_part + 1}, {"/many", 45 * s_part - 1000}};
    for (const auto &file : files)
        writeFile(up(file.first), pattern(file.second, file.second));
    writeFile(down("/over"), "an older version");
    TraceCapture trace;
    connectPair();

    m_downloader->requestFileInfo("/nope");
    ASSERT_TRUE(eventually([&] {
        return trace.count("FileTransferHandler::commitUpload#  file '" + up("/nope") + "' doesn't exist. Not uploaded") == 1;
    }));
    m_downloader->requestFileInfo("/over");   // twice: the second is refused on arrival
    download("/over");
    EXPECT_EQ(trace.count("File '/over' is being downloaded already"), 1);
    for (const auto &file : files) {
        if (file.first != "/over")
            download(file.first);
    }

    QMap<QString, QString> infos;
    for (const auto &file : files) {
        SCOPED_TRACE(file.first.toStdString());
        const QByteArray sent = pattern(file.second, file.second);
        const QByteArray got = readFile(down(file.first));
        EXPECT_EQ(got.size(), sent.size());
        EXPECT_TRUE(got == sent);
        EXPECT_EQ(md5Hex(got), md5Hex(sent));
        EXPECT_FALSE(QFile::exists(down(file.first) + ".filesync.part"));
        EXPECT_EQ(m_downAssets->md5(file.first), md5Hex(sent)) << "the file list knows it";
        const long long parts = (file.second + s_part - 1) / s_part;
        infos[file.first] = QStringLiteral("%1 %2 %3 %4").arg(file.first).arg(file.second).arg(parts).arg(md5Hex(sent));
    }
    EXPECT_EQ(m_downloader->fileInfos(), (QStringList{infos["/over"], infos["/over"], infos["/empty"], infos["/one"],
                                                      infos["/sub/dir/exact"], infos["/many"]}));
    EXPECT_EQ(m_downloader->progress(),
              (QStringList{"/over 65537", "/empty 0", "/one 1", "/sub/dir/exact 65536", "/many 1310720",
                           "/many 1310720", QStringLiteral("/many %1").arg(5 * s_part - 1000)}));
    EXPECT_EQ(m_downAssets->finished, int(files.size()));
    EXPECT_TRUE(trace.lines(Kestrel::Trace::Level::Error).filter("Failed to parse").isEmpty());
}

// 16777217 bytes are 256 parts in single precision: the download fails its check at part 256,
// and part 257 finds no download.
TEST_F(FileTransfer, SingleCountOfPartsAbove16MiBFailsTheDownload)
{
    const long long size = 16777217;
    writeFile(up("/big"), pattern(size));
    writeFile(down("/big"), "old");
    TraceCapture trace;
    connectPair();
    download("/big");
    const QString outOfOrder = "received file part 257 but we expected 0: '/big'";
    ASSERT_TRUE(eventually([&] { return trace.count(outOfOrder) == 1; }));
    EXPECT_EQ(m_downloader->fileInfos(), QStringList{"/big 16777217 256 " + md5Hex(pattern(size))});
    EXPECT_EQ(trace.lines(Kestrel::Trace::Level::Error),
              (QStringList{"md5 mismatch for '" + down("/big") + ".filesync.part'", "File Download for '/big' failed",
                           outOfOrder}));
    EXPECT_EQ(readFile(down("/big")), "old") << "a failed check leaves the old file alone";
    EXPECT_FALSE(QFile::exists(down("/big.filesync.part")));
    EXPECT_FALSE(m_downAssets->isDownloading("/big"));
}

// The uploader's lines and bytes as a scripted downloader sees them.
TEST_F(FileTransfer, UploaderWireBytes)
{
    writeFile(up("/empty"), "");
    writeFile(up("/two"), pattern(s_part + 1));
    writeFile(up("/big"), pattern(16777217, 3));
    makeAssets();
    writeFile(up("/late"), "abc");   // on disk, not yet in the file list
    const std::unique_ptr<RawPeer> uploader = startUploader();
    RawPeer &peer = *uploader;

    peer.send("sendfileinfo \"/empty\"\nsendfileinfo \"/big\"\nsendfileinfo \"/late\"\nsendparts \"/empty\"\n");
    EXPECT_EQ(command(peer), "fileinfo 0 \"/empty\" 0 " + md5Hex("").toLatin1());
    EXPECT_EQ(command(peer), "fileinfo 16777217 \"/big\" 256 " + md5Hex(pattern(16777217, 3)).toLatin1());
    EXPECT_EQ(command(peer), "fileinfo 3 \"/late\" 1 ") << "the checksum comes from the file list";
    EXPECT_EQ(command(peer), "filepart \"/empty\" 0 1");

    peer.send("sendparts \"/two\"\nsendparts \"/two\"\n");
    for (int run = 0; run < 2; ++run) {
        EXPECT_EQ(command(peer), "filepart \"/two\" 65536 1");
        EXPECT_TRUE(peer.bytes(s_part) == pattern(s_part + 1).left(s_part));
        EXPECT_EQ(command(peer), "filepart \"/two\" 1 2");
        EXPECT_EQ(peer.bytes(1), pattern(s_part + 1).right(1));
    }
}

// Found by fuzzing: the upload task ran on after the subclass's destructor and called assetRoot(),
// a pure virtual call by then. Overrides are called on the connection's thread only.
TEST_F(FileTransfer, UploadTaskCallsNoOverrideOfTheSubclass)
{
    writeFile(up("/two"), pattern(s_part + 1));
    makeAssets();
    const std::unique_ptr<RawPeer> uploader = startUploader();
    RawPeer &peer = *uploader;
    peer.send("sendparts \"/two\"\n");
    EXPECT_EQ(command(peer), "filepart \"/two\" 65536 1");
    EXPECT_TRUE(peer.bytes(s_part) == pattern(s_part + 1).left(s_part));
    EXPECT_EQ(command(peer), "filepart \"/two\" 1 2");
    EXPECT_EQ(peer.bytes(1), pattern(s_part + 1).right(1));
    EXPECT_EQ(m_uploader->rootCallers(), std::set<std::string>{"LoomyConn"});
}

// A scripted uploader: a refused name, an out-of-order part, then the link cut after part 3.
TEST_F(FileTransfer, ACutDownloadLeavesNoPartFileAndNoEntry)
{
    makeAssets();
    writeFile(down("/cut"), "old");
    Kestrel::TCPServerSocket listener;
    RawPeer peer(connectDownloader(listener));
    loginAsServer(peer);
    TraceCapture trace;

    m_downloader->requestFileInfo("/cut");
    EXPECT_EQ(command(peer), "sendfileinfo \"/cut\"");
    const QByteArray bytes = pattern(5 * s_part);
    peer.send("fileinfo 9 \"/a/../b\" 1 " + md5Hex("x").toLatin1() + "\n");
    peer.send("fileinfo 327680 \"/cut\" 5 " + md5Hex(bytes).toLatin1() + "\n");
    EXPECT_EQ(command(peer), "sendparts \"/cut\"");
    for (int part = 1; part <= 3; ++part)
        peer.send(QStringLiteral("filepart \"/cut\" 65536 %1\n").arg(part).toUtf8() + bytes.mid((part - 1) * s_part, s_part));
    peer.send("filepart \"/cut\" 3 5\nxyz");
    const QString outOfOrder = "received file part 5 but we expected 4: '/cut'";
    ASSERT_TRUE(eventually([&] { return trace.count(outOfOrder) == 1; }));
    EXPECT_EQ(m_downAssets->currentParts("/cut"), 3);
    EXPECT_EQ(readFile(down("/cut.filesync.part")), bytes.left(3 * s_part));
    EXPECT_EQ(trace.lines(Kestrel::Trace::Level::Error),
              (QStringList{"Filename can't contain '..' and it has to start with '/': /a/../b", outOfOrder}));

    peer.socket().close();
    ASSERT_TRUE(eventually([&] { return !m_downloader->isRunning(); }));
    EXPECT_FALSE(m_downAssets->isDownloading("/cut"));
    EXPECT_FALSE(QFile::exists(down("/cut.filesync.part")));
    EXPECT_EQ(readFile(down("/cut")), "old");
    EXPECT_EQ(m_downloader->fileInfos().size(), 1);
}

namespace {

// A scripted uploader in a child process, which the test kills: after fork only system calls.
// It listens on 127.0.0.1 port 0, reports the port through `report`, logs in any client, sends
// `script`, writes one byte to `report`, and waits to be killed.
[[noreturn]] void uploaderChild(int report, const QByteArray &greeting, const QByteArray &script)
{
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    if (::bind(listener, reinterpret_cast<sockaddr *>(&address), length) != 0 || ::listen(listener, 1) != 0
        || ::getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length) != 0)
        ::_exit(1);
    const int port = ntohs(address.sin_port);
    if (::write(report, &port, sizeof port) != sizeof port)
        ::_exit(1);
    const int peer = ::accept(listener, nullptr, nullptr);
    char in[256];
    // Banner, login and digest come to 19 + 6 + 16 bytes; none is checked.
    if (::write(peer, greeting.constData(), size_t(greeting.size())) != greeting.size())
        ::_exit(1);
    for (long got = 0; got < 41;) {
        const ssize_t n = ::read(peer, in, size_t(41 - got));
        if (n <= 0)
            ::_exit(1);
        got += n;
    }
    if (::write(peer, script.constData(), size_t(script.size())) != script.size() || ::write(report, "s", 1) != 1)
        ::_exit(1);
    for (;;)
        ::pause();
}

} // namespace

// The uploading process is killed in the middle of a file: the downloader's connection ends, the
// part file goes, the old file stays as it was.
TEST_F(FileTransfer, AnUploaderKilledMidDownloadLeavesTheOldFile)
{
    makeAssets();
    writeFile(down("/killed"), "old");
    const QByteArray bytes = pattern(4 * s_part, 3);
    QByteArray script = "fileinfo 262144 \"/killed\" 4 " + md5Hex(bytes).toLatin1() + "\n";
    for (int part = 1; part <= 2; ++part)
        script += QStringLiteral("filepart \"/killed\" 65536 %1\n").arg(part).toUtf8() + bytes.mid((part - 1) * s_part, s_part);
    const QByteArray greeting = "Lanternwick 2.14.4\n" + pattern(64, 7) + "ok\n";
    int pipeFds[2];
    ASSERT_EQ(::pipe(pipeFds), 0);
    const pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0)
        uploaderChild(pipeFds[1], greeting, script);
    ::close(pipeFds[1]);
    int port = 0;
    ASSERT_EQ(::read(pipeFds[0], &port, sizeof port), ssize_t(sizeof port));

    m_downloader = std::make_unique<Handler>(nullptr, false, *m_downAssets);
    m_downloader->setReconnect(false);
    m_downloader->connectToHost("127.0.0.1", port);
    char sent = 0;
    EXPECT_EQ(::read(pipeFds[0], &sent, 1), 1);
    ::close(pipeFds[0]);
    EXPECT_TRUE(eventually([&] { return m_downAssets->currentParts("/killed") == 2; }));
    EXPECT_EQ(readFile(down("/killed.filesync.part")), bytes.left(2 * s_part));

    ::kill(child, SIGKILL);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFSIGNALED(status));
    ASSERT_TRUE(eventually([&] { return !m_downloader->isRunning(); }));
    EXPECT_FALSE(m_downAssets->isDownloading("/killed"));
    EXPECT_FALSE(QFile::exists(down("/killed.filesync.part")));
    EXPECT_EQ(readFile(down("/killed")), "old");
}
