#include "kestrel/DirectoryListing.h"

#include <QFile>

#include <algorithm>
#include <atomic>
#include <cstring>
#include <functional>
#include <condition_variable>
#include <mutex>
#include <thread>

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

namespace Kestrel {

namespace {

// Names of one folder per stat batch that a helper takes at a time.
const int s_batch = 128;

DirectoryId idOf(const struct stat &st)
{
    return {(unsigned long long)st.st_dev, (unsigned long long)st.st_ino};
}

// Fills `entry` from a stat of `name` in the folder `fd`; false for what the listing leaves out.
bool statEntry(int fd, const char *name, RawDirectory::Entry &entry)
{
    struct stat st;
    if (::fstatat(fd, name, &st, 0) != 0)
        return false;   // vanished, or a broken link
    const bool isDir = S_ISDIR(st.st_mode);
    if (!isDir && !S_ISREG(st.st_mode))
        return false;
    // Most entries are readable by everyone; only the others cost a second call.
    if (!(st.st_mode & S_IROTH) && ::faccessat(fd, name, R_OK, AT_EACCESS) != 0)
        return false;
    entry.isDir = isDir;
    entry.size = st.st_size;
    entry.modifiedMs = (long long)st.st_mtim.tv_sec * 1000 + st.st_mtim.tv_nsec / 1000000;
    entry.id = idOf(st);
    return true;
}

// The names of one folder and their stat results, shared between the threads that list it.
struct Batches
{
    int fd = -1;
    RawDirectory *out = nullptr;       // every name, then the listed entries
    std::vector<char> listed;          // by name index: out->entries[i] is to be listed
    std::atomic<int> next{0};          // next batch to take

    void run()
    {
        const int count = int(listed.size());
        for (int batch; (batch = next.fetch_add(1)) * s_batch < count;) {
            const int end = std::min(count, (batch + 1) * s_batch);
            for (int i = batch * s_batch; i < end; ++i) {
                RawDirectory::Entry &entry = out->entries[i];
                listed[i] = statEntry(fd, out->name(entry), entry);
            }
        }
    }
};

// With `helpers`, folders of more than one batch are stat'ed by several threads.
void listWith(const char *path, RawDirectory &out, DirectoryId *self, const std::function<void(Batches &)> &helpers)
{
    out.names.clear();
    out.entries.clear();
    DIR *dir = ::opendir(path);
    if (!dir)
        return;
    Batches batches;
    batches.fd = ::dirfd(dir);
    batches.out = &out;
    struct stat st;
    if (self && ::fstat(batches.fd, &st) == 0)
        *self = idOf(st);
    while (const dirent *item = ::readdir(dir)) {
        if (item->d_name[0] == '.')
            continue;   // hidden, "." and ".."
        RawDirectory::Entry entry;
        entry.name = int(out.names.size());
        entry.nameLength = int(std::strlen(item->d_name));
        out.names.insert(out.names.end(), item->d_name, item->d_name + entry.nameLength + 1);
        out.entries.push_back(entry);
    }
    const size_t count = out.entries.size();
    batches.listed.assign(count, 0);
    if (helpers && count > size_t(s_batch))
        helpers(batches);
    else
        batches.run();
    ::closedir(dir);
    size_t kept = 0;
    for (size_t i = 0; i < count; ++i) {
        if (batches.listed[i])
            out.entries[kept++] = out.entries[i];
    }
    out.entries.resize(kept);
}

} // namespace

std::vector<DirectoryEntry> listDirectory(const QString &path, DirectoryId *self)
{
    RawDirectory raw;
    listWith(QFile::encodeName(path).constData(), raw, self, nullptr);
    std::vector<DirectoryEntry> entries(raw.entries.size());
    for (size_t i = 0; i < entries.size(); ++i) {
        const RawDirectory::Entry &from = raw.entries[i];
        DirectoryEntry &to = entries[i];
        to.name = decodeFileName(raw.name(from), from.nameLength);
        to.isDir = from.isDir;
        to.size = from.size;
        to.modifiedMs = from.modifiedMs;
        to.id = from.id;
    }
    return entries;
}

// The caller posts a folder's batches as `job` and takes batches itself; helpers that see the job
// take batches too. Before the caller returns, it withdraws the job and waits until no helper is
// inside it, so no helper touches a folder that is gone.
class DirectoryLister::D
{
public:
    std::mutex mutex;                    // guards the members below
    std::condition_variable wake;        // a new job, or the end
    std::condition_variable left;        // a helper left a job
    Batches *job = nullptr;
    unsigned long long generation = 0;   // counts jobs, so that a helper joins each one once
    int inside = 0;                      // helpers working on `job`
    bool ending = false;
    std::vector<std::thread> threads;

    void help()
    {
        std::unique_lock<std::mutex> lock(mutex);
        unsigned long long seen = 0;
        for (;;) {
            wake.wait(lock, [&] { return ending || (job && generation != seen); });
            if (ending)
                return;
            seen = generation;
            Batches *batches = job;
            ++inside;
            lock.unlock();
            batches->run();
            lock.lock();
            --inside;
            left.notify_all();
        }
    }
};

DirectoryLister::DirectoryLister()
    : DirectoryLister(std::clamp(int(std::thread::hardware_concurrency()) - 1, 0, 3))
{
}

DirectoryLister::DirectoryLister(int helpers)
    : m_d(std::make_unique<D>())
{
    for (int i = 0; i < helpers; ++i)
        m_d->threads.emplace_back([this] { m_d->help(); });
}

DirectoryLister::~DirectoryLister()
{
    {
        std::lock_guard<std::mutex> lock(m_d->mutex);
        m_d->ending = true;
    }
    m_d->wake.notify_all();
    for (std::thread &thread : m_d->threads)
        thread.join();
}

QString decodeFileName(const char *name, int length)
{
    for (int i = 0; i < length; ++i) {
        if ((unsigned char)name[i] >= 0x80)
            return QFile::decodeName(QByteArray::fromRawData(name, length));
    }
    return QString::fromLatin1(name, length);
}

void DirectoryLister::list(const char *path, RawDirectory &out, DirectoryId *self)
{
    if (m_d->threads.empty()) {
        listWith(path, out, self, nullptr);
        return;
    }
    listWith(path, out, self, [this](Batches &batches) {
        {
            std::lock_guard<std::mutex> lock(m_d->mutex);
            m_d->job = &batches;
            ++m_d->generation;
        }
        m_d->wake.notify_all();
        batches.run();
        std::unique_lock<std::mutex> lock(m_d->mutex);
        m_d->job = nullptr;
        m_d->left.wait(lock, [&] { return m_d->inside == 0; });
    });
}

} // namespace Kestrel
