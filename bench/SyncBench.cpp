// End-to-end costs of keeping two trees equal: changes, initial synchronisation, memory.
//
// Both sessions live in this process, joined by the in-memory connection pair, and are driven
// frame by frame through the host update, as an application's frame loop would. So every time
// includes both sides' work: the set and its listeners, collecting and writing bundles, and
// reading and applying them on the peer. Only the socket is missing.
//
// The left tree holds float attributes in groups of 1,000 under nodes ("g12/a345"); the right
// starts empty and makes its copies from what the left announces.
//
// Every run checks what it measured: the copies must hold the values set, and the library must
// log no warning or error; otherwise the run is reported as an error, with no figures.
#include "loomy/bundle/LocalConnection.h"
#include "loomy/sync/RemoteNode.h"

#include "kestrel/Trace.h"
#include "tamarack/AttributeT.h"
#include "tamarack/Node.h"

#include <benchmark/benchmark.h>

#include <malloc.h>
#include <sys/resource.h>
#include <time.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <memory>
#include <vector>

namespace {

using FloatAttr = Tamarack::AttributeT<float>;
using Tamarack::Node;
using Clock = std::chrono::steady_clock;

constexpr int s_groupSize = 1000;
constexpr int s_maxFrames = 20;   // frames one delivery may take before the run counts as failed

std::atomic<int> s_problems{0};   // warnings and errors logged by the library

// Wall time and this thread's CPU time, in seconds. The machine may be shared: the CPU time is
// the cost, the wall time what a frame loop would wait. All session work runs on this thread.
struct Stopwatch
{
    Clock::time_point wall = Clock::now();
    double cpu = threadCpu();

    static double threadCpu()
    {
        timespec now{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return double(now.tv_sec) + double(now.tv_nsec) * 1e-9;
    }
    double wallSeconds() const { return std::chrono::duration<double>(Clock::now() - wall).count(); }
    double cpuSeconds() const { return threadCpu() - cpu; }
};

// Bytes the allocator has handed out and not got back. Everything here runs on the main thread,
// whose allocations the main arena's figures cover; large blocks are mapped and counted apart.
double heapInUse()
{
    const struct mallinfo2 info = mallinfo2();
    return double(info.uordblks + info.hblkhd);
}

// The process's peak resident set size in bytes, as getrusage gives it.
double peakRss()
{
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return double(usage.ru_maxrss) * 1024.0;
}

// Gives free heap back to the system and restarts the peak at the present resident size, which
// it returns; negative if the kernel refused the reset (then no peak can be measured).
double restartPeakRss()
{
    malloc_trim(0);
    std::ofstream clearRefs("/proc/self/clear_refs");
    clearRefs << "5";
    clearRefs.flush();
    return clearRefs ? peakRss() : -1.0;
}

QByteArray groupName(int group)
{
    return "g" + QByteArray::number(group);
}

QByteArray attributeName(int index)
{
    return "a" + QByteArray::number(index);
}

// One side of the link: an application root with the shared subtree under it.
struct Side
{
    Node app;
    Loomy::RemoteNode *node = new Loomy::RemoteNode(&app, "shared");
};

// Two trees and the sessions that join them. Frame thread only, like the library's sessions.
class LinkedTrees
{
public:
    ~LinkedTrees() { release(); }

    // Fills the left tree. The watcher queues these additions until the node's first update.
    void build(int count)
    {
        sources.reserve(size_t(count));
        for (int group = 0; group * s_groupSize < count; ++group) {
            auto *node = new Node(left.node, groupName(group));
            for (int i = 0; i < s_groupSize && group * s_groupSize + i < count; ++i)
                sources.push_back(new FloatAttr(node, attributeName(i), float(i)));
        }
    }

    void join()
    {
        right.node->eventAddListener("initialized", [this] { initialized = true; });
        Loomy::BundleControllerParams leftParams;
        Loomy::BundleControllerParams rightParams;
        rightParams.createMissingAttributes = true;
        sessions = Loomy::connectLocally(*left.node, leftParams, *right.node, rightParams);
    }

    // Runs frames until done() holds, at most s_maxFrames; the number run, or -1 if it never held.
    static int runFramesUntil(const std::function<bool()> &done)
    {
        for (int frames = 1; frames <= s_maxFrames; ++frames) {
            Node::runHostUpdate();
            if (done())
                return frames;
        }
        return -1;
    }

    // The peer's "initialized" event comes behind the bundles of the initial state, in the same
    // batch: once it is handled, every initial value has been applied.
    int syncInitialState()
    {
        return runFramesUntil([this] { return initialized; });
    }

    // Finds the right side's copy of every source, in the same order; false if one is missing
    // or holds another value.
    bool findCopies()
    {
        copies.clear();
        copies.reserve(sources.size());
        Node *node = nullptr;
        for (size_t index = 0; index < sources.size(); ++index) {
            const int group = int(index) / s_groupSize;
            if (index % s_groupSize == 0)
                node = dynamic_cast<Node *>(right.node->attribute(groupName(group)));
            auto *copy = node ? dynamic_cast<FloatAttr *>(node->attribute(attributeName(int(index) % s_groupSize)))
                              : nullptr;
            if (!copy || copy->value() != sources[index]->value())
                return false;
            copies.push_back(copy);
        }
        return true;
    }

    // A few idle frames let both sides settle after the initial state: the peer's answers
    // acknowledged, task queues empty.
    static void settle()
    {
        for (int i = 0; i < 3; ++i)
            Node::runHostUpdate();
    }

    // Controllers go first; the next pass releases their sessions while both trees stand.
    void release()
    {
        if (!sessions.first && !sessions.second)
            return;
        sessions = Loomy::LocalSessionPair();
        Node::runHostUpdate();
    }

    Side left;
    Side right;
    Loomy::LocalSessionPair sessions;
    std::vector<FloatAttr *> sources;   // left, owned by the tree
    std::vector<FloatAttr *> copies;    // right, same order as sources
    bool initialized = false;
};

// --- changes ---

constexpr int s_changeTreeSize = 100000;
std::unique_ptr<LinkedTrees> s_changeWorld;   // built once, shared by the change benchmarks
float s_lastValue = 0.f;                      // every iteration sets a value never set before

LinkedTrees *changeWorld()
{
    if (!s_changeWorld) {
        s_changeWorld = std::make_unique<LinkedTrees>();
        s_changeWorld->build(s_changeTreeSize);
        s_changeWorld->join();
        if (s_changeWorld->syncInitialState() < 0 || !s_changeWorld->findCopies()) {
            s_changeWorld.reset();
            return nullptr;
        }
        // Otherwise the first timed frame would also apply the answers to the initial state.
        LinkedTrees::settle();
        s_lastValue = float(s_groupSize);
    }
    return s_changeWorld.get();
}

// One iteration: set `changed` attributes on the left to a new value, then run frames until the
// last of them holds it on the right. All changes of a frame travel in one batch, applied in
// order, so the last one arriving means all have.
void BM_ChangeToPeer(benchmark::State &state)
{
    const int changed = int(state.range(0));
    LinkedTrees *link = changeWorld();
    if (!link) {
        state.SkipWithError("the initial state did not arrive");
        return;
    }
    const int problemsBefore = s_problems.load();
    double seconds = 0;
    double cpuSeconds = 0;
    long frames = 0;
    for (auto _ : state) {
        const float value = ++s_lastValue;
        FloatAttr *last = link->copies[size_t(changed) - 1];
        const Stopwatch watch;
        for (int i = 0; i < changed; ++i)
            link->sources[size_t(i)]->setValue(value);
        const int ran = LinkedTrees::runFramesUntil([last, value] { return last->value() == value; });
        const double elapsed = watch.wallSeconds();
        cpuSeconds += watch.cpuSeconds();
        state.SetIterationTime(elapsed);
        seconds += elapsed;
        frames += ran;
        if (ran < 0) {
            state.SkipWithError("the changes did not arrive");
            return;
        }
    }
    for (int i = 0; i < changed; ++i) {
        if (link->copies[size_t(i)]->value() != s_lastValue) {
            state.SkipWithError("a copy holds another value");
            return;
        }
    }
    if (s_problems.load() != problemsBefore) {
        state.SkipWithError("the library logged a warning or an error");
        return;
    }
    const double changes = double(state.iterations()) * changed;
    state.counters["ns_per_change"] = seconds * 1e9 / changes;
    state.counters["cpu_ns_per_change"] = cpuSeconds * 1e9 / changes;
    state.counters["frames"] = double(frames) / double(state.iterations());
}
BENCHMARK(BM_ChangeToPeer)->ArgName("changed")->Arg(1000)->Arg(100000)->UseManualTime()->Unit(benchmark::kMillisecond);

// --- initial synchronisation ---

// One iteration: join a filled left tree to an empty right one and run frames until the right
// holds everything. Building and tearing down the trees is not timed. With flushed set, the
// left node's update runs once before the join, so the watcher's queued additions are raised
// while no session listens: each attribute then reaches the session only through the walk of
// the initial state.
void BM_InitialSync(benchmark::State &state)
{
    const int count = int(state.range(0));
    const bool flushed = state.range(1) != 0;
    const int problemsBefore = s_problems.load();
    double seconds = 0;
    double cpuSeconds = 0;
    double bytesThere = 0;
    double bytesBack = 0;
    for (auto _ : state) {
        auto link = std::make_unique<LinkedTrees>();
        link->build(count);
        if (flushed)
            link->left.node->update();
        const Stopwatch watch;
        link->join();
        const int frames = link->syncInitialState();
        const double elapsed = watch.wallSeconds();
        cpuSeconds += watch.cpuSeconds();
        state.SetIterationTime(elapsed);
        seconds += elapsed;
        if (frames < 0 || !link->findCopies()) {
            state.SkipWithError("the initial state did not arrive whole");
            return;
        }
        bytesThere += double(link->sessions.toSecond->bytesSent());
        bytesBack += double(link->sessions.toFirst->bytesSent());
    }
    if (s_problems.load() != problemsBefore) {
        state.SkipWithError("the library logged a warning or an error");
        return;
    }
    const double attributes = double(state.iterations()) * count;
    state.counters["ns_per_attr"] = seconds * 1e9 / attributes;
    state.counters["cpu_ns_per_attr"] = cpuSeconds * 1e9 / attributes;
    state.counters["wire_bytes_per_attr"] = bytesThere / attributes;
    state.counters["wire_bytes_back_per_attr"] = bytesBack / attributes;
}
BENCHMARK(BM_InitialSync)
    ->ArgNames({"attributes", "flushed"})
    ->Args({100000, 0})
    ->Args({100000, 1})
    ->Iterations(3)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);
BENCHMARK(BM_InitialSync)
    ->ArgNames({"attributes", "flushed"})
    ->Args({1000000, 0})
    ->Iterations(1)
    ->UseManualTime()
    ->Unit(benchmark::kMillisecond);

// --- memory ---

// Heap bytes per attribute of each part: the left tree as built, then, after the
// synchronisation, each part taken away in turn: the right session (its controller released and
// its core pruned by a frame), the left session, the right tree. A tree includes what its
// RemoteNode keeps for each path whatever the sessions. Beside them the growth of the process's
// peak resident size from before the build to after the synchronisation, halved for one side:
// what the heap figures leave out (allocator overhead, fragmentation, transient buffers).
void BM_Memory(benchmark::State &state)
{
    const int count = int(state.range(0));
    for (auto _ : state) {
        const double rssAtStart = restartPeakRss();
        if (rssAtStart < 0) {
            state.SkipWithError("the peak resident size cannot be restarted (/proc/self/clear_refs)");
            return;
        }
        const double atStart = heapInUse();
        auto link = std::make_unique<LinkedTrees>();
        link->build(count);
        // Less this benchmark's own list of the sources.
        const double plainTree = heapInUse() - atStart - double(link->sources.capacity() * sizeof(FloatAttr *));
        // The watcher files new attributes (symbol, cache entry, listeners) at the node's next
        // update: that belongs to the tree, whether a session comes or not.
        link->left.node->update();
        const double leftTree = heapInUse() - atStart - double(link->sources.capacity() * sizeof(FloatAttr *));

        link->join();
        if (link->syncInitialState() < 0 || !link->findCopies()) {
            state.SkipWithError("the initial state did not arrive whole");
            return;
        }
        LinkedTrees::settle();
        link->copies.clear();
        link->copies.shrink_to_fit();
        const double synced = heapInUse();
        const double peakGrowth = peakRss() - rssAtStart;

        link->sessions.second.reset();
        Node::runHostUpdate();
        const double withoutRightSession = heapInUse();
        link->sessions.first.reset();
        Node::runHostUpdate();
        const double withoutSessions = heapInUse();
        link->sessions = Loomy::LocalSessionPair();
        delete link->right.node;
        const double withoutRightTree = heapInUse();

        const double rightSession = synced - withoutRightSession;
        const double leftSession = withoutRightSession - withoutSessions;
        const double rightTree = withoutSessions - withoutRightTree;
        state.counters["left_tree_B_per_attr"] = leftTree / count;
        state.counters["of_which_watched_B_per_attr"] = (leftTree - plainTree) / count;
        state.counters["left_session_B_per_attr"] = leftSession / count;
        state.counters["left_total_B_per_attr"] = (leftTree + leftSession) / count;
        state.counters["right_tree_B_per_attr"] = rightTree / count;
        state.counters["right_session_B_per_attr"] = rightSession / count;
        state.counters["right_total_B_per_attr"] = (rightTree + rightSession) / count;
        state.counters["peak_rss_B_per_attr_per_side"] = peakGrowth / count / 2;
    }
}
BENCHMARK(BM_Memory)->ArgName("attributes")->Arg(100000)->Arg(1000000)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv)
{
    Kestrel::Trace::setHook([](Kestrel::Trace::Level level, const QString &line) {
        if (level == Kestrel::Trace::Level::Warning || level == Kestrel::Trace::Level::Error) {
            ++s_problems;
            std::fprintf(stderr, "%s\n", qPrintable(line));
        }
    });
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    // The shared trees go while the library's globals still stand.
    s_changeWorld.reset();
    return 0;
}
