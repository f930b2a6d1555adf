// The scan of an asset root: the first scan of 100,000 small files (every file hashed, the cache
// written), and the warm rescan of the same unchanged root (only the walk: no file is read, the
// cache isn't written), measured against `find` over the same root in the same run.
//
// The root and the settings live in a temporary folder of this run. Each figure is checked: the
// scan must list every file, and the library must log no error.
#include "loomy/assets/AssetBase.h"

#include "kestrel/Trace.h"

#include <QDir>
#include <QFile>
#include <QSettings>
#include <QTemporaryDir>

#include <benchmark/benchmark.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <memory>

namespace {

using Clock = std::chrono::steady_clock;

constexpr int s_folders = 100;
constexpr int s_filesPerFolder = 1000;
constexpr int s_files = s_folders * s_filesPerFolder;

std::atomic<int> s_errors{0};

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

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

double timeFind()
{
    const QByteArray command = "find '" + tree().root.toUtf8() + "' > /dev/null";
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
    double scan = 0, find = 0;
    for (auto _ : state) {
        const auto start = Clock::now();
        const auto list = assets.buildFileList(nullptr);
        const double seconds = secondsSince(start);
        state.SetIterationTime(seconds);
        scan += seconds;
        find += timeFind();
        if (list.size() != s_files)
            state.SkipWithError("the scan missed files");
    }
    const double rounds = double(state.iterations());
    state.counters["scan_ms"] = scan * 1e3 / rounds;
    state.counters["find_ms"] = find * 1e3 / rounds;
    state.counters["scan_per_find"] = scan / find;
    if (s_errors)
        state.SkipWithError("errors were logged");
}
BENCHMARK(BM_WarmRescanVsFind)->Iterations(5)->UseManualTime()->Unit(benchmark::kMillisecond);

} // namespace

int main(int argc, char **argv)
{
    Kestrel::Trace::setHook([](Kestrel::Trace::Level level, const QString &line) {
        if (level == Kestrel::Trace::Level::Error) {
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
