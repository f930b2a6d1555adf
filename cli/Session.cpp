#include "cli/Session.h"
#include "cli/TreeFile.h"
#include "cli/ValueText.h"

#include "loomy/assets/AssetBase.h"
#include "loomy/assets/FileTransferHandler.h"
#include "loomy/assets/ServerBase.h"
#include "loomy/bundle/Bundle.h"
#include "loomy/bundle/BundleWriter.h"
#include "loomy/bundle/Loomy1Support.h"
#include "loomy/sync/RemoteNode.h"
#include "loomy/types/TypeRegistry.h"

#include "kestrel/BinaryData.h"
#include "kestrel/TimeStamp.h"
#include "tamarack/Node.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QJsonDocument>
#include <QJsonObject>
#include <QTemporaryDir>

#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <csignal>
#include <cstdio>
#include <map>
#include <memory>
#include <mutex>
#include <thread>
#include <vector>

namespace LoomyCli {

namespace {

std::atomic<bool> s_interrupted{false};

void onSignal(int)
{
    s_interrupted = true;
}

struct Change
{
    enum Kind { Set, Remove, Event } kind;
    QByteArray path;       // or the event's name
    unsigned typeId = 0;
    QString value;         // or the event's text
};

struct Goal
{
    enum Kind { Value, Absent, Event, Fetch } kind;
    QString option;        // as given, for the failure text
    QByteArray path;       // or event or file name
    QString value;
    bool hasValue = false;
};

// What the connection threads report about one download; guarded by Shared::mutex.
struct Download
{
    bool announced = false;
    long long size = 0;
    long long received = 0;
    QString md5;
};

// State written by connection threads and read by the frame thread.
struct Shared
{
    std::mutex mutex;
    int peersNow = 0;
    int peersEver = 0;
    std::map<QString, Download> downloads;
    unsigned long long bundlesIn = 0, bundlesOut = 0, bundleBytesOut = 0;
    unsigned long long bytesIn = 0, bytesOut = 0;          // of connections that have ended
    double lastRoundTrip = -1.0;
    bool progressOnTerminal = false;
};

QString eventText(Kestrel::BinaryData data)
{
    data.rewind();
    QString text;
    return data.readString(text) ? text : QString();
}

QString md5Hex(const QString &file)
{
    QFile f(file);
    QCryptographicHash hash(QCryptographicHash::Md5);
    if (!f.open(QIODevice::ReadOnly) || !hash.addData(&f))
        return QString();
    return QString::fromLatin1(hash.result().toHex());
}

class Session;

// Counts what a session hands to its connection, and hands it on.
class CountingConnection : public Loomy::Connection
{
public:
    CountingConnection(std::shared_ptr<Loomy::Connection> inner, Shared &shared)
        : m_inner(std::move(inner)), m_shared(shared)
    {}
    void send(const std::vector<Loomy::Bundle> &bundles) override
    {
        if (!bundles.empty()) {
            std::lock_guard<std::mutex> lock(m_shared.mutex);
            m_shared.bundlesOut += bundles.size();
            for (const Loomy::Bundle &b : bundles)
                m_shared.bundleBytesOut += unsigned(b.size());
        }
        m_inner->send(bundles);
    }

private:
    std::shared_ptr<Loomy::Connection> m_inner;
    Shared &m_shared;
};

std::atomic<int> s_connections{0};

// One peer: its session lives while the connection stands.
class PeerConnection : public Loomy::FileTransferHandler
{
public:
    PeerConnection(Kestrel::TCPSocket *socket, bool accepted, Session &session);
    ~PeerConnection() override
    {
        stop();
        waitEnd(0);
    }
    QString assetRoot() override { return m_assets.root(); }
    void reserved() override {}
    void downloadProgress(long long bytes, const QString &name) override;
    void eventProcess(const QByteArray &id, Kestrel::BinaryData &data) override;

    void dropSession()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_controller.reset();
    }
    bool initialized() const { return m_initialized; }
    // Frame thread: the session's figures while it stands.
    bool stats(Loomy::SessionStats &out)
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        if (m_controller)
            out = m_controller->stats();
        return m_controller != nullptr;
    }
    const int number = ++s_connections;   // tells sessions apart in the figures
    void setInitialized() { m_initialized = true; }

protected:
    void connected() override;
    void disconnected() override;
    bool parse(QString line) override;
    void pong(const QByteArray &payload) override;

private:
    Session &m_session;
    std::mutex m_mutex;   // guards m_controller: made and dropped on the connection's thread
    std::shared_ptr<Loomy::BundleController> m_controller;
    std::atomic<bool> m_initialized{false};   // the peer's "initialized" has been applied
    Download m_announced;                     // connection thread only: the last "file-info"
    QString m_announcedName;
};

class Server : public Loomy::ServerBase
{
public:
    explicit Server(Session &session) : m_session(session) {}
    ~Server() override { shutdown(); }

protected:
    std::shared_ptr<Loomy::ConnectionThread> createConnection(Kestrel::TCPSocket *socket) override
    {
        return socket ? std::make_shared<PeerConnection>(socket, true, m_session) : nullptr;
    }

private:
    Session &m_session;
};

class Session
{
public:
    explicit Session(const SessionOptions &options) : m_options(options), m_text(m_types) {}

    int run();

    // For the connections.
    Loomy::RemoteNode &node() { return *m_node; }
    Loomy::AssetBase &assets() { return *m_assets; }
    Shared &shared() { return m_shared; }
    const SessionOptions &options() const { return m_options; }
    // Frame thread: an event that a peer's session received; the peer is null once it has gone.
    void received(PeerConnection *peer, const QByteArray &name, Kestrel::BinaryData &data);

private:
    int usage(const QString &text);
    bool parseOptions(QString &error);
    bool loadTree(QString &error);
    bool apply(const Change &change, QString &error);
    bool met(const Goal &goal, QString &failure);
    void watch(const Loomy::NodeWatcher::Event &event);
    void printChange(char op, const QByteArray &path, Tamarack::Attribute *attribute);
    void requestFetches(PeerConnection &peer);
    QList<std::shared_ptr<PeerConnection>> peers();
    void frame();
    void dump();
    void printStats();

    const SessionOptions &m_options;
    Loomy::TypeRegistry m_types;
    ValueText m_text;
    Shared m_shared;
    std::vector<Change> m_changes;
    std::vector<Goal> m_goals;

    Tamarack::Node m_app;
    Loomy::RemoteNode *m_node = nullptr;                 // owned by m_app
    QTemporaryDir m_emptyAssets;                         // the asset root without --assets
    std::unique_ptr<Loomy::AssetBase> m_assets;
    std::unique_ptr<Server> m_server;
    std::shared_ptr<PeerConnection> m_client;

    // Frame thread only.
    QByteArray m_failure;                                // the reason of exit status 1
    bool m_local = false;                                // our own changes are being made
    bool m_changesApplied = false;
    std::vector<std::pair<QByteArray, QString>> m_events;   // received, in order
    std::map<QString, QString> m_fetchFailures;
    std::map<QString, bool> m_fetched;
    std::map<int, Loomy::SessionStats> m_sessionStats;   // by connection number, as last seen
};

PeerConnection::PeerConnection(Kestrel::TCPSocket *socket, bool accepted, Session &session)
    : FileTransferHandler(socket, accepted, session.assets()), m_session(session)
{
    eventAddListener("file-info", "file-info", this, Tamarack::Node::DIRECT, nullptr);
}

void PeerConnection::connected()
{
    FileTransferHandler::connected();
    setReconnect(false);   // a peer that leaves ends the session; a new connection would be a new one
    Loomy::BundleControllerParams params;
    params.createMissingAttributes = !m_session.options().noCreate;
    params.dropStaleChanges = m_session.options().dropStale;
    params.authoritative = m_session.options().authoritative;
    params.connection = std::make_shared<CountingConnection>(
        std::make_shared<Loomy::Loomy1Connection>(weak_from_this()), m_session.shared());
    // The core may run a last batch after this connection is gone.
    Session &session = m_session;
    std::weak_ptr<ConnectionThread> weak = weak_from_this();
    params.eventHandler = [&session, weak](const QByteArray &name, Kestrel::BinaryData &data) {
        const auto peer = std::static_pointer_cast<PeerConnection>(weak.lock());
        session.received(peer.get(), name, data);
    };
    {
        std::lock_guard<std::mutex> lock(m_session.shared().mutex);
        ++m_session.shared().peersNow;
        ++m_session.shared().peersEver;
    }
    std::lock_guard<std::mutex> lock(m_mutex);
    m_controller = Loomy::BundleController::create(m_session.node(), params);
}

void PeerConnection::disconnected()
{
    FileTransferHandler::disconnected();
    dropSession();
    std::lock_guard<std::mutex> lock(m_session.shared().mutex);
    --m_session.shared().peersNow;
    m_session.shared().bytesIn += rxBytes();
    m_session.shared().bytesOut += txBytes();
}

bool PeerConnection::parse(QString line)
{
    std::shared_ptr<Loomy::BundleController> controller;
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        controller = m_controller;
    }
    if (line.startsWith("loomy2 ")) {
        std::lock_guard<std::mutex> lock(m_session.shared().mutex);
        m_session.shared().bundlesIn += line.mid(7).toULongLong();
    }
    if (Loomy::processLoomy2(controller, *this, line))
        return true;
    m_announcedName.clear();
    const bool understood = FileTransferHandler::parse(line);
    // The download is listed by now, so a reader that sees it announced and not listed knows it
    // has ended.
    if (!m_announcedName.isEmpty()) {
        std::lock_guard<std::mutex> lock(m_session.shared().mutex);
        Download &d = m_session.shared().downloads[m_announcedName];
        d.announced = true;
        d.size = m_announced.size;
        d.md5 = m_announced.md5;
    }
    return understood;
}

void PeerConnection::eventProcess(const QByteArray &id, Kestrel::BinaryData &data)
{
    if (id != "file-info") {
        FileTransferHandler::eventProcess(id, data);
        return;
    }
    data.rewind();
    data.readString(m_announcedName);
    m_announced.size = data.readInt64();
    data.readInt64();
    data.readString(m_announced.md5);
}

void PeerConnection::downloadProgress(long long bytes, const QString &name)
{
    Shared &shared = m_session.shared();
    std::lock_guard<std::mutex> lock(shared.mutex);
    Download &d = shared.downloads[name];
    d.received += bytes;
    const int percent = d.size > 0 ? int(d.received * 100 / d.size) : 100;
    if (shared.progressOnTerminal) {
        const int filled = percent * 30 / 100;
        std::fprintf(stderr, "\r%s [%s%s] %3d%%%s", qUtf8Printable(name), QByteArray(filled, '#').constData(),
                     QByteArray(30 - filled, ' ').constData(), percent, d.received >= d.size ? "\n" : "");
    } else {
        std::fprintf(stderr, "fetch %s %lld/%lld bytes\n", qUtf8Printable(name), d.received, d.size);
    }
    std::fflush(stderr);
}

void PeerConnection::pong(const QByteArray &payload)
{
    if (!payload.startsWith("rtt "))
        return;
    const double sent = payload.mid(4).toDouble();
    std::lock_guard<std::mutex> lock(m_session.shared().mutex);
    m_session.shared().lastRoundTrip = Kestrel::TimeStamp::monotonicTime().seconds() - sent;
}

int Session::usage(const QString &text)
{
    std::fprintf(stderr, "loomy: %s\n", qUtf8Printable(text));
    return 2;
}

bool Session::parseOptions(QString &error)
{
    for (const QString &set : m_options.sets) {
        Change c{Change::Set, {}, 0, {}};
        if (!parseSet(m_text, set, c.path, c.typeId, c.value, error))
            return false;
        m_changes.push_back(c);
    }
    for (const QString &path : m_options.removes)
        m_changes.push_back({Change::Remove, path.toUtf8(), 0, {}});
    for (const QString &event : m_options.events) {
        Change c{Change::Event, {}, 0, {}};
        if (!splitAssignment(event, c.path, c.value)) {
            error = QStringLiteral("--event %1: expected NAME=TEXT").arg(event);
            return false;
        }
        m_changes.push_back(c);
    }
    for (const QString &expect : m_options.expects) {
        Goal g{Goal::Value, "--expect " + expect, {}, {}, true};
        if (!splitAssignment(expect, g.path, g.value)) {
            error = QStringLiteral("--expect %1: expected PATH=VALUE").arg(expect);
            return false;
        }
        m_goals.push_back(g);
    }
    for (const QString &path : m_options.expectAbsent)
        m_goals.push_back({Goal::Absent, "--expect-absent " + path, path.toUtf8(), {}, false});
    for (const QString &event : m_options.expectEvents) {
        Goal g{Goal::Event, "--expect-event " + event, event.toUtf8(), {}, false};
        QByteArray name;
        if (splitAssignment(event, name, g.value)) {
            g.path = name;
            g.hasValue = true;
        }
        m_goals.push_back(g);
    }
    for (const QString &name : m_options.fetches) {
        if (!name.startsWith('/') || name.contains("..")) {
            error = QStringLiteral("--fetch %1: a name begins with / and has no ..").arg(name);
            return false;
        }
        m_goals.push_back({Goal::Fetch, "--fetch " + name, name.toUtf8(), {}, false});
    }
    if (!m_options.fetches.isEmpty() && m_options.assets.isEmpty()) {
        error = QStringLiteral("--fetch needs --assets DIR to download into");
        return false;
    }
    return true;
}

bool Session::loadTree(QString &error)
{
    QFile file(m_options.treeFile);
    if (!file.open(QIODevice::ReadOnly)) {
        error = QStringLiteral("--tree %1: %2").arg(m_options.treeFile, file.errorString());
        return false;
    }
    if (!LoomyCli::loadTree(m_text, file.readAll(), *m_node, error)) {
        error = QStringLiteral("--tree %1: %2").arg(m_options.treeFile, error);
        return false;
    }
    return true;
}

bool Session::apply(const Change &change, QString &error)
{
    switch (change.kind) {
    case Change::Set:
        return applySet(m_text, *m_node, change.path, change.typeId, change.value, error);
    case Change::Remove:
        if (!change.path.isEmpty())
            delete findAttribute(*m_node, change.path);   // an attribute leaves its host when deleted
        return true;
    case Change::Event: {
        Kestrel::BinaryData data;
        data.writeString(change.value);
        data.rewind();
        m_node->eventProcess(change.path, data);
        return true;
    }
    }
    return false;
}

void Session::received(PeerConnection *peer, const QByteArray &name, Kestrel::BinaryData &data)
{
    if (name == "initialized" && peer)
        peer->setInitialized();
    if (name != "event-slice-begin" && name != "event-slice") {
        const QString text = eventText(data);
        m_events.emplace_back(name, text);
        if (m_options.watch && name != "initialized") {
            if (m_options.json)
                std::printf("%s\n", QJsonDocument(QJsonObject{{"op", "!"}, {"event", QString::fromUtf8(name)},
                                                              {"text", text}})
                                        .toJson(QJsonDocument::Compact).constData());
            else
                std::printf("! %s %s\n", name.constData(), qUtf8Printable(text));
            std::fflush(stdout);
        }
    }
    data.rewind();
    m_node->handleRemoteEvent(name, data, 0);
}

void Session::printChange(char op, const QByteArray &path, Tamarack::Attribute *attribute)
{
    unsigned id = 0;
    QString text;
    if (attribute && !m_text.describe(attribute, id, text))
        return;   // nodes and attributes that don't travel
    if (m_options.json) {
        QJsonObject line{{"op", QString(op)}, {"path", QString::fromUtf8(path)}};
        if (op == '+')
            line["type"] = m_text.typeName(id);
        if (op != '-')
            line["value"] = text;
        std::printf("%s\n", QJsonDocument(line).toJson(QJsonDocument::Compact).constData());
    } else if (op == '+') {
        std::printf("+ %s %s %s\n", path.constData(), qUtf8Printable(m_text.typeName(id)), qUtf8Printable(text));
    } else if (op == '~') {
        std::printf("~ %s %s\n", path.constData(), qUtf8Printable(text));
    } else {
        std::printf("- %s\n", path.constData());
    }
    std::fflush(stdout);
}

void Session::watch(const Loomy::NodeWatcher::Event &event)
{
    if (m_local || !m_options.watch)
        return;
    using E = Loomy::NodeWatcher;
    const QByteArray path = m_node->symbols().name(event.symbol);
    switch (event.type) {
    case E::ATTRIBUTE_ADDED:
    case E::ATTRIBUTE_CHANGED:
        if (Tamarack::Attribute *attribute = findAttribute(*m_node, path))
            printChange(event.type == E::ATTRIBUTE_ADDED ? '+' : '~', path, attribute);
        break;
    case E::ATTRIBUTE_REMOVED:
    case E::NODE_REMOVED:
        printChange('-', path, nullptr);
        break;
    default:
        break;
    }
}

bool Session::met(const Goal &goal, QString &failure)
{
    switch (goal.kind) {
    case Goal::Value: {
        Tamarack::Attribute *attribute = findAttribute(*m_node, goal.path);
        unsigned id = 0, expectedId = 0;
        QString text, expected = goal.value, error;
        if (!attribute || !m_text.describe(attribute, id, text))
            return false;
        // TYPE:VALUE must name the attribute's type; a bare VALUE is read as its type.
        if (m_text.splitTyped(goal.value, expectedId, expected) && expectedId != id)
            expected = goal.value;
        QByteArray want, have;
        Loomy::BundleWriterCore wantWriter(want), haveWriter(have);
        return m_text.write(id, expected, wantWriter, &error) && m_text.write(id, text, haveWriter, &error)
               && want == have;
    }
    case Goal::Absent:
        return findAttribute(*m_node, goal.path) == nullptr;
    case Goal::Event:
        for (const auto &event : m_events)
            if (event.first == goal.path && (!goal.hasValue || event.second == goal.value))
                return true;
        return false;
    case Goal::Fetch: {
        const QString name = QString::fromUtf8(goal.path);
        if (m_fetched.count(name))
            return true;
        Download download;
        {
            std::lock_guard<std::mutex> lock(m_shared.mutex);
            download = m_shared.downloads[name];
        }
        if (!download.announced || m_assets->isDownloading(name))
            return false;
        const QString have = md5Hex(m_assets->root() + name);
        if (have != download.md5) {
            failure = QStringLiteral("--fetch %1: the download failed (md5 %2, announced %3)")
                          .arg(name, have.isEmpty() ? "none" : have, download.md5);
            return false;
        }
        m_fetched[name] = true;
        std::printf("fetched %s %lld bytes md5 %s\n", qUtf8Printable(name), download.size, qUtf8Printable(have));
        std::fflush(stdout);
        return true;
    }
    }
    return false;
}

QList<std::shared_ptr<PeerConnection>> Session::peers()
{
    QList<std::shared_ptr<PeerConnection>> result;
    if (m_client)
        result << m_client;
    if (m_server)
        for (const auto &c : m_server->instances())
            result << std::static_pointer_cast<PeerConnection>(c);
    return result;
}

void Session::requestFetches(PeerConnection &peer)
{
    for (const QString &name : m_options.fetches)
        peer.requestFileInfo(name);
}

void Session::dump()
{
    for (const QByteArray &line : dumpTree(m_text, *m_node))
        std::printf("%s\n", line.constData());
    std::fflush(stdout);
}

void Session::printStats()
{
    Loomy::SessionStats total;
    for (const auto &session : m_sessionStats) {
        total.changesSent += session.second.changesSent;
        total.changesReceived += session.second.changesReceived;
        total.staleDropped += session.second.staleDropped;
    }
    std::lock_guard<std::mutex> lock(m_shared.mutex);
    std::printf("stats peers %d\n", m_shared.peersEver);
    std::printf("stats changes in %llu out %llu\n", total.changesReceived, total.changesSent);
    std::printf("stats stale dropped %llu\n", total.staleDropped);
    std::printf("stats bundles in %llu out %llu (%llu bytes)\n", m_shared.bundlesIn, m_shared.bundlesOut,
                m_shared.bundleBytesOut);
    std::printf("stats bytes in %llu out %llu\n", m_shared.bytesIn, m_shared.bytesOut);
    if (m_shared.lastRoundTrip >= 0)
        std::printf("stats ping round trip %.3f ms\n", m_shared.lastRoundTrip * 1000.0);
    else
        std::printf("stats ping round trip none\n");
    std::fflush(stdout);
}

int Session::run()
{
    QString error;
    if (!parseOptions(error))
        return usage(error);
    const QString root = m_options.assets.isEmpty() ? m_emptyAssets.path() : m_options.assets;
    if (!m_options.assets.isEmpty() && !QDir(root).exists() && !QDir().mkpath(root))
        return usage(QStringLiteral("--assets %1: can't be made").arg(root));
    m_assets = std::make_unique<Loomy::AssetBase>(QDir(root).absolutePath());
    m_shared.progressOnTerminal = isatty(2);

    m_node = new Loomy::RemoteNode(&m_app, "loomy");
    if (!m_options.treeFile.isEmpty() && !loadTree(error))
        return usage(error);
    m_node->processPendingAdditions();
    const long watchId = m_node->addAttributeChangeListener([this](const Loomy::NodeWatcher::Event &e) { watch(e); });

    if (m_options.serve) {
        m_server = std::make_unique<Server>(*this);
        m_server->run(m_options.host, m_options.port);
        const auto bindDeadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
        while (m_server->port() == 0 && std::chrono::steady_clock::now() < bindDeadline && !s_interrupted)
            std::this_thread::sleep_for(std::chrono::milliseconds(10));
        if (m_server->port() == 0)
            m_failure = QStringLiteral("can't listen on %1:%2").arg(m_options.host).arg(m_options.port).toUtf8();
        else
            std::printf("listening %s %d\n", m_options.host.isEmpty() ? "0.0.0.0" : qUtf8Printable(m_options.host),
                        m_server->port());
        std::fflush(stdout);
    } else {
        m_client = std::make_shared<PeerConnection>(nullptr, false, *this);
        m_client->connectToHost(m_options.host, m_options.port);
    }

    const auto frameTime = std::chrono::microseconds(1000000 / std::max(1, m_options.fps));
    const auto start = std::chrono::steady_clock::now();
    auto lastPing = start - std::chrono::seconds(2);
    const bool hasGoals = !m_goals.empty();
    bool goalsMet = false;
    int lingering = -1;   // frames left to let the last batches leave
    int peersSeen = 0;
    while (m_failure.isEmpty()) {
        Tamarack::Node::runHostUpdate();
        int peersNow = 0;
        {
            std::lock_guard<std::mutex> lock(m_shared.mutex);
            peersNow = m_shared.peersNow;
            peersSeen = m_shared.peersEver;
        }
        const auto connections = peers();
        if (!m_changesApplied) {
            for (const auto &peer : connections) {
                if (!peer->initialized())
                    continue;
                m_changesApplied = true;
                m_local = true;
                for (const Change &change : m_changes)
                    if (!apply(change, error))
                        std::fprintf(stderr, "loomy: %s\n", qUtf8Printable(error));
                m_node->processPendingAdditions();
                m_local = false;
                requestFetches(*peer);
                break;
            }
        }
        const auto now = std::chrono::steady_clock::now();
        if (m_options.stats) {
            for (const auto &peer : connections)
                peer->stats(m_sessionStats[peer->number]);
        }
        // Our own pings, whose pongs carry their sending time back.
        if (m_options.stats && now - lastPing > std::chrono::seconds(1)) {
            for (const auto &peer : connections) {
                if (peer->isConnected() && peer->initialized()) {
                    peer->ping("rtt " + QByteArray::number(Kestrel::TimeStamp::monotonicTime().seconds(), 'f', 6));
                    lastPing = now;
                }
            }
        }

        if (lingering > 0) {
            bool flushed = true;
            for (const auto &peer : connections)
                flushed = flushed && peer->bufferedDataSize() == 0;
            if (--lingering == 0 || (flushed && lingering < 50))
                break;
        } else if (hasGoals && !goalsMet) {
            QString failure;
            QStringList missing;
            for (const Goal &goal : m_goals)
                if (!met(goal, failure))
                    missing << goal.option;
            // Goals our own tree meets at once must not end the run before the changes given
            // on the command line have gone to a peer, however slow its login.
            if (!m_changesApplied && !m_changes.empty())
                missing << QStringLiteral("the changes sent");
            if (!failure.isEmpty()) {
                m_failure = failure.toUtf8();
            } else if (missing.isEmpty()) {
                goalsMet = true;
                if (!m_options.stay)
                    lingering = 60;
            } else if (now - start > std::chrono::duration<double>(m_options.timeout)) {
                m_failure = QStringLiteral("timed out after %1 s; not met: %2")
                                  .arg(m_options.timeout).arg(missing.join(", ")).toUtf8();
            } else if (!m_options.serve && peersSeen > 0 && peersNow == 0) {
                m_failure = QStringLiteral("the peer left; not met: %1").arg(missing.join(", ")).toUtf8();
            } else if (s_interrupted) {
                m_failure = QStringLiteral("interrupted; not met: %1").arg(missing.join(", ")).toUtf8();
            }
        } else {
            // No goals, or met with --stay: until the peer leaves or Ctrl-C. A server without
            // goals serves one peer after another.
            const bool peerGone = peersSeen > 0 && peersNow == 0 && (!m_options.serve || goalsMet);
            if (s_interrupted || peerGone)
                break;
        }
        std::this_thread::sleep_for(frameTime);
    }

    // Connection threads end first, so that no batch arrives for a session going away; then the
    // sessions and the connections' last references go on this thread while the tree stands.
    if (m_server)
        m_server->stop(true);
    for (const auto &peer : peers()) {
        peer->stop();
        peer->waitEnd(0);
        peer->dropSession();
    }
    m_client.reset();
    m_server.reset();
    Tamarack::Node::runHostUpdate();
    Tamarack::Node::runHostUpdate();
    m_node->removeAttributeChangeListener(watchId);

    if (m_options.dump)
        dump();
    if (m_options.stats)
        printStats();
    m_assets->stop();
    if (!m_failure.isEmpty()) {
        std::fflush(stdout);
        std::fprintf(stderr, "loomy: FAIL: %s\n", m_failure.constData());
        return 1;
    }
    return 0;
}

} // namespace

bool interrupted()
{
    return s_interrupted;
}

void installSignalHandlers()
{
    std::signal(SIGINT, onSignal);
    std::signal(SIGTERM, onSignal);
}

int runSession(const SessionOptions &options)
{
    Session session(options);
    return session.run();
}

} // namespace LoomyCli
