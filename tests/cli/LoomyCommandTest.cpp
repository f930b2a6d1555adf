// The loomy program as a user runs it: real processes over 127.0.0.1, ports chosen by the system,
// every wait bounded.
#include "cli/TreeFile.h"
#include "cli/ValueText.h"
#include "examples/Peer.h"
#include "loomy/types/TypeRegistry.h"

#include "tamarack/AttributeT.h"
#include "tamarack/Node.h"

#include <QDir>
#include <QElapsedTimer>
#include <QFile>
#include <QProcess>
#include <QRegularExpression>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <memory>
#include <thread>

#include <arpa/inet.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

namespace {

// One running loomy. Output is collected as it comes.
class LoomyProcess
{
public:
    LoomyProcess(const QStringList &args, const QString &home)
    {
        QProcessEnvironment env = QProcessEnvironment::systemEnvironment();
        env.insert("HOME", home);   // the checksum cache lives there
        env.insert("XDG_CONFIG_HOME", home + "/config");
        env.remove("QT_LOGGING_RULES");
        m_process.setProcessEnvironment(env);
        m_process.start(LOOMY_EXECUTABLE, args);
        m_process.waitForStarted(10000);
    }
    ~LoomyProcess()
    {
        if (m_process.state() != QProcess::NotRunning) {
            m_process.kill();
            m_process.waitForFinished(10000);
        }
    }
    // The port of the "listening ADDR PORT" first line; 0 if it didn't come in time.
    int port()
    {
        QElapsedTimer timer;
        for (timer.start(); timer.elapsed() < 10000;) {
            if (m_process.canReadLine() || m_process.waitForReadyRead(200)) {
                if (!m_process.canReadLine())
                    continue;
                const QString line = QString::fromUtf8(m_process.readLine());
                m_out += line;
                const QRegularExpressionMatch m = QRegularExpression("^listening 127\\.0\\.0\\.1 (\\d+)\n$").match(line);
                return m.hasMatch() ? m.captured(1).toInt() : 0;
            }
            if (m_process.state() == QProcess::NotRunning)
                return 0;
        }
        return 0;
    }
    // The exit status, or -1 if it didn't end in time.
    int finish(int ms = 30000)
    {
        if (!m_process.waitForFinished(ms))
            return -1;
        m_out += QString::fromUtf8(m_process.readAllStandardOutput());
        m_err = QString::fromUtf8(m_process.readAllStandardError());
        return m_process.exitStatus() == QProcess::NormalExit ? m_process.exitCode() : -2;
    }
    int terminate()
    {
        m_process.terminate();
        return finish();
    }
    void kill()   // SIGKILL: no clean stop, no output any more
    {
        m_process.kill();
        m_process.waitForFinished(10000);
    }
    // Takes in the complete lines that have come, without waiting.
    void poll()
    {
        m_process.waitForReadyRead(0);
        while (m_process.canReadLine())
            m_out += QString::fromUtf8(m_process.readLine());
    }
    QStringList out() const { return m_out.split('\n', Qt::SkipEmptyParts); }
    QString err() const { return m_err; }
    QString lastErrLine() const
    {
        const QStringList lines = m_err.split('\n', Qt::SkipEmptyParts);
        return lines.isEmpty() ? QString() : lines.last();
    }

private:
    QProcess m_process;
    QString m_out, m_err;
};

class LoomyCommand : public ::testing::Test
{
protected:
    std::unique_ptr<LoomyProcess> run(QStringList args) { return std::make_unique<LoomyProcess>(args, m_home.path()); }
    // A server that has printed its port, or a failed assertion. at: the port to take, 0 any.
    std::unique_ptr<LoomyProcess> serve(QStringList args, int &port, int at = 0)
    {
        auto server = run(QStringList{"serve", "--port", QString::number(at)} + args);
        port = server->port();
        EXPECT_GT(port, 0) << qPrintable(server->err());
        return server;
    }
    QString writeTree(const char *name, const char *json)
    {
        const QString path = m_home.filePath(name);
        QFile file(path);
        EXPECT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(json);
        return path;
    }
    static QString at(int port) { return "127.0.0.1:" + QString::number(port); }
    static QStringList lines(const QStringList &out, const QString &prefix)
    {
        return out.filter(QRegularExpression("^" + QRegularExpression::escape(prefix)));
    }

    QTemporaryDir m_home;
};

const QStringList s_sceneDump = {
    "scene/camera/active=bool:true",
    "scene/camera/fov=double:45",
    "scene/camera/position=vector3:float:0,1.5,8",
    "scene/curve=40:[0,0.25,1]",
    "scene/frame=int:120",
    "scene/lights/sun/color=color:1,0.85,0.6,1",
    "scene/lights/sun/intensity=float:2.5",
    "scene/mask=grid:unsigned char:2:00ff7f10",
    "scene/tags=stringlist:[\"outdoor\",\"evening\"]",
    "scene/title=string:Harbour at dusk",
};

// The tree below node as --dump prints it.
QStringList dumpOf(Tamarack::Node &node)
{
    static const Loomy::TypeRegistry s_types;
    QStringList out;
    for (const QByteArray &line : LoomyCli::dumpTree(LoomyCli::ValueText(s_types), node))
        out << QString::fromUtf8(line);
    return out;
}

} // namespace

// The tree goes from the side that has it to the side that expects it, whichever side serves.
TEST_F(LoomyCommand, TreeReachesTheExpectingSideInBothDirections)
{
    const QStringList expects = {"--expect", "scene/title=Harbour at dusk", "--expect",
                                 "scene/camera/position=vector3:float:0,1.5,8", "--expect", "scene/frame=120",
                                 "--expect", "scene/tags=[\"outdoor\",\"evening\"]", "--dump"};
    for (const bool treeOnServer : {true, false}) {
        SCOPED_TRACE(treeOnServer ? "tree on the server" : "tree on the client");
        const QStringList tree = {"--tree", LOOMY_SCENE, "--expect-event", "thanks"};
        int port = 0;
        auto server = serve(treeOnServer ? tree : expects + QStringList{"--event", "thanks=got it"}, port);
        auto client = run(QStringList{"connect", at(port), "--watch", "--json"}
                          + (treeOnServer ? expects + QStringList{"--event", "thanks=got it"} : tree));
        EXPECT_EQ(client->finish(), 0) << qPrintable(client->err());
        EXPECT_EQ(server->finish(), 0) << qPrintable(server->err());
        LoomyProcess &expecting = treeOnServer ? *client : *server;
        EXPECT_EQ(lines(expecting.out(), "scene/"), s_sceneDump);
        if (treeOnServer) {
            const QString title = R"({"op":"+","path":"scene/title","type":"string","value":"Harbour at dusk"})";
            EXPECT_TRUE(client->out().contains(title)) << qPrintable(client->out().join('\n'));
        } else {
            const QString event = R"({"event":"thanks","op":"!","text":"got it"})";
            EXPECT_TRUE(client->out().contains(event)) << qPrintable(client->out().join('\n'));
        }
    }
}

// Changes made on one side arrive on the other, and --watch prints them as they are applied. The
// client owns the tree here: a peer only removes attributes that were made for the other side.
TEST_F(LoomyCommand, SetRemoveAndEventReachThePeerAndAreWatched)
{
    int port = 0;
    auto server = serve({"--watch", "--expect", "scene/frame=7", "--expect", "new/at=vector2:int:1,-2",
                         "--expect", "scene/camera/fov=45", "--expect-absent", "scene/title",
                         "--expect-event", "hello=from the client"},
                        port);
    // No goals: the client stops cleanly when the server, its goals met, leaves. --no-create: the
    // server's announcement of the title, which may cross the removal, mustn't bring it back.
    auto client = run({"connect", at(port), "--stats", "--no-create", "--tree", LOOMY_SCENE, "--set", "scene/frame=int:7", "--set",
                       "new/at=vector2:int:1,-2", "--remove", "scene/title", "--event", "hello=from the client"});
    EXPECT_EQ(server->finish(), 0) << qPrintable(server->err());
    EXPECT_EQ(client->finish(), 0) << qPrintable(client->err());
    const QStringList out = server->out();
    const int added = out.indexOf("+ scene/title string Harbour at dusk");
    EXPECT_GE(added, 0) << qPrintable(out.join('\n'));
    EXPECT_GT(out.indexOf("- scene/title"), added) << qPrintable(out.join('\n'));
    EXPECT_GT(out.indexOf("~ scene/frame 7"), out.indexOf("+ scene/frame int 120")) << qPrintable(out.join('\n'));
    EXPECT_TRUE(out.contains("+ new/at vector2:int 1,-2")) << qPrintable(out.join('\n'));
    EXPECT_TRUE(out.contains("! hello from the client")) << qPrintable(out.join('\n'));
    EXPECT_EQ(lines(out, "+ scene/").size(), 10) << qPrintable(out.join('\n'));

    // The client's figures: its ten additions, two changes and one removal went out; the server
    // announced the paths back without values, so no value came in.
    const QStringList stats = lines(client->out(), "stats ");
    EXPECT_TRUE(stats.contains("stats peers 1")) << qPrintable(stats.join('\n'));
    EXPECT_TRUE(stats.contains("stats changes in 0 out 13")) << qPrintable(stats.join('\n'));
    EXPECT_TRUE(stats.contains("stats stale dropped 0")) << qPrintable(stats.join('\n'));
    EXPECT_EQ(stats.filter(QRegularExpression("^stats bundles in [1-9]\\d* out [1-9]\\d* \\(\\d+ bytes\\)$")).size(), 1)
        << qPrintable(stats.join('\n'));
    EXPECT_EQ(stats.filter(QRegularExpression("^stats ping round trip \\d+\\.\\d{3} ms$")).size(), 1)
        << qPrintable(stats.join('\n'));
}

// What --dump prints, given back with --set, builds the same tree on an empty peer.
TEST_F(LoomyCommand, DumpReadBackWithSetGivesTheSameTree)
{
    int port = 0;
    auto server = serve({"--expect-event", "done", "--dump"}, port);
    QStringList args = {"connect", at(port), "--tree", LOOMY_SCENE, "--event", "done=", "--expect", "scene/frame=120"};
    auto first = run(args + QStringList{"--dump"});
    ASSERT_EQ(first->finish(), 0) << qPrintable(first->err());
    const QStringList dumped = lines(first->out(), "scene/");
    ASSERT_EQ(dumped, s_sceneDump);
    ASSERT_EQ(server->finish(), 0) << qPrintable(server->err());

    auto empty = serve({"--expect-event", "done", "--dump"}, port);
    QStringList sets = {"connect", at(port), "--event", "done=", "--expect-absent", "nothing"};
    for (const QString &line : dumped)
        sets << "--set" << line;
    auto second = run(sets);
    EXPECT_EQ(second->finish(), 0) << qPrintable(second->err());
    EXPECT_EQ(empty->finish(), 0) << qPrintable(empty->err());
    EXPECT_EQ(lines(empty->out(), "scene/"), dumped);
}

TEST_F(LoomyCommand, FetchDownloadsFilesByteExact)
{
    QTemporaryDir served, fetched;
    const QList<QPair<QString, QByteArray>> files = {
        {"/empty.bin", QByteArray()},
        {"/small.txt", QByteArray("hello, loomy\n")},
        {"/deep/folder/big.bin", [] {   // several parts, the last one short
             QByteArray b(3 * 65536 + 123, '\0');
             for (int i = 0; i < b.size(); ++i)
                 b[i] = char((i * 7919) >> 3);
             return b;
         }()},
    };
    QStringList fetches;
    for (const auto &f : files) {
        QDir().mkpath(QFileInfo(served.path() + f.first).path());
        QFile out(served.path() + f.first);
        ASSERT_TRUE(out.open(QIODevice::WriteOnly));
        out.write(f.second);
        fetches << "--fetch" << f.first;
    }
    int port = 0;
    auto server = serve({"--assets", served.path()}, port);
    auto client = run(QStringList{"connect", at(port), "--assets", fetched.path()} + fetches);
    EXPECT_EQ(client->finish(), 0) << qPrintable(client->err());
    for (const auto &f : files) {
        QFile in(fetched.path() + f.first);
        ASSERT_TRUE(in.open(QIODevice::ReadOnly)) << qPrintable(f.first);
        EXPECT_EQ(in.readAll(), f.second) << qPrintable(f.first);
        EXPECT_FALSE(QFile::exists(fetched.path() + f.first + ".filesync.part"));
    }
    EXPECT_EQ(lines(client->out(), "fetched ").size(), files.size());
    EXPECT_EQ(server->terminate(), 0) << qPrintable(server->err());
}

// Wrong arguments give one line and status 2, before anything is started.
TEST_F(LoomyCommand, BadArgumentsGiveStatusTwoAndOneLine)
{
    const QStringList rows[] = {
        {},
        {"bogus"},
        {"connect"},
        {"connect", "127.0.0.1:notaport"},
        {"serve", "--port", "x"},
        {"serve", "--nosuchoption"},
        {"connect", "h", "--set", "a=nosuchtype:1"},
        {"connect", "h", "--set", "a=float:abc"},
        {"connect", "h", "--set", "novalue"},
        {"connect", "h", "--event", "noequals"},
        {"connect", "h", "--fetch", "/a.bin"},
        {"connect", "h", "--timeout", "0"},
        {"connect", "h", "--tree", "/nonexistent/tree.json"},
        {"tap", "--listen", "0"},
        {"connect", "h", "--authoritative", "--not-authoritative"},
    };
    for (const QStringList &args : rows) {
        auto loomy = run(args);
        EXPECT_EQ(loomy->finish(), 2) << qPrintable(args.join(' '));
        const QStringList err = loomy->err().split('\n', Qt::SkipEmptyParts);
        ASSERT_EQ(err.size(), 1) << qPrintable(args.join(' ') + ": " + loomy->err());
        EXPECT_TRUE(err[0].startsWith("loomy: ")) << qPrintable(err[0]);
    }
}

// Both trees hold the attribute with different values, as after a reconnection: the authoritative
// side's value ends on both sides. The server is authoritative by default; each side can turn it.
TEST_F(LoomyCommand, AuthoritativeSideWinsAtFirstContact)
{
    const QString serverTree = writeTree("server.json", R"({"scene": {"frame": 1}})");
    const QString clientTree = writeTree("client.json", R"({"scene": {"frame": 2}})");
    for (const bool serverWins : {true, false}) {
        SCOPED_TRACE(serverWins ? "server authoritative" : "client authoritative");
        const QString winner = serverWins ? "scene/frame=double:1" : "scene/frame=double:2";
        int port = 0;
        auto server = serve(serverWins ? QStringList{"--tree", serverTree, "--dump"}
                                       : QStringList{"--tree", serverTree, "--not-authoritative", "--dump",
                                                     "--expect", "scene/frame=2"},
                            port);
        auto client = run(QStringList{"connect", at(port), "--tree", clientTree, "--dump"}
                          + (serverWins ? QStringList{"--expect", "scene/frame=1"} : QStringList{"--authoritative"}));
        if (serverWins) {
            EXPECT_EQ(client->finish(), 0) << qPrintable(client->err());
            EXPECT_EQ(server->terminate(), 0) << qPrintable(server->err());
        } else {
            EXPECT_EQ(server->finish(), 0) << qPrintable(server->err());
            EXPECT_EQ(client->finish(), 0) << qPrintable(client->err());
        }
        EXPECT_EQ(lines(server->out(), "scene/"), QStringList{winner}) << qPrintable(server->err());
        EXPECT_EQ(lines(client->out(), "scene/"), QStringList{winner}) << qPrintable(client->err());
    }
}

TEST_F(LoomyCommand, PeerThatNeverComesFailsAtTheTimeOut)
{
    int port = 0;
    serve({}, port)->terminate();   // a port that was free a moment ago, with nobody on it now
    auto client = run({"connect", at(port), "--expect", "a=1", "--timeout", "1"});
    EXPECT_EQ(client->finish(), 1);
    EXPECT_EQ(client->lastErrLine(), "loomy: FAIL: timed out after 1 s; not met: --expect a=1");
}

// A listener that accepts and never speaks: the client's own tree meets its goal at once, yet
// its event has no peer to go to, so the run must fail instead of ending with success.
TEST_F(LoomyCommand, GoalsMetByTheOwnTreeWaitForTheChangesToBeSent)
{
    const int listener = ::socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof address;
    ASSERT_EQ(::bind(listener, reinterpret_cast<sockaddr *>(&address), length), 0);
    ASSERT_EQ(::listen(listener, 4), 0);
    ASSERT_EQ(::getsockname(listener, reinterpret_cast<sockaddr *>(&address), &length), 0);
    auto client = run({"connect", at(ntohs(address.sin_port)), "--tree", LOOMY_SCENE, "--expect", "scene/frame=120",
                       "--event", "done=", "--timeout", "2"});
    EXPECT_EQ(client->finish(), 1);
    EXPECT_EQ(client->lastErrLine(), "loomy: FAIL: timed out after 2 s; not met: the changes sent");
    ::close(listener);
}

// The tap forwards both ways unchanged and prints the login and each batch with paths and values.
TEST_F(LoomyCommand, TapPrintsDecodedTrafficWhileTheTreesEndEqual)
{
    int serverPort = 0, tapPort = 0;
    auto server = serve({"--tree", LOOMY_SCENE, "--expect", "extra/gain=0.5", "--expect-event", "bye", "--dump"},
                        serverPort);
    auto tap = run({"tap", "--listen", "0", "--to", at(serverPort)});
    tapPort = tap->port();
    ASSERT_GT(tapPort, 0) << qPrintable(tap->err());
    auto client = run({"connect", at(tapPort), "--set", "extra/gain=float:0.5", "--event", "bye=now",
                       "--expect", "scene/frame=120", "--dump"});
    EXPECT_EQ(client->finish(), 0) << qPrintable(client->err());
    EXPECT_EQ(server->finish(), 0) << qPrintable(server->err());
    EXPECT_EQ(tap->terminate(), 0) << qPrintable(tap->err());

    EXPECT_EQ(lines(client->out(), "scene/") + lines(client->out(), "extra/"),
              lines(server->out(), "scene/") + lines(server->out(), "extra/"));
    EXPECT_EQ(lines(client->out(), "extra/"), QStringList{"extra/gain=float:0.5"});

    const QStringList out = tap->out();
    const QString text = out.join('\n');
    for (const QString &line : {QString("1 s>c login banner Lanternwick 2.14.4"), QString("1 c>s login banner Lanternwick 2.14.4"),
                                QString("1 c>s login user tolly"), QString("1 s>c login reply ok"),
                                QString("1 s>c   info {application=Loomy, version=2.14.4}"),
                                QString("1 s>c   + scene/title string Harbour at dusk"),
                                QString("1 s>c   + scene/camera/position vector3:float 0,1.5,8"),
                                QString("1 c>s   + extra/gain float 0.5"), QString("1 c>s   ! bye now")})
        EXPECT_TRUE(out.contains(line)) << qPrintable(line + "\n--- in ---\n" + text);
    EXPECT_EQ(out.filter(QRegularExpression("^1 s>c login challenge [0-9a-f]{128}$")).size(), 1) << qPrintable(text);
    EXPECT_EQ(out.filter(QRegularExpression("^1 c>s login digest [0-9a-f]{32}$")).size(), 1) << qPrintable(text);
    EXPECT_FALSE(out.filter(QRegularExpression("^1 c>s bundle #\\d+ ack \\d+ type \\d+ \\(Orchardlines.Loomy.AttributeNew\\)")).isEmpty())
        << qPrintable(text);
    EXPECT_TRUE(out.filter("undecodable").isEmpty()) << qPrintable(text);
}

// The server process is killed and started again on its port, with another tree, while an
// application (this test, one session per connection) is connected and changes its tree in
// between. The client is back within its retry period, and the new session leaves both trees
// equal, with the server's values where both hold an attribute.
TEST_F(LoomyCommand, ClientReconnectsToARestartedServerAndTheTreesEndEqual)
{
    int port = 0;
    auto server = serve({"--tree", writeTree("first.json", R"({"scene": {"frame": 1, "title": "first"}})"), "--watch"}, port);
    ASSERT_GT(port, 0);
    Tamarack::Node root;
    auto *node = new Loomy::RemoteNode(&root, "shared");
    auto *gain = new Tamarack::AttributeT<float>;
    node->addDeepAttribute("client/gain", gain);
    gain->setValue(0.5f);
    auto client = std::make_shared<Peer>(nullptr, *node);
    client->connectToHost("127.0.0.1", port);
    // Frames of the client until the condition holds, taking in the server's output meanwhile.
    const auto frames = [&](const std::function<bool()> &condition) {
        for (const auto until = std::chrono::steady_clock::now() + std::chrono::seconds(10);
             std::chrono::steady_clock::now() < until;) {
            Tamarack::Node::runHostUpdate();
            server->poll();
            if (condition())
                return true;
            std::this_thread::sleep_for(std::chrono::milliseconds(5));
        }
        return false;
    };
    ASSERT_TRUE(frames([&] {
        return dumpOf(*node).contains("scene/title=string:first") && server->out().contains("+ client/gain float 0.5");
    })) << qPrintable(dumpOf(*node).join('\n') + "\n--- server ---\n" + server->out().join('\n'));

    server->kill();
    ASSERT_TRUE(frames([&] { return !client->hasSession(); }));
    gain->setValue(0.75f);
    dynamic_cast<Tamarack::AttributeT<double> &>(*node->attribute("scene")->attribute("frame")).setValue(9.0);
    server = serve({"--tree", writeTree("second.json", R"({"scene": {"frame": 2, "title": "second"}})"), "--watch",
                    "--dump"},
                   port, port);
    const auto listening = std::chrono::steady_clock::now();
    ASSERT_TRUE(frames([&] { return client->hasSession(); }));
    using std::chrono::milliseconds;
    EXPECT_LT(std::chrono::duration_cast<milliseconds>(std::chrono::steady_clock::now() - listening).count(), 3500);

    const QStringList expected = {"client/gain=float:0.75", "scene/frame=double:2", "scene/title=string:second"};
    EXPECT_TRUE(frames([&] { return dumpOf(*node) == expected && server->out().contains("+ client/gain float 0.75"); }))
        << qPrintable(dumpOf(*node).join('\n') + "\n--- server ---\n" + server->out().join('\n'));
    int settle = 30;   // whatever else is under way lands within a few frames more
    frames([&] { return --settle == 0; });
    EXPECT_EQ(server->terminate(), 0) << qPrintable(server->err());
    EXPECT_EQ((lines(server->out(), "client/") + lines(server->out(), "scene/")).join('\n'), expected.join('\n'));
    EXPECT_EQ(dumpOf(*node).join('\n'), expected.join('\n'));

    client->stop();
    client->waitEnd(0);
    client->dropSession();
    client.reset();
    Tamarack::Node::runHostUpdate();
}
