// The costs of an asset root and of moving its files, each beside a baseline of the same run.
//
// BM_FirstScan, BM_WarmRescanVsFind: the scan of a root of 100,000 small files: the first scan
// (every file hashed, the cache written), and the warm rescan of the unchanged root (only the
// walk: no file is read, the cache isn't written) against `find` over the same root, and beside it
// against `find -printf '%T@ %s\n'`, which has to stat every entry as the rescan does.
//
// BM_OneGiB: one file of 1 GiB (2^30 bytes, a whole number of parts whose count is exact in
// single precision) from one asset root to another over loopback, the receiver checking the MD5
// of what arrived, beside these baselines on the same file:
//   md5sum                    md5sum of the file alone
//   copy                      a raw socket copy: 64 KiB blocks read from the file, sent, written
//   copy_then_md5sum          that copy followed by md5sum of the result: what the transfer does
//                             (move the bytes, then know they are right) done by separate tools
//   loomy                     request to committed file, through two FileTransferHandlers
// Each iteration is one round of the pipeline and one transfer, in alternating order, so that both
// see the same load; the figures are medians over the rounds (MiB/s of the file's size), and
// loomy_per_pipeline is the median of the rounds' own ratios, with its lowest and highest beside
// it. cpu_per_pipeline compares the processor time that each spends on the gigabyte (threads of
// this process, and md5sum's), which a busy machine disturbs much less than the time on the clock.
// The first scan of the sending root (which hashes the file) is timed apart, once.
//
// Roots and settings live in temporary folders of the run. Every figure is checked: the scans
// must list every file, copies and transfers must arrive byte for byte, and the library must log
// no warning or error; otherwise the run is reported as an error, with no figures.
#include "loomy/assets/AssetBase.h"
#include "loomy/assets/FileTransferHandler.h"

#include "kestrel/TCPServerSocket.h"
#include "kestrel/TCPSocket.h"
#include "kestrel/Trace.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <algorithm>
#include <functional>
#include <memory>
#include <thread>
#include <vector>

#include <sys/resource.h>

namespace {

using Clock = std::chrono::steady_clock;

std::atomic<int> s_errors{0};   // warnings and errors logged by the library

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

// Processor seconds, user and system, of this process's threads or of its waited-for children.
double cpuSeconds(int who)
{
    struct rusage usage;
    ::getrusage(who, &usage);
    const auto seconds = [](const timeval &t) { return double(t.tv_sec) + double(t.tv_usec) / 1e6; };
    return seconds(usage.ru_utime) + seconds(usage.ru_stime);
}

double median(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    const size_t n = values.size();
    return n == 0 ? 0 : n % 2 ? values[n / 2] : (values[n / 2 - 1] + values[n / 2]) / 2;
}

// ---- the scan of 100,000 small files

constexpr int s_folders = 100;
constexpr int s_filesPerFolder = 1000;
constexpr int s_files = s_folders * s_filesPerFolder;

// The tree, made once per run: 100 folders of 1,000 files of 16 bytes each.
struct Tree
{
    QTemporaryDir dir;
    QString root;
    bool ok = true;

    Tree()
    {
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, dir.path() + "/config");
        root = dir.path() + "/root";
        for (int f = 0; f < s_folders && ok; ++f) {
            const QString folder = QStringLiteral("%1/f%2").arg(root).arg(f);
            ok = QDir().mkpath(folder);
            for (int i = 0; i < s_filesPerFolder && ok; ++i) {
                QFile file(QStringLiteral("%1/file%2").arg(folder).arg(i));
                ok = file.open(QIODevice::WriteOnly) && file.write(QByteArray::number(f * s_filesPerFolder + i).rightJustified(16, '0')) == 16;
            }
        }
    }
};

Tree &tree()
{
    static Tree t;
    return t;
}

// `find` over the root, with `printing` as its expression (empty: the names alone, which needs no
// stat; "-printf '%T@ %s\n'": the time and size of every entry, the facts a rescan must learn).
double timeFind(const char *printing = "")
{
    const QByteArray command = "find '" + tree().root.toUtf8() + "' " + printing + " > /dev/null";
    const auto start = Clock::now();
    if (std::system(command.constData()) != 0)
        ++s_errors;
    return secondsSince(start);
}

void BM_FirstScan(benchmark::State &state)
{
    if (!tree().ok) {
        state.SkipWithError("can't make the tree");
        return;
    }
    for (auto _ : state) {
        QSettings("Brindlewax", "Cache").clear();
        // The object's first scan runs on its own thread from construction; buildFileList waits
        // for it and then scans once more. So this is the cold scan plus one warm rescan (whose
        // time the next benchmark gives).
        const auto start = Clock::now();
        Loomy::AssetBase assets(tree().root);
        const auto list = assets.buildFileList(nullptr);
        state.SetIterationTime(secondsSince(start));
        if (list.size() != s_files)
            state.SkipWithError("the scan missed files");
    }
    state.counters["files"] = s_files;
}
BENCHMARK(BM_FirstScan)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

// Rounds of one rescan and one find, alternating, so that both see the same state of the caches.
void BM_WarmRescanVsFind(benchmark::State &state)
{
    if (!tree().ok) {
        state.SkipWithError("can't make the tree");
        return;
    }
    Loomy::AssetBase assets(tree().root);
    assets.buildFileList(nullptr);   // waits for the first scan; the cache is complete from here on
    timeFind();
    const char *const printing = "-printf '%T@ %s\\n'";
    double scan = 0, find = 0, findPrinting = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        const auto list = assets.buildFileList(nullptr);
        const double seconds = secondsSince(start);
        state.SetIterationTime(seconds);
        scan += seconds;
        find += timeFind();
        findPrinting += timeFind(printing);
        if (list.size() != s_files)
            state.SkipWithError("the scan missed files");
    }
    const double rounds = double(state.iterations());
    state.counters["scan_ms"] = scan * 1e3 / rounds;
    state.counters["find_ms"] = find * 1e3 / rounds;
    state.counters["scan_per_find"] = scan / find;
    // Beside the target's baseline: find made to stat every entry as the rescan does.
    state.counters["find_printf_ms"] = findPrinting * 1e3 / rounds;
    state.counters["scan_per_find_printf"] = scan / findPrinting;
    if (s_errors)
        state.SkipWithError("errors were logged");
}
BENCHMARK(BM_WarmRescanVsFind)->Iterations(7)->UseManualTime()->Unit(benchmark::kMillisecond);

// ---- one file of 1 GiB

constexpr long long s_size = 1LL << 30;
constexpr double s_mib = double(s_size) / (1 << 20);
constexpr int s_block = 65536;

struct Roots
{
    QTemporaryDir dir;
    QString source() const { return dir.path() + "/up"; }
    QString target() const { return dir.path() + "/down"; }
    QString file() const { return source() + "/big"; }
    QByteArray md5;   // of the file, as hex

    Roots()
    {
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, dir.path() + "/config");
        QDir().mkpath(source());
        QDir().mkpath(target());
        QFile out(file());
        if (!out.open(QIODevice::WriteOnly))
            return;
        QCryptographicHash hash(QCryptographicHash::Md5);
        QByteArray block(s_block, Qt::Uninitialized);
        unsigned x = 12345;
        for (long long done = 0; done < s_size; done += s_block) {
            for (char &c : block) {
                x = x * 1103515245u + 12345u;
                c = char(x >> 23);
            }
            hash.addData(block);
            out.write(block);
        }
        md5 = hash.result().toHex();
    }
};

double md5sumSeconds(const QString &path, bool *matches, const QByteArray &expected)
{
    const QByteArray command = "md5sum '" + path.toUtf8() + "'";
    const auto start = Clock::now();
    FILE *pipe = ::popen(command.constData(), "r");
    char out[64] = {};
    const bool read = pipe && std::fread(out, 1, 32, pipe) == 32;
    if (pipe)
        ::pclose(pipe);
    *matches = read && QByteArray(out, 32) == expected;
    return secondsSince(start);
}

// A plain copy over a loopback socket: one thread reads the file and sends it, this one receives
// and writes it out.
double rawCopySeconds(const QString &from, const QString &to)
{
    Kestrel::TCPServerSocket listener;
    if (listener.open("127.0.0.1", 0, 1) != 0)
        return -1;
    const auto start = Clock::now();
    std::thread sender([&] {
        Kestrel::TCPSocket socket;
        QFile in(from);
        if (socket.open("127.0.0.1", listener.port()) != 0 || !in.open(QIODevice::ReadOnly | QIODevice::Unbuffered))
            return;
        QByteArray block(s_block, Qt::Uninitialized);
        for (qint64 got; (got = in.read(block.data(), s_block)) > 0;)
            socket.write(block.constData(), int(got));
    });
    std::unique_ptr<Kestrel::TCPSocket> socket;
    if (listener.isPendingConnection(10 * 1000 * 1000))
        socket.reset(listener.accept());
    QFile out(to);
    long long received = 0;
    if (socket && out.open(QIODevice::WriteOnly | QIODevice::Unbuffered)) {
        QByteArray block(s_block, Qt::Uninitialized);
        for (int got; received < s_size && (got = socket->read(block.data(), s_block, false)) > 0; received += got)
            out.write(block.constData(), got);
    }
    out.close();
    sender.join();
    return received == s_size ? secondsSince(start) : -1;
}

struct Assets : Loomy::AssetBase
{
    using AssetBase::AssetBase;
    void transferFinished() override { ++finished; }
    std::atomic<int> finished{0};
};

class Handler : public Loomy::FileTransferHandler
{
public:
    Handler(Kestrel::TCPSocket *socket, bool accepted, Assets &assets)
        : FileTransferHandler(socket, accepted, assets), m_root(assets.root())
    {
    }
    ~Handler() override
    {
        stop();
        waitEnd(0);
    }
    QString assetRoot() override { return m_root; }
    void reserved() override {}
    void downloadProgress(long long, const QString &) override {}

private:
    const QString m_root;
};

bool waitFor(const std::function<bool()> &condition, double seconds)
{
    const auto deadline = Clock::now() + std::chrono::duration<double>(seconds);
    while (!condition()) {
        if (Clock::now() > deadline)
            return false;
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    return true;
}

void BM_OneGiB(benchmark::State &state)
{
    Roots roots;
    if (roots.md5.isEmpty()) {
        state.SkipWithError("can't write the file");
        return;
    }
    auto start = Clock::now();
    Assets up(roots.source());
    up.buildFileList(nullptr);   // waits for the first scan, which hashes the file
    const double firstScan = secondsSince(start);
    Assets down(roots.target());
    down.buildFileList(nullptr);

    Kestrel::TCPServerSocket listener;
    listener.open("127.0.0.1", 0, 1);
    Handler downloader(nullptr, false, down);
    downloader.setReconnect(false);
    downloader.connectToHost("127.0.0.1", listener.port());
    if (!listener.isPendingConnection(10 * 1000 * 1000)) {
        state.SkipWithError("no connection");
        return;
    }
    Handler uploader(listener.accept(), true, up);
    uploader.run();
    if (!waitFor([&] { return downloader.isConnected(); }, 10)) {
        state.SkipWithError("no login");
        return;
    }

    const QString copied = roots.dir.path() + "/copy";
    // One round of each; false (with the error set) if anything arrived wrong.
    double pipelineSeconds = 0, pipelineCpu = 0, copySeconds = 0, loomySeconds = 0, loomyCpu = 0;
    const auto pipeline = [&] {
        const double self = cpuSeconds(RUSAGE_SELF), children = cpuSeconds(RUSAGE_CHILDREN);
        bool right = false;
        copySeconds = rawCopySeconds(roots.file(), copied);
        pipelineSeconds = copySeconds + md5sumSeconds(copied, &right, roots.md5);
        pipelineCpu = cpuSeconds(RUSAGE_SELF) - self + cpuSeconds(RUSAGE_CHILDREN) - children;
        QFile::remove(copied);
        return copySeconds >= 0 && right;
    };
    int transfers = 0;
    const auto loomy = [&] {
        const double self = cpuSeconds(RUSAGE_SELF);
        const auto begin = Clock::now();
        downloader.requestFileInfo("/big");
        ++transfers;
        const bool ended = waitFor([&] { return down.finished == transfers; }, 300);
        loomySeconds = secondsSince(begin);
        loomyCpu = cpuSeconds(RUSAGE_SELF) - self;
        const bool right = ended && down.md5("/big").toLatin1() == roots.md5 && QFileInfo(roots.target() + "/big").size() == s_size;
        QFile::remove(roots.target() + "/big");
        return right;
    };

    std::vector<double> md5sums, copies, pipelines, loomys, ratios, cpuRatios;
    for (auto _ : state) {
        bool md5Right = false;
        md5sums.push_back(s_mib / md5sumSeconds(roots.file(), &md5Right, roots.md5));
        const bool pipelineFirst = md5sums.size() % 2 == 1;
        const bool right = pipelineFirst ? pipeline() && loomy() : loomy() && pipeline();
        if (!md5Right || !right) {
            state.SkipWithError("a copy or the transfer arrived wrong");
            return;
        }
        state.SetIterationTime(loomySeconds);
        copies.push_back(s_mib / copySeconds);
        pipelines.push_back(s_mib / pipelineSeconds);
        loomys.push_back(s_mib / loomySeconds);
        ratios.push_back(pipelineSeconds / loomySeconds);
        cpuRatios.push_back(loomyCpu / pipelineCpu);
    }
    state.counters["md5sum_MiBps"] = median(md5sums);
    state.counters["copy_MiBps"] = median(copies);
    state.counters["copy_then_md5sum_MiBps"] = median(pipelines);
    state.counters["loomy_MiBps"] = median(loomys);
    state.counters["loomy_per_pipeline"] = median(ratios);
    state.counters["loomy_per_pipeline_lowest"] = *std::min_element(ratios.begin(), ratios.end());
    state.counters["loomy_per_pipeline_highest"] = *std::max_element(ratios.begin(), ratios.end());
    state.counters["cpu_per_pipeline"] = median(cpuRatios);
    state.counters["first_scan_s"] = firstScan;
    if (s_errors)
        state.SkipWithError("errors were logged");
}
BENCHMARK(BM_OneGiB)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv)
{
    Kestrel::Trace::setHook([](Kestrel::Trace::Level level, const QString &line) {
        if (level == Kestrel::Trace::Level::Error || level == Kestrel::Trace::Level::Warning) {
            ++s_errors;
            std::fprintf(stderr, "%s\n", qUtf8Printable(line));
        }
    });
    benchmark::Initialize(&argc, argv);
    if (benchmark::ReportUnrecognizedArguments(argc, argv))
        return 1;
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return 0;
}
