// One file of 1 GiB (2^30 bytes, a whole number of parts whose count is exact in single
// precision) from one asset root to another over loopback, the receiver checking the MD5 of what
// arrived, beside the baselines of the same run on the same file:
//
//   md5sum                    md5sum of the file alone
//   copy                      a raw socket copy: 64 KiB blocks read from the file, sent, written
//   copy_then_md5sum          that copy followed by md5sum of the result: what the transfer does
//                             (move the bytes, then know they are right) done by separate tools
//   loomy                     request to committed file, through two FileTransferHandlers
//
// The first scan of the sending root (which hashes the file) is timed apart. All figures are
// MiB/s of the file's size; loomy_per_pipeline is loomy over copy_then_md5sum. A run whose copy or
// transfer doesn't arrive byte for byte is reported as an error, with no figures.
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
#include <memory>
#include <thread>

namespace {

using Clock = std::chrono::steady_clock;

constexpr long long s_size = 1LL << 30;
constexpr double s_mib = double(s_size) / (1 << 20);
constexpr int s_block = 65536;

std::atomic<int> s_errors{0};

double secondsSince(Clock::time_point start)
{
    return std::chrono::duration<double>(Clock::now() - start).count();
}

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
    for (auto _ : state) {
        bool md5Right = false, copyRight = false;
        const double md5sum = md5sumSeconds(roots.file(), &md5Right, roots.md5);
        const QString copied = roots.dir.path() + "/copy";
        const double copy = rawCopySeconds(roots.file(), copied);
        const double checkCopy = md5sumSeconds(copied, &copyRight, roots.md5);
        QFile::remove(copied);
        if (!md5Right || copy < 0 || !copyRight) {
            state.SkipWithError("a baseline failed");
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
        start = Clock::now();
        downloader.requestFileInfo("/big");
        const bool ended = waitFor([&] { return down.finished == 1; }, 300);
        const double transfer = secondsSince(start);
        if (!ended || down.md5("/big").toLatin1() != roots.md5 || QFileInfo(roots.target() + "/big").size() != s_size) {
            state.SkipWithError("the file didn't arrive");
            return;
        }
        state.SetIterationTime(transfer);
        state.counters["md5sum_MiBps"] = s_mib / md5sum;
        state.counters["copy_MiBps"] = s_mib / copy;
        state.counters["copy_then_md5sum_MiBps"] = s_mib / (copy + checkCopy);
        state.counters["loomy_MiBps"] = s_mib / transfer;
        state.counters["loomy_per_pipeline"] = (copy + checkCopy) / transfer;
        state.counters["first_scan_s"] = firstScan;
        QFile::remove(roots.target() + "/big");
    }
    if (s_errors)
        state.SkipWithError("errors were logged");
}
BENCHMARK(BM_OneGiB)->Iterations(1)->UseManualTime()->Unit(benchmark::kMillisecond);

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
