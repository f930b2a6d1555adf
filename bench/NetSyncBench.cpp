// Two trees kept equal between two processes over a loopback TCP connection, beside the same
// measurements between two trees of one process joined in memory, in the same run.
//
// The left tree is in this process; the right tree is in a peer process started from this same
// program ("--peer"), which connects, makes its copies from what arrives, and reports on its
// standard output, with the monotonic clock that both processes share, when a value arrived
// ("p <value> <ns>") and when the initial state was complete ("i <ns>"). So every figure runs from
// the set (or the join) on the left to the moment the right has applied it, and includes both
// sides' work and the socket.
//
//   BM_ChangeToPeer/transport:0|1    ns per change, 1,000 changed floats per frame of a 100,000 tree
//   BM_InitialSync/transport:0|1     ns per attribute of an initial synchronisation of 100,000
//   BM_LatencyAt60fps                change-to-apply latency with both sides at 60 frames per second
//
// transport 0 is in memory (the baseline), 1 is TCP; ratio_to_memory compares the two.
#include "loomy/bundle/LocalConnection.h"
#include "loomy/bundle/Loomy1Support.h"
#include "loomy/net/ConnectionThread.h"
#include "loomy/sync/RemoteNode.h"

#include "kestrel/TCPServerSocket.h"
#include "kestrel/TCPSocket.h"
#include "kestrel/Trace.h"
#include "tamarack/AttributeT.h"
#include "tamarack/Node.h"

#include <benchmark/benchmark.h>

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

extern char **environ;

namespace {

using FloatAttr = Tamarack::AttributeT<float>;
using Tamarack::Node;

constexpr int s_treeSize = 100000;
constexpr int s_groupSize = 1000;
constexpr double s_frame60 = 1.0 / 60.0;

long long monotonicNs()
{
    timespec now{};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return (long long)now.tv_sec * 1000000000LL + now.tv_nsec;
}

void sleepUntil(long long ns)
{
    const timespec at{time_t(ns / 1000000000LL), long(ns % 1000000000LL)};
    clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &at, nullptr);
}

// A connection that makes its session when it stands, and hands bundle lines to it.
class SessionConnection : public Loomy::ConnectionThread
{
public:
    SessionConnection(Kestrel::TCPSocket *socket, bool accepted, Loomy::RemoteNode &node, bool create)
        : ConnectionThread(socket, accepted), m_node(node), m_create(create)
    {
    }
    ~SessionConnection() override
    {
        stop();
        waitEnd(0);
    }
    void dropSession()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        m_controller.reset();
    }
    long long joinedAt() const { return m_joinedAt; }
    bool hasSession()
    {
        std::lock_guard<std::mutex> lock(m_mutex);
        return m_controller != nullptr;
    }

protected:
    void connected() override
    {
        Loomy::BundleControllerParams params;
        params.createMissingAttributes = m_create;
        params.connection = std::make_shared<Loomy::Loomy1Connection>(weak_from_this());
        std::lock_guard<std::mutex> lock(m_mutex);
        m_joinedAt = monotonicNs();
        m_controller = Loomy::BundleController::create(m_node, params);
    }
    bool parse(QString line) override
    {
        std::shared_ptr<Loomy::BundleController> controller;
        {
            std::lock_guard<std::mutex> lock(m_mutex);
            controller = m_controller;
        }
        return Loomy::processLoomy2(controller, *this, line);
    }

private:
    Loomy::RemoteNode &m_node;
    const bool m_create;
    std::mutex m_mutex;   // guards m_controller
    std::shared_ptr<Loomy::BundleController> m_controller;
    std::atomic<long long> m_joinedAt{0};
};

// --- the peer process -------------------------------------------------------------------------

// Runs frames (at `fps`, or back to back for 0) until the connection is gone, reporting the
// initial state and every new value of "probe".
int runPeer(int port, int fps)
{
    Node app;
    auto *node = new Loomy::RemoteNode(&app, "shared");
    bool initialized = false;
    node->eventAddListener("initialized", [&] { initialized = true; });
    auto connection = std::make_shared<SessionConnection>(nullptr, false, *node, true);
    connection->setReconnect(false);
    connection->connectToHost("127.0.0.1", port);
    bool reported = false;
    bool wasConnected = false;
    float lastProbe = -1.f;
    const long long period = fps > 0 ? 1000000000LL / fps : 0;
    for (long long next = monotonicNs();; next += period) {
        Node::runHostUpdate();
        const long long now = monotonicNs();
        if (initialized && !reported) {
            std::printf("i %lld\n", now);
            std::fflush(stdout);
            reported = true;
        }
        if (auto *probe = dynamic_cast<FloatAttr *>(node->attribute("probe"))) {
            if (probe->value() != lastProbe) {
                lastProbe = probe->value();
                std::printf("p %.0f %lld\n", double(lastProbe), now);
                std::fflush(stdout);
            }
        }
        wasConnected = wasConnected || connection->isConnected();
        if (wasConnected && !connection->isConnected())
            break;
        if (period > 0)
            sleepUntil(next + period);
        else
            std::this_thread::sleep_for(std::chrono::microseconds(50));
    }
    connection->stop();
    connection->waitEnd(0);
    connection->dropSession();
    Node::runHostUpdate();
    return 0;
}

// --- the left side ----------------------------------------------------------------------------

std::atomic<int> s_problems{0};

struct Left
{
    Node app;
    Loomy::RemoteNode *node = new Loomy::RemoteNode(&app, "shared");
    std::vector<FloatAttr *> sources;
    FloatAttr *probe = new FloatAttr(node, "probe", 0.f);

    explicit Left(int count)
    {
        for (int group = 0; group * s_groupSize < count; ++group) {
            auto *inner = new Node(node, "g" + QByteArray::number(group));
            for (int i = 0; i < s_groupSize && group * s_groupSize + i < count; ++i)
                sources.push_back(new FloatAttr(inner, "a" + QByteArray::number(i), float(i)));
        }
    }
};

// The peer process and its reports.
class Peer
{
public:
    explicit Peer(int port, int fps)
    {
        int fds[2];
        if (pipe(fds) != 0)
            return;
        posix_spawn_file_actions_t actions;
        posix_spawn_file_actions_init(&actions);
        posix_spawn_file_actions_adddup2(&actions, fds[1], 1);
        posix_spawn_file_actions_addclose(&actions, fds[0]);
        const std::string portText = std::to_string(port), fpsText = std::to_string(fps);
        char *argv[] = {const_cast<char *>("NetSyncBench"), const_cast<char *>("--peer"),
                        const_cast<char *>(portText.c_str()), const_cast<char *>(fpsText.c_str()), nullptr};
        if (posix_spawn(&m_pid, "/proc/self/exe", &actions, nullptr, argv, environ) != 0)
            m_pid = -1;
        posix_spawn_file_actions_destroy(&actions);
        close(fds[1]);
        m_out = fds[0];
        fcntl(m_out, F_SETFL, fcntl(m_out, F_GETFL) | O_NONBLOCK);
    }
    ~Peer()
    {
        if (m_pid > 0) {
            kill(m_pid, SIGTERM);
            waitpid(m_pid, nullptr, 0);
        }
        if (m_out >= 0)
            close(m_out);
    }
    // Collects whatever the peer reported so far.
    void poll()
    {
        char buffer[4096];
        for (ssize_t n; (n = read(m_out, buffer, sizeof buffer)) > 0;)
            m_pending.append(buffer, size_t(n));
        for (size_t end; (end = m_pending.find('\n')) != std::string::npos; m_pending.erase(0, end + 1)) {
            const std::string line = m_pending.substr(0, end);
            float value = 0;
            long long ns = 0;
            if (std::sscanf(line.c_str(), "p %f %lld", &value, &ns) == 2)
                probes[value] = ns;
            else if (std::sscanf(line.c_str(), "i %lld", &ns) == 1)
                initializedAt = ns;
        }
    }
    std::map<float, long long> probes;   // value -> when the peer had it
    long long initializedAt = 0;

private:
    pid_t m_pid = -1;
    int m_out = -1;
    std::string m_pending;
};

// A left tree joined to a peer process over TCP.
struct TcpWorld
{
    explicit TcpWorld(int count, int peerFps) : left(count)
    {
        if (server.open("127.0.0.1", 0, 1) != 0)
            return;
        peer = std::make_unique<Peer>(server.port(), peerFps);
        if (!server.isPendingConnection(10 * 1000 * 1000))
            return;
        connection = std::make_shared<SessionConnection>(server.accept(), true, *left.node, false);
        connection->run();
    }
    ~TcpWorld()
    {
        if (connection) {
            connection->stop();
            connection->waitEnd(0);
            connection->dropSession();
        }
        Node::runHostUpdate();
    }
    // Frames back to back until the condition holds; false after 20 seconds.
    bool runUntil(const std::function<bool()> &done)
    {
        for (const long long deadline = monotonicNs() + 20000000000LL; monotonicNs() < deadline;) {
            Node::runHostUpdate();
            peer->poll();
            if (done())
                return true;
            std::this_thread::sleep_for(std::chrono::microseconds(50));
        }
        return false;
    }
    Left left;
    Kestrel::TCPServerSocket server;
    std::unique_ptr<Peer> peer;
    std::shared_ptr<SessionConnection> connection;
};

// The same two trees in this process, joined in memory.
struct MemoryWorld
{
    explicit MemoryWorld(int count) : left(count)
    {
        right.node->eventAddListener("initialized", [this] { initialized = true; });
    }
    void join()
    {
        Loomy::BundleControllerParams rightParams;
        rightParams.createMissingAttributes = true;
        sessions = Loomy::connectLocally(*left.node, {}, *right.node, rightParams);
    }
    ~MemoryWorld()
    {
        sessions = Loomy::LocalSessionPair();
        Node::runHostUpdate();
    }
    bool runUntil(const std::function<bool()> &done)
    {
        for (int frames = 0; frames < 20; ++frames) {
            Node::runHostUpdate();
            if (done())
                return true;
        }
        return false;
    }
    float probe() const
    {
        auto *copy = dynamic_cast<FloatAttr *>(right.node->attribute("probe"));
        return copy ? copy->value() : -1.f;
    }
    Left left;
    struct { Node app; Loomy::RemoteNode *node = new Loomy::RemoteNode(&app, "shared"); } right;
    Loomy::LocalSessionPair sessions;
    bool initialized = false;
};

std::map<std::string, double> s_baseline;   // in-memory figures of this run, by benchmark

void reportRatio(benchmark::State &state, const std::string &name, double figure, bool tcp)
{
    if (!tcp)
        s_baseline[name] = figure;
    else if (s_baseline.count(name))
        state.counters["ratio_to_memory"] = figure / s_baseline[name];
}

// --- changes ---

void BM_ChangeToPeer(benchmark::State &state)
{
    constexpr int changed = 1000;
    const bool tcp = state.range(0) != 0;
    std::unique_ptr<MemoryWorld> memory;
    std::unique_ptr<TcpWorld> net;
    bool ready;
    if (tcp) {
        net = std::make_unique<TcpWorld>(s_treeSize, 0);
        ready = net->connection && net->runUntil([&] { return net->peer->initializedAt != 0; });
    } else {
        memory = std::make_unique<MemoryWorld>(s_treeSize);
        memory->join();
        ready = memory->runUntil([&] { return memory->initialized; });
    }
    if (!ready) {
        state.SkipWithError("the initial state did not arrive");
        return;
    }
    Left &left = tcp ? net->left : memory->left;
    const int problemsBefore = s_problems.load();
    double seconds = 0;
    float value = float(s_groupSize);
    for (auto _ : state) {
        ++value;
        const long long start = monotonicNs();
        for (int i = 0; i < changed; ++i)
            left.sources[size_t(i)]->setValue(value);
        left.probe->setValue(value);
        long long end = 0;
        const bool arrived = tcp ? net->runUntil([&] { return net->peer->probes.count(value) != 0; })
                                 : memory->runUntil([&] { return memory->probe() == value; });
        if (!arrived) {
            state.SkipWithError("the changes did not arrive");
            return;
        }
        end = tcp ? net->peer->probes[value] : monotonicNs();
        const double elapsed = double(end - start) * 1e-9;
        state.SetIterationTime(elapsed);
        seconds += elapsed;
    }
    if (s_problems.load() != problemsBefore) {
        state.SkipWithError("the library logged a warning or an error");
        return;
    }
    const double perChange = seconds * 1e9 / (double(state.iterations()) * (changed + 1));
    state.counters["ns_per_change"] = perChange;
    reportRatio(state, "change", perChange, tcp);
}
BENCHMARK(BM_ChangeToPeer)->ArgName("transport")->Arg(0)->Arg(1)->Iterations(200)->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// --- initial synchronisation ---

void BM_InitialSync(benchmark::State &state)
{
    const bool tcp = state.range(0) != 0;
    const int problemsBefore = s_problems.load();
    double seconds = 0;
    for (auto _ : state) {
        long long start = 0, end = 0;
        if (tcp) {
            TcpWorld world(s_treeSize, 0);   // the join is when the connection stands
            if (!world.connection || !world.runUntil([&] { return world.peer->initializedAt != 0; })) {
                state.SkipWithError("the initial state did not arrive");
                return;
            }
            start = world.connection->joinedAt();
            end = world.peer->initializedAt;
        } else {
            MemoryWorld world(s_treeSize);
            start = monotonicNs();
            world.join();
            if (!world.runUntil([&] { return world.initialized; })) {
                state.SkipWithError("the initial state did not arrive");
                return;
            }
            end = monotonicNs();
        }
        state.SetIterationTime(double(end - start) * 1e-9);
        seconds += double(end - start) * 1e-9;
    }
    if (s_problems.load() != problemsBefore) {
        state.SkipWithError("the library logged a warning or an error");
        return;
    }
    const double perAttribute = seconds * 1e9 / (double(state.iterations()) * s_treeSize);
    state.counters["ns_per_attr"] = perAttribute;
    reportRatio(state, "initial", perAttribute, tcp);
}
BENCHMARK(BM_InitialSync)->ArgName("transport")->Arg(0)->Arg(1)->Iterations(3)->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// --- latency at 60 frames per second ---

// Both sides run 60 frames a second, with unrelated phases. Every third left frame sets the probe
// just before its host update (the right reports only the latest value it sees, so values must
// not crowd one right frame); the latency runs from there to the end of the right frame that
// applied it. At most one right frame plus the transport should stand between the two.
void BM_LatencyAt60fps(benchmark::State &state)
{
    TcpWorld world(100, 60);
    if (!world.connection || !world.runUntil([&] { return world.peer->initializedAt != 0; })) {
        state.SkipWithError("the initial state did not arrive");
        return;
    }
    std::vector<std::pair<float, long long>> sent;
    float value = float(s_groupSize);
    const long long period = (long long)(s_frame60 * 1e9);
    long long next = monotonicNs();
    for (auto _ : state) {
        for (int frame = 0; frame < 3; ++frame) {
            sleepUntil(next += period);
            if (frame == 0) {
                world.left.probe->setValue(++value);
                sent.emplace_back(value, monotonicNs());
            }
            Node::runHostUpdate();
            world.peer->poll();
        }
    }
    world.runUntil([&] { return world.peer->probes.count(value) != 0; });
    std::vector<double> latencies;
    for (const auto &s : sent)
        if (world.peer->probes.count(s.first))
            latencies.push_back(double(world.peer->probes[s.first] - s.second) * 1e-6);
    if (latencies.size() < sent.size() * 9 / 10) {
        state.SkipWithError("changes were lost");
        return;
    }
    std::sort(latencies.begin(), latencies.end());
    state.counters["samples"] = double(latencies.size());
    state.counters["median_ms"] = latencies[latencies.size() / 2];
    state.counters["p99_ms"] = latencies[latencies.size() * 99 / 100];
    state.counters["target_ms"] = s_frame60 * 1e3 + 0.2;
}
BENCHMARK(BM_LatencyAt60fps)->Iterations(240)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv)
{
    if (argc == 4 && std::strcmp(argv[1], "--peer") == 0) {
        Kestrel::Trace::setHook([](Kestrel::Trace::Level, const QString &) {});
        return runPeer(std::atoi(argv[2]), std::atoi(argv[3]));
    }
    // Counts the library's warnings and errors; a run with any reports an error instead of figures.
    Kestrel::Trace::setHook([](Kestrel::Trace::Level level, const QString &line) {
        if (level == Kestrel::Trace::Level::Warning || level == Kestrel::Trace::Level::Error) {
            // The end of a connection, and a batch it cut short, are logged by design when a
            // world is torn down; a loss during a measurement shows as data that didn't arrive.
            if (!line.contains("no reply from") && !line.contains("Read error")
                && !line.startsWith("processLoomy2 # Failed to read")) {
                ++s_problems;
                std::fprintf(stderr, "%s\n", qUtf8Printable(line));
            }
        }
    });
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
