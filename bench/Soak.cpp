// Soak: two processes keep one tree equal over loopback for minutes while both write all the time.
//
//   Soak MINUTES [SEED]
//
// This process is the left side: it serves on 127.0.0.1, on a port the system picks, and starts
// itself again as the right side, which connects. Both run 60 frames a second. In each frame a
// side adds, changes and removes attributes of several types below its own half of the tree
// ("left/..." or "right/..."), now and then a whole group of them, and sends events, some large
// enough to travel in slices. The left's generator is seeded with SEED (default 1), the right's
// with SEED + 1, so a run can be repeated. Each side makes its copies from what arrives.
//
// After MINUTES each side stops writing and raises "done/<side>". Batches keep their order, so a
// side that sees the peer's flag holds everything the peer wrote. Each side then writes its tree
// ("path=type:value" lines), the count and MD5 of the events it sent and received, and its RSS
// figures to a file, and the left compares the two files. RSS is sampled every 5 seconds; the
// baseline is the sample after one minute of writing (after half the run for runs under two).
//
// Exit status 0: the trees are equal, every event arrived intact and in order, and the RSS of
// neither process grew by 5% or more from its baseline to the end; 1 otherwise; 2 bad arguments.
#include "examples/Peer.h"

#include "cli/TreeFile.h"
#include "cli/ValueText.h"
#include "loomy/types/TypeRegistry.h"

#include "tamarack/AttributeT.h"
#include "tamarack/Node.h"

#include <QCryptographicHash>
#include <QFile>
#include <QRegExp>
#include <QStringList>
#include <QTemporaryDir>

#include <malloc.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <iterator>
#include <map>
#include <mutex>
#include <random>
#include <string>
#include <thread>

extern char **environ;

namespace {

using Clock = std::chrono::steady_clock;
using Rng = std::mt19937;
using Tamarack::Attribute;
using Tamarack::AttributeT;
using Tamarack::Node;

constexpr int s_groups = 16;
constexpr int s_leaves = 48;            // paths per group; 768 per side
constexpr int s_opsPerFrame = 20;
constexpr int s_sliceSize = 16384;
constexpr auto s_frame = std::chrono::microseconds(1000000 / 60);
constexpr auto s_rssEvery = std::chrono::seconds(5);

int uniform(Rng &rng, int low, int high)
{
    return std::uniform_int_distribution<int>(low, high)(rng);
}

QString randomText(Rng &rng, int maxLength)
{
    static const QString s_alphabet = QString::fromUtf8("abcdefghijklmnopqrstuvwxyz ABCXYZ0123456789,.:;\"'[]{}éßø→你");
    QString text;
    for (int i = uniform(rng, 0, maxLength); i > 0; --i)
        text += s_alphabet[uniform(rng, 0, s_alphabet.size() - 1)];
    return text;
}

template <typename T> T randomValue(Rng &rng);
template <> float randomValue(Rng &rng) { return std::uniform_real_distribution<float>(-1e4f, 1e4f)(rng); }
template <> double randomValue(Rng &rng) { return std::uniform_real_distribution<double>(-1e9, 1e9)(rng); }
template <> int randomValue(Rng &rng) { return uniform(rng, -1000000, 1000000); }
template <> bool randomValue(Rng &rng) { return uniform(rng, 0, 1) == 1; }
template <> QString randomValue(Rng &rng) { return randomText(rng, uniform(rng, 0, 50) == 0 ? 3000 : 40); }
template <> Wisket::Vector3f randomValue(Rng &rng)
{
    return Wisket::Vector3f(randomValue<float>(rng), randomValue<float>(rng), randomValue<float>(rng));
}
template <> QStringList randomValue(Rng &rng)
{
    QStringList list;
    for (int i = uniform(rng, 0, 5); i > 0; --i)
        list << randomText(rng, 12);
    return list;
}

// One value type: how to make an attribute of it and how to give one a new value.
struct Kind
{
    Attribute *(*make)(Rng &);
    bool (*change)(Attribute *, Rng &);   // false: the attribute is of another kind
};

template <typename T>
Kind kind()
{
    return {[](Rng &rng) -> Attribute * {
                auto *attribute = new AttributeT<T>;
                attribute->setValue(randomValue<T>(rng));
                return attribute;
            },
            [](Attribute *at, Rng &rng) {
                auto *attribute = dynamic_cast<AttributeT<T> *>(at);
                if (attribute)
                    attribute->setValue(randomValue<T>(rng));
                return attribute != nullptr;
            }};
}

const Kind s_kinds[] = {kind<float>(),   kind<double>(),          kind<int>(),        kind<bool>(),
                        kind<QString>(), kind<Wisket::Vector3f>(), kind<QStringList>()};

Attribute *find(Node &node, const QByteArray &path)
{
    Attribute *at = &node;
    for (const QByteArray &name : path.split('/')) {
        auto *inner = dynamic_cast<Node *>(at);
        at = inner ? inner->attribute(name) : nullptr;
    }
    return at;
}

// The library's log lines, counted by their text up to the first quote or digit, so that lines
// which differ only in a path or a number count as one; printed at the end instead of as they come.
std::mutex s_logMutex;
std::map<QString, long long> s_log;   // guarded by s_logMutex

void countLogLine(QtMsgType, const QMessageLogContext &, const QString &text)
{
    const int cut = text.indexOf(QRegExp("['0-9]"));
    std::lock_guard<std::mutex> lock(s_logMutex);
    ++s_log[cut < 0 ? text : text.left(cut) + "..."];
}

void printLogCounts(const char *side)
{
    std::lock_guard<std::mutex> lock(s_logMutex);
    for (const auto &line : s_log)
        std::fprintf(stderr, "soak: %s side logged %lldx: %s\n", side, line.second, qUtf8Printable(line.first));
}

long long rssKb()
{
    long long pages = 0, resident = 0;
    if (FILE *statm = std::fopen("/proc/self/statm", "r")) {
        if (std::fscanf(statm, "%lld %lld", &pages, &resident) != 2)
            resident = 0;
        std::fclose(statm);
    }
    return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

// The shared node of one side; it also counts the events that arrive from the peer.
class SoakNode : public Loomy::RemoteNode
{
public:
    using RemoteNode::RemoteNode;
    // Runs on the frame thread, where the sessions dispatch what they received.
    void eventProcess(const QByteArray &name, Kestrel::BinaryData &data) override
    {
        if (handlingRemoteEvent(name, data) && name.startsWith("soak-")) {
            ++received;
            receivedHash.addData(name);
            receivedHash.addData(data.data(), int(data.total()));
        }
        RemoteNode::eventProcess(name, data);
    }
    int received = 0;
    QCryptographicHash receivedHash{QCryptographicHash::Md5};
};

struct Figures
{
    long long frames = 0, additions = 0, changes = 0, removals = 0, groupRemovals = 0;
    long long sent = 0;
    QCryptographicHash sentHash{QCryptographicHash::Md5};
    long long rssBaseline = 0, rssEnd = 0, rssMax = 0;
};

// One side: the writing phase, the exchange of "done" flags, and the report file. Frame thread.
class Side
{
public:
    Side(const QByteArray &me, unsigned seed, double seconds)
        : m_me(me), m_peer(me == "left" ? "right" : "left"), m_rng(seed),
          m_duration(std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(seconds))),
          m_baselineAt(std::min<Clock::duration>(std::chrono::minutes(1), m_duration / 2))
    {
    }
    SoakNode &node() { return *m_node; }

    // Runs until both sides are done; false, with the reason on stderr, if the connection was
    // lost or the peer's flag didn't come.
    bool run(Peer &connection)
    {
        // Writing starts when the peer has sent what it held: by then this side's session is built
        // and listens for events (one sent before its first frame pass would have no session to
        // leave through).
        m_node->eventAddListener("initialized", [this] { m_initialized = true; });
        const Clock::time_point waitUntil = Clock::now() + std::chrono::seconds(30);
        while (!m_initialized && Clock::now() < waitUntil)
            frame();
        if (!m_initialized)
            return fail("the peer's \"initialized\" didn't come within 30 s");
        const Clock::time_point start = Clock::now();
        Clock::time_point nextSample = start + s_rssEvery, nextReport = start + std::chrono::minutes(1);
        while (Clock::now() - start < m_duration) {
            write();
            frame();
            if (!connection.isConnected())
                return fail("the connection was lost");
            if (Clock::now() >= nextSample) {
                sampleRss(Clock::now() - start);
                nextSample += s_rssEvery;
            }
            if (m_me == "left" && Clock::now() >= nextReport) {
                std::printf("soak: %lld s, %lld frames, rss %lld kB\n",
                            (long long)std::chrono::duration_cast<std::chrono::seconds>(Clock::now() - start).count(),
                            m_figures.frames, rssKb());
                std::fflush(stdout);
                nextReport += std::chrono::minutes(1);
            }
        }
        m_figures.rssEnd = sampleRss(m_duration);
        m_node->addDeepAttribute("done/" + m_me, new AttributeT<int>);
        const Clock::time_point flagDeadline = Clock::now() + std::chrono::seconds(60);
        while (!find(*m_node, "done/" + m_peer)) {
            if (Clock::now() > flagDeadline)
                return fail("the peer's done flag didn't come within 60 s");
            frame();
        }
        for (int linger = 0; linger < 30; ++linger)   // our last batches leave before anyone closes
            frame();
        return true;
    }

    // The tree, the event figures and the RSS figures, one item a line.
    QByteArray report()
    {
        Loomy::TypeRegistry types;
        LoomyCli::ValueText text(types);
        QByteArray out;
        for (const QByteArray &line : LoomyCli::dumpTree(text, *m_node))
            out += "tree " + line + '\n';
        out += "sent " + QByteArray::number(m_figures.sent) + ' ' + m_figures.sentHash.result().toHex() + '\n';
        out += "received " + QByteArray::number(m_node->received) + ' ' + m_node->receivedHash.result().toHex() + '\n';
        out += "rss " + QByteArray::number(m_figures.rssBaseline) + ' ' + QByteArray::number(m_figures.rssEnd) + ' '
               + QByteArray::number(m_figures.rssMax) + '\n';
        out += "ops " + QByteArray::number(m_figures.frames) + ' ' + QByteArray::number(m_figures.additions) + ' '
               + QByteArray::number(m_figures.changes) + ' ' + QByteArray::number(m_figures.removals) + ' '
               + QByteArray::number(m_figures.groupRemovals) + '\n';
        return out;
    }

    void frame()
    {
        Node::runHostUpdate();
        ++m_figures.frames;
        m_nextFrame += s_frame;
        const Clock::time_point now = Clock::now();
        if (m_nextFrame < now)
            m_nextFrame = now;   // a slow frame isn't made up for by a burst
        std::this_thread::sleep_until(m_nextFrame);
    }

private:
    bool fail(const char *why)
    {
        std::fprintf(stderr, "soak: %s side: %s\n", m_me.constData(), why);
        return false;
    }

    void write()
    {
        for (int i = 0; i < s_opsPerFrame; ++i) {
            const int group = uniform(m_rng, 0, s_groups - 1);
            const QByteArray path = m_me + "/g" + QByteArray::number(group) + "/a" +
                                    QByteArray::number(uniform(m_rng, 0, s_leaves - 1));
            Attribute *attribute = find(*m_node, path);
            const int dice = uniform(m_rng, 0, 99);
            if (!attribute) {
                m_node->addDeepAttribute(path, s_kinds[uniform(m_rng, 0, int(std::size(s_kinds)) - 1)].make(m_rng));
                ++m_figures.additions;
            } else if (dice < 85) {
                for (const Kind &k : s_kinds)
                    if (k.change(attribute, m_rng))
                        break;
                ++m_figures.changes;
            } else {
                delete attribute;   // an attribute leaves its host when deleted
                ++m_figures.removals;
            }
        }
        if (uniform(m_rng, 0, 599) == 0) {   // a whole group, every 10 s on average
            delete find(*m_node, m_me + "/g" + QByteArray::number(uniform(m_rng, 0, s_groups - 1)));
            ++m_figures.groupRemovals;
        }
        if (uniform(m_rng, 0, 1) == 0)
            sendEvent(false);
        if (uniform(m_rng, 0, 119) == 0)
            sendEvent(true);
    }

    void sendEvent(bool sliced)
    {
        const QByteArray name = "soak-" + m_me;
        Kestrel::BinaryData data;
        data.writeInt32(int(m_figures.sent));
        if (sliced) {
            QByteArray bytes(uniform(m_rng, s_sliceSize, 20 * s_sliceSize), '\0');
            for (char &c : bytes)
                c = char(m_rng());
            data.writeBlob(bytes.constData(), bytes.size());
        } else {
            data.writeString(randomText(m_rng, 200));
        }
        ++m_figures.sent;
        m_figures.sentHash.addData(name);
        m_figures.sentHash.addData(data.data(), int(data.total()));
        data.rewind();
        if (sliced)
            m_node->eventProcessSlice(name, data, s_sliceSize);
        else
            m_node->eventProcess(name, data);
    }

    long long sampleRss(Clock::duration sinceStart)
    {
        const long long kb = rssKb();
        if (sinceStart >= m_baselineAt && m_figures.rssBaseline == 0)
            m_figures.rssBaseline = kb;
        m_figures.rssMax = std::max(m_figures.rssMax, kb);
        return kb;
    }

    const QByteArray m_me, m_peer;
    Rng m_rng;
    const Clock::duration m_duration, m_baselineAt;
    Node m_app;
    SoakNode *m_node = new SoakNode(&m_app, "shared");   // owned by m_app
    Figures m_figures;
    bool m_initialized = false;
    Clock::time_point m_nextFrame = Clock::now();
};

// The connection's thread ends first, so that no batch arrives for a session going away; then
// the session and the connection's last reference go while the tree still stands.
void closeDown(std::shared_ptr<Peer> &connection, std::unique_ptr<Server> server)
{
    if (server)
        server->stop(false);
    if (connection) {
        connection->stop();
        connection->waitEnd(0);
        connection->dropSession();
    }
    connection.reset();
    server.reset();
    Node::runHostUpdate();
}

int runRight(int port, unsigned seed, double seconds, const char *reportFile)
{
    Side side("right", seed, seconds);
    auto connection = std::make_shared<Peer>(nullptr, side.node());
    connection->connectToHost("127.0.0.1", port);
    const bool ok = side.run(*connection);
    QFile out(QString::fromLocal8Bit(reportFile));
    if (!ok || !out.open(QIODevice::WriteOnly) || out.write(side.report()) < 0)
        return 1;
    out.close();
    closeDown(connection, nullptr);
    printLogCounts("right");
    return 0;
}

QMap<QByteArray, QByteArray> items(const QByteArray &report, QList<QByteArray> &tree)
{
    QMap<QByteArray, QByteArray> out;
    for (const QByteArray &line : report.split('\n')) {
        const QByteArray key = line.left(line.indexOf(' '));
        if (key == "tree")
            tree << line.mid(5);
        else if (!key.isEmpty())
            out[key] = line.mid(key.size() + 1);
    }
    return out;
}

// Prints the side's RSS and returns false if it grew by 5% or more.
bool checkRss(const char *side, const QByteArray &figures, double minutes)
{
    const QList<QByteArray> f = figures.split(' ');
    const double baseline = f.value(0).toDouble(), end = f.value(1).toDouble();
    const double growth = baseline > 0 ? (end - baseline) * 100.0 / baseline : 100.0;
    std::printf("soak: %-5s rss after %.1f min %.0f kB, at the end %.0f kB: %+.2f%% (max %s kB)\n", side,
                std::min(1.0, minutes / 2), baseline, end, growth, f.value(2).constData());
    return growth < 5.0;
}

int runLeft(double minutes, unsigned seed, const char *self)
{
    QTemporaryDir dir;
    const QByteArray reportFile = dir.filePath("right.txt").toLocal8Bit();
    Side side("left", seed, minutes * 60);
    auto server = std::make_unique<Server>(
        [&side](Kestrel::TCPSocket *socket) { return std::make_shared<Peer>(socket, side.node()); });
    server->run("127.0.0.1", 0);
    for (const Clock::time_point until = Clock::now() + std::chrono::seconds(10); server->port() == 0 && Clock::now() < until;)
        std::this_thread::sleep_for(std::chrono::milliseconds(10));
    if (server->port() == 0) {
        std::fprintf(stderr, "soak: can't listen on 127.0.0.1\n");
        return 1;
    }
    std::printf("soak: %.1f min, seed %u, port %d\n", minutes, seed, server->port());
    std::fflush(stdout);

    const std::string args[] = {"--peer", std::to_string(server->port()), std::to_string(seed + 1),
                                std::to_string(minutes * 60), reportFile.toStdString()};
    char *argv[] = {const_cast<char *>(self), const_cast<char *>(args[0].c_str()), const_cast<char *>(args[1].c_str()),
                    const_cast<char *>(args[2].c_str()), const_cast<char *>(args[3].c_str()),
                    const_cast<char *>(args[4].c_str()), nullptr};
    pid_t pid = -1;
    if (posix_spawn(&pid, "/proc/self/exe", nullptr, nullptr, argv, environ) != 0) {
        std::fprintf(stderr, "soak: can't start the right side\n");
        return 1;
    }
    std::shared_ptr<Peer> connection;
    for (const Clock::time_point until = Clock::now() + std::chrono::seconds(30); !connection && Clock::now() < until;) {
        side.frame();
        if (!server->instances().isEmpty())
            connection = std::static_pointer_cast<Peer>(server->instances().first());
    }
    bool ok = connection && side.run(*connection);
    // The peer ends after its report; frames go on meanwhile so that its last batches are applied.
    int status = -1;
    for (const Clock::time_point until = Clock::now() + std::chrono::seconds(60); Clock::now() < until;) {
        if (waitpid(pid, &status, WNOHANG) == pid)
            break;
        side.frame();
    }
    if (!WIFEXITED(status)) {
        kill(pid, SIGKILL);
        waitpid(pid, nullptr, 0);
    }
    const QByteArray leftReport = side.report();
    closeDown(connection, std::move(server));
    printLogCounts("left");
    if (!ok || !WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::fprintf(stderr, "soak: FAIL: the run didn't finish (right side status %d)\n", status);
        return 1;
    }
    QFile in(QString::fromLocal8Bit(reportFile));
    in.open(QIODevice::ReadOnly);
    QList<QByteArray> leftTree, rightTree;
    const auto left = items(leftReport, leftTree), right = items(in.readAll(), rightTree);

    const QList<QByteArray> l = left.value("ops").split(' ');
    std::printf("soak: left wrote in %s frames %s additions, %s changes, %s removals, %s group removals\n",
                l.value(0).constData(), l.value(1).constData(), l.value(2).constData(), l.value(3).constData(),
                l.value(4).constData());
    bool pass = checkRss("left", left.value("rss"), minutes);
    pass = checkRss("right", right.value("rss"), minutes) && pass;
    if (leftTree != rightTree || leftTree.isEmpty()) {
        pass = false;
        int shown = 0;
        for (const QByteArray &line : leftTree)
            if (!rightTree.contains(line) && ++shown <= 10)
                std::printf("soak: only left:  %s\n", line.left(200).constData());
        for (const QByteArray &line : rightTree)
            if (!leftTree.contains(line) && ++shown <= 20)
                std::printf("soak: only right: %s\n", line.left(200).constData());
    }
    std::printf("soak: trees %s: %d and %d attributes\n", leftTree == rightTree ? "equal" : "DIFFER",
                int(leftTree.size()), int(rightTree.size()));
    for (const auto &way : {std::make_pair("left", "right"), std::make_pair("right", "left")}) {
        const QByteArray sent = (way.first == std::string("left") ? left : right).value("sent");
        const QByteArray received = (way.first == std::string("left") ? right : left).value("received");
        std::printf("soak: events %s to %s: sent %s, received %s\n", way.first, way.second, sent.constData(),
                    received.constData());
        pass = pass && sent == received;
    }
    std::printf("soak: %s\n", pass ? "PASS" : "FAIL");
    return pass ? 0 : 1;
}

} // namespace

int main(int argc, char **argv)
{
    qInstallMessageHandler(countLogLine);
    // A fixed threshold: buffers of large events are mapped and go back to the system when freed.
    // glibc's default raises the threshold to the largest block freed so far, after which such
    // buffers stay in the heap and RSS steps up once, by the largest event, without any leak.
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    if (argc == 6 && std::strcmp(argv[1], "--peer") == 0)
        return runRight(std::atoi(argv[2]), unsigned(std::strtoul(argv[3], nullptr, 10)), std::atof(argv[4]), argv[5]);
    const double minutes = argc >= 2 ? std::atof(argv[1]) : 0;
    if (argc > 3 || minutes <= 0) {
        std::fprintf(stderr, "usage: Soak MINUTES [SEED]\n");
        return 2;
    }
    return runLeft(minutes, argc == 3 ? unsigned(std::strtoul(argv[2], nullptr, 10)) : 1u, argv[0]);
}
