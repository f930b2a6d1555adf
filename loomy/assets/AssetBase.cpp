#include "loomy/assets/AssetBase.h"

#include "kestrel/Condition.h"
#include "kestrel/DirectoryListing.h"
#include "kestrel/Mutex.h"
#include "kestrel/Trace.h"

#include <QCryptographicHash>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QSettings>

#include <algorithm>
#include <atomic>
#include <deque>
#include <map>
#include <string>
#include <unordered_map>
#include <vector>

namespace Loomy {

namespace {

struct Found
{
    QString name;
    QDateTime modified;
    long long size;
};

using FileList = QMap<QString, AssetBase::FileInfo>;

// What a walk finds: records of the file list whose time is unchanged, and the files to hash.
struct Walked
{
    std::vector<FileList::const_iterator> unchanged;   // into the file list
    std::vector<Found> toHash;
};

// A record of the file list as the walk compares it with a file: its time, in the listing's unit.
struct Known
{
    FileList::const_iterator record;
    long long modifiedMs;
    bool valid;                // a record without a valid time matches no file
};

// The state of one walk, kept from folder to folder so that the walk of an unchanged tree makes no
// string and no allocation per file.
struct WalkState
{
    QByteArray root;                                  // the root as bytes
    std::string path;                                 // the folder's name as bytes, from "/" to "/"
    std::string full;                                 // root and path, for the listing
    std::deque<Kestrel::RawDirectory> levels;         // the listing of each folder of the path
    std::vector<Kestrel::DirectoryId> ancestors;      // the folders from the root down to the parent
    Walked walked;
};

const int s_hashBlock = 4096;
// Bytes of received parts that may wait for the hash feeder before their receiver waits too.
const long long s_hashBacklog = 4 << 20;

// Partial downloads, and names with a character that the file commands' name pattern can't
// carry, are left out of every list: the names that QDir's (case-insensitive) wildcard filters
// "*.filesync.part" and "*[\\:*?\"<>]*" select. Matched here rather than by a second listing of
// each folder, which would double the cost of a scan.
bool isInvisible(const QString &fileName)
{
    static const QString s_unsafe = QStringLiteral("\\:*?\"<>");
    if (fileName.endsWith(QLatin1String(".filesync.part"), Qt::CaseInsensitive))
        return true;
    for (const QChar c : fileName) {
        if (s_unsafe.contains(c))
            return true;
    }
    return false;
}

bool isAscii(const char *bytes, int length)
{
    for (int i = 0; i < length; ++i) {
        if ((unsigned char)bytes[i] >= 0x80)
            return false;
    }
    return true;
}

// isInvisible for a name of ASCII bytes, which decodes to the same characters in every locale.
bool isInvisible(const char *name, int length)
{
    static const char s_part[] = ".filesync.part";
    const int partLength = int(sizeof s_part) - 1;
    if (length >= partLength && qstrnicmp(name + length - partLength, s_part, partLength) == 0)
        return true;
    for (int i = 0; i < length; ++i) {
        switch (name[i]) {
        case '\\': case ':': case '*': case '?': case '"': case '<': case '>':
            return true;
        default:
            break;
        }
    }
    return false;
}

void report(ProgressSender *sender, const QString &text)
{
    if (sender)
        sender->transferInfo(text);
}

// Feeds the running hashes of downloads on a thread of its own, so that a connection receives its
// next part while the last one is hashed. Hashes are fed in the order the data came.
class HashFeeder : public Kestrel::Thread
{
public:
    // `hashMutex` is held while a hash is fed, and must be held by anyone who reads one.
    explicit HashFeeder(Kestrel::Mutex &hashMutex) : Kestrel::Thread(QStringLiteral("LoomyHash")), m_hashMutex(hashMutex) {}
    ~HashFeeder() override
    {
        {
            Kestrel::MutexLocker lock(m_mutex);
            m_running = false;
        }
        m_condition.wakeAll(m_mutex);
        waitEnd(0);
    }

    // Queues the bytes for the hash; waits while the queue holds more than s_hashBacklog bytes.
    void add(std::shared_ptr<QCryptographicHash> hash, const QByteArray &data)
    {
        Kestrel::MutexLocker lock(m_mutex);
        while (m_queuedBytes > s_hashBacklog)
            m_condition.wait(m_mutex, 100);
        if (!isRunning())
            run();
        m_queue.emplace_back(std::move(hash), data);
        m_queuedBytes += data.size();
        ++m_added;
        // Only an idle feeder waits for work; waking it for every part would cost a switch each.
        if (m_queue.size() == 1)
            m_condition.wakeAll();
    }

    // Returns once everything queued before the call has been fed.
    void drain()
    {
        Kestrel::MutexLocker lock(m_mutex);
        const unsigned long long target = m_added;
        while (m_fed < target)
            m_condition.wait(m_mutex, 100);
    }

protected:
    void childLoop() override
    {
        Kestrel::MutexLocker lock(m_mutex);
        for (;;) {
            if (m_queue.empty()) {
                if (!m_running)
                    return;
                m_condition.wait(m_mutex, 100);
                continue;
            }
            const auto job = std::move(m_queue.front());
            m_queue.pop_front();
            lock.unlock();
            {
                Kestrel::MutexLocker hashLock(m_hashMutex);
                job.first->addData(job.second);
            }
            lock.relock();
            m_queuedBytes -= job.second.size();
            ++m_fed;
            // Waiters are a receiver held back by the backlog, which resumes once half of it is
            // fed, and drain(), which needs the queue empty.
            if (m_queue.empty() || (m_queuedBytes <= s_hashBacklog / 2 && m_queuedBytes + job.second.size() > s_hashBacklog / 2))
                m_condition.wakeAll();
        }
    }

private:
    Kestrel::Mutex &m_hashMutex;
    Kestrel::Mutex m_mutex;                   // guards the rest; a leaf
    Kestrel::Condition m_condition;           // the queue or the fed count changed, or the end
    std::deque<std::pair<std::shared_ptr<QCryptographicHash>, QByteArray>> m_queue;
    long long m_queuedBytes = 0;
    unsigned long long m_added = 0;           // jobs queued so far
    unsigned long long m_fed = 0;             // jobs fed so far
    bool m_running = true;
};

} // namespace

ProgressSender::~ProgressSender() = default;
void ProgressSender::transferProgress(long long, long long) {}
void ProgressSender::transferInfo(const QString &) {}

FileListThread::FileListThread(AssetBase *assets)
    : Kestrel::Thread(QStringLiteral("LoomyFileList")), m_assets(assets)
{
}

FileListThread::~FileListThread()
{
    waitEnd(0);
}

void FileListThread::childLoop()
{
    m_assets->buildFileList(nullptr);
}

AssetBase::FileInfo::FileInfo() = default;

AssetBase::FileInfo::FileInfo(const QDateTime &ts_, const QByteArray &md5_, long long size_,
                              Kestrel::TimeStamp stamp_)
    : ts(ts_), md5(md5_), size(size_), stamp(stamp_)
{
}

// The two maps are changed under their own locks (listMutex, downloadMutex), which are held for
// a whole scan. Readers that must not wait for a scan take only readMutex, a leaf that every
// change of either map takes as well, for the change alone.
class AssetBase::D
{
public:
    long long walk(Kestrel::DirectoryLister &lister, WalkState &state, const QString &folder, bool ascii);
    const Known *findKnown(const std::string &name);   // listMutex held
    QString cacheArray() const { return QStringLiteral("FileList/") + root; }
    QString fullPath(const QString &name) const { return root + name; }
    const FileInfo *findDownload(const QString &name) const;   // readMutex held

    QString root;                              // canonical, no trailing "/"; set once
    std::unique_ptr<FileListThread> fileListThread;
    std::atomic<bool> scanning{true};          // stop() clears it, for good

    Kestrel::Mutex listMutex;                  // held for a whole scan and while fileList changes
    QMap<QString, FileInfo> fileList;          // changed under listMutex and readMutex; every change
                                               // sets indexStale. Only const access elsewhere:
                                               // a detach would leave the index pointing elsewhere
    // The records of fileList whose names are ASCII, by the names' bytes, for the walk: guarded by
    // listMutex, and rebuilt at the first walk after fileList changed.
    std::unordered_map<std::string, Known> index;
    bool indexStale = true;

    Kestrel::Mutex removeMutex;                // guards removeQueue; held during the walk
    std::map<QString, std::vector<std::weak_ptr<ConnectionThread>>> removeQueue;

    Kestrel::Mutex downloadMutex;              // guards changes of downloadList
    QMap<QString, FileInfo> downloadList;      // changed under downloadMutex and readMutex;
                                               // its hashes are fed under readMutex too

    mutable Kestrel::Mutex readMutex;          // leaf: no other lock is taken while it is held

    // The running hashes of downloadList are fed by hashFeeder, and read, under hashMutex (a leaf).
    mutable Kestrel::Mutex hashMutex;
    std::unique_ptr<HashFeeder> hashFeeder = std::make_unique<HashFeeder>(hashMutex);
};

// The walk of one folder: state.path is its name as bytes and `folder` as text, both beginning and
// ending in "/"; `ascii` tells whether the name is all ASCII. state.path is given back as it came.
// listMutex and removeMutex held (the iterators of the walk's result point into fileList). The
// listing is that of QDir with QDir::Files | QDir::AllDirs | QDir::Readable | QDir::NoDot |
// QDir::NoDotDot (hidden names out, links followed); see isInvisible for what it leaves out.
// A file of an ASCII name is compared with its record by bytes; only the others, and the files to
// hash, get their name as a QString.
long long AssetBase::D::walk(Kestrel::DirectoryLister &lister, WalkState &state, const QString &folder, bool ascii)
{
    const size_t depth = state.ancestors.size();
    if (state.levels.size() == depth)
        state.levels.emplace_back();
    Kestrel::RawDirectory &listing = state.levels[depth];
    state.full.assign(state.root.constData(), size_t(state.root.size()));
    state.full += state.path;
    Kestrel::DirectoryId self;
    lister.list(state.full.c_str(), listing, &self);
    // A link to this folder or to one above it would lead into it again, for ever.
    state.ancestors.push_back(self);
    const size_t length = state.path.size();
    long long bytes = 0;
    for (const Kestrel::RawDirectory::Entry &entry : listing.entries) {
        if (!scanning)
            break;
        const char *fileName = listing.name(entry);
        const bool asciiName = isAscii(fileName, entry.nameLength);
        QString name;   // folder + the decoded file name, made only where needed
        const auto decoded = [&]() -> const QString & {
            if (name.isNull())
                name = folder + Kestrel::decodeFileName(fileName, entry.nameLength);
            return name;
        };
        if (asciiName ? isInvisible(fileName, entry.nameLength)
                      : isInvisible(Kestrel::decodeFileName(fileName, entry.nameLength)))
            continue;
        state.path.resize(length);
        state.path.append(fileName, size_t(entry.nameLength));
        if (entry.isDir) {
            if (std::find(state.ancestors.cbegin(), state.ancestors.cend(), entry.id) == state.ancestors.cend()) {
                state.path += '/';
                bytes += walk(lister, state, decoded() + QLatin1Char('/'), ascii && asciiName);
            }
            continue;
        }
        if (!removeQueue.empty() && removeQueue.count(decoded()))
            continue;
        // The time alone decides: a file rewritten within the same timestamp isn't hashed again.
        if (ascii && asciiName) {
            const Known *known = findKnown(state.path);
            if (known && known->valid && known->modifiedMs == entry.modifiedMs) {
                state.walked.unchanged.push_back(known->record);
                continue;
            }
        } else {
            const auto known = fileList.constFind(decoded());
            if (known != fileList.cend() && known->ts.isValid() && known->ts.toMSecsSinceEpoch() == entry.modifiedMs) {
                state.walked.unchanged.push_back(known);
                continue;
            }
        }
        state.walked.toHash.push_back({decoded(), QDateTime::fromMSecsSinceEpoch(entry.modifiedMs, Qt::UTC), entry.size});
        bytes += entry.size;
    }
    state.path.resize(length);
    state.ancestors.pop_back();
    return bytes;
}

const Known *AssetBase::D::findKnown(const std::string &name)
{
    if (indexStale) {
        index.clear();
        index.reserve(size_t(fileList.size()));
        for (auto it = fileList.cbegin(); it != fileList.cend(); ++it) {
            const QString &key = it.key();
            const bool asciiKey = std::all_of(key.cbegin(), key.cend(), [](QChar c) { return c.unicode() < 0x80; });
            if (asciiKey)
                index.emplace(key.toLatin1().toStdString(), Known{it, it->ts.toMSecsSinceEpoch(), it->ts.isValid()});
        }
        indexStale = false;
    }
    const auto it = index.find(name);
    return it == index.end() ? nullptr : &it->second;
}

const AssetBase::FileInfo *AssetBase::D::findDownload(const QString &name) const
{
    const auto it = downloadList.constFind(name);
    return it == downloadList.cend() ? nullptr : &*it;
}

AssetBase::AssetBase(const QString &root)
    : m_d(std::make_unique<D>())
{
    // A folder that isn't there yet is made, as a download destination is expected to be: its
    // canonical path would be empty, and every scan and download would then start at "/".
    if (!root.isEmpty() && !QFileInfo::exists(root))
        QDir().mkpath(root);
    m_d->root = QFileInfo(root).canonicalFilePath();
    while (m_d->root.endsWith(QLatin1Char('/')))
        m_d->root.chop(1);
    if (m_d->root.isEmpty()) {
        // Not made (no permission, a file in the way): the path as given, where nothing can be
        // listed or written, rather than an empty root that would mean "/".
        Kestrel::Trace::error("AssetBase::AssetBase # No folder at '%s'; nothing will be listed or stored",
                              qUtf8Printable(root));
        m_d->root = QFileInfo(root).absoluteFilePath();
        while (m_d->root.endsWith(QLatin1Char('/')))
            m_d->root.chop(1);
    }
    m_d->fileListThread = std::make_unique<FileListThread>(this);

    QSettings cache(QStringLiteral("Brindlewax"), QStringLiteral("Cache"));
    const int count = cache.beginReadArray(m_d->cacheArray());
    const Kestrel::TimeStamp now = Kestrel::TimeStamp::currentTime();
    for (int i = 0; i < count; ++i) {
        cache.setArrayIndex(i);
        const long long size = cache.value(QStringLiteral("size")).toLongLong();
        const QByteArray md5 = cache.value(QStringLiteral("MD5")).toByteArray();
        const QDateTime ts = cache.value(QStringLiteral("ts")).toDateTime();
        m_d->fileList.insert(cache.value(QStringLiteral("file")).toString(), FileInfo(ts, md5, size, now));
    }
    cache.endArray();

    m_d->fileListThread->run();
}

AssetBase::~AssetBase()
{
    m_d->scanning = false;
    m_d->fileListThread->waitEnd(0);
    m_d->fileListThread.reset();
}

void AssetBase::stop()
{
    m_d->scanning = false;
}

void AssetBase::transferFinished()
{
}

QMap<QString, AssetBase::FileInfo> AssetBase::buildFileList(ProgressSender *sender)
{
    Kestrel::MutexLocker listLock(m_d->listMutex);
    report(sender, QStringLiteral("Scanning directory tree..."));
    WalkState state;
    Walked &walked = state.walked;
    {
        Kestrel::MutexLocker removeLock(m_d->removeMutex);
        state.root = QFile::encodeName(m_d->root);
        state.path = "/";
        walked.unchanged.reserve(size_t(m_d->fileList.size()));
        Kestrel::DirectoryLister lister;   // the stat calls of a large folder on several cores
        if (!m_d->root.isEmpty())          // an empty root would walk the whole file system
            m_d->walk(lister, state, QStringLiteral("/"), true);
    }
    QMap<QString, FileInfo> result;
    // Every record found unchanged and nothing else: the list itself, shared, which also makes the
    // comparison below immediate. This is the rescan of an unchanged tree.
    if (walked.toHash.empty() && walked.unchanged.size() == size_t(m_d->fileList.size())) {
        result = m_d->fileList;
    } else {
        for (const auto &known : walked.unchanged)
            result.insert(known.key(), *known);
    }
    char block[s_hashBlock];
    for (const Found &item : walked.toHash) {
        if (!m_d->scanning)
            break;
        const QString &name = item.name;
        QFile file(m_d->fullPath(name));
        if (!file.open(QIODevice::ReadOnly)) {
            report(sender, QStringLiteral("Failed to open: %1").arg(name));
            Kestrel::Trace::error("Failed to open %s", qUtf8Printable(name));
            continue;
        }
        QCryptographicHash hash(QCryptographicHash::Md5);
        while (!file.atEnd()) {
            const qint64 got = file.read(block, s_hashBlock);
            if (got <= 0)
                break;
            hash.addData(block, int(got));
        }
        file.close();
        report(sender, QStringLiteral("Generated checksums: %1").arg(name));
        result.insert(name, FileInfo(item.modified, hash.result(), item.size, Kestrel::TimeStamp::currentTime()));
    }
    // A stopped scan is incomplete: it must replace neither the list nor the cache.
    if (m_d->scanning && result != m_d->fileList) {
        {
            Kestrel::MutexLocker readLock(m_d->readMutex);
            m_d->fileList = result;
            m_d->indexStale = true;
        }
        QSettings cache(QStringLiteral("Brindlewax"), QStringLiteral("Cache"));
        cache.remove(m_d->cacheArray());
        cache.beginWriteArray(m_d->cacheArray());
        int index = 0;
        for (auto it = result.cbegin(); it != result.cend(); ++it) {
            cache.setArrayIndex(index++);
            cache.setValue(QStringLiteral("file"), it.key());
            cache.setValue(QStringLiteral("ts"), it->ts);
            cache.setValue(QStringLiteral("MD5"), it->md5);
            cache.setValue(QStringLiteral("size"), it->size);
        }
        cache.endArray();
    }
    report(sender, QStringLiteral("Checksum list generated"));
    return result;
}

QString AssetBase::root() const
{
    return m_d->root;
}

void AssetBase::addFileToRemoveQueue(const QString &name, std::shared_ptr<ConnectionThread> connection)
{
    Kestrel::MutexLocker lock(m_d->removeMutex);
    m_d->removeQueue[name].push_back(connection);
}

void AssetBase::removeFileAndEmptyFolders(const QString &name)
{
    const QString full = m_d->fullPath(name);
    QDir dir(QFileInfo(QFileInfo(full).absolutePath()).canonicalFilePath());
    QFile::remove(full);
    // Climbs no higher than the root, and never out of it.
    const QString inside = m_d->root + QLatin1Char('/');
    for (QString path = dir.canonicalPath(); path != m_d->root && path.startsWith(inside); path = dir.canonicalPath()) {
        if (!dir.rmdir(path) || !dir.cdUp())
            break;
    }
}

QString AssetBase::md5(QString name) const
{
    Kestrel::MutexLocker lock(m_d->readMutex);
    const auto it = m_d->fileList.constFind(name);
    return it == m_d->fileList.cend() ? QString() : QString::fromLatin1(it->md5.toHex());
}

bool AssetBase::addFileToDownloadList(QString name, long long size, long long parts, QString md5Hex,
                                      Kestrel::TimeStamp stamp)
{
    Kestrel::MutexLocker lock(m_d->downloadMutex);
    if (m_d->downloadList.contains(name))
        return false;
    FileInfo record(QDateTime::currentDateTime(), QByteArray::fromHex(md5Hex.toLatin1()), size, stamp);
    record.totalParts = parts;
    record.hash = std::make_shared<QCryptographicHash>(QCryptographicHash::Md5);
    Kestrel::MutexLocker readLock(m_d->readMutex);
    m_d->downloadList.insert(name, record);
    return true;
}

bool AssetBase::isDownloading(QString name) const
{
    Kestrel::MutexLocker lock(m_d->readMutex);
    return m_d->downloadList.contains(name);
}

long long AssetBase::totalParts(QString name) const
{
    Kestrel::MutexLocker lock(m_d->readMutex);
    const FileInfo *record = m_d->findDownload(name);
    return record ? record->totalParts : -1;
}

long long AssetBase::currentParts(QString name) const
{
    Kestrel::MutexLocker lock(m_d->readMutex);
    const FileInfo *record = m_d->findDownload(name);
    return record ? record->currentParts : -1;
}

bool AssetBase::increasePartCount(QString name)
{
    Kestrel::MutexLocker lock(m_d->downloadMutex);
    Kestrel::MutexLocker readLock(m_d->readMutex);
    const auto it = m_d->downloadList.find(name);
    if (it == m_d->downloadList.end())
        return false;
    ++it->currentParts;
    return true;
}

void AssetBase::downloadListAddHashData(QString name, QByteArray &data)
{
    std::shared_ptr<QCryptographicHash> hash;
    {
        Kestrel::MutexLocker lock(m_d->downloadMutex);
        Kestrel::MutexLocker readLock(m_d->readMutex);
        const FileInfo *record = m_d->findDownload(name);
        if (record)
            hash = record->hash;
    }
    // Outside the locks: the feeder may make this wait until it has caught up.
    if (hash)
        m_d->hashFeeder->add(std::move(hash), data);
}

QString AssetBase::downloadListMD5(QString name) const
{
    Kestrel::MutexLocker lock(m_d->readMutex);
    const FileInfo *record = m_d->findDownload(name);
    return record ? QString::fromLatin1(record->md5.toHex()) : QString();
}

QString AssetBase::downloadListPartMD5(QString name) const
{
    std::shared_ptr<QCryptographicHash> hash;
    {
        Kestrel::MutexLocker lock(m_d->readMutex);
        const FileInfo *record = m_d->findDownload(name);
        if (!record || !record->hash)
            return QString();
        hash = record->hash;
    }
    m_d->hashFeeder->drain();
    // result() works on a copy of the state, so the hash can go on; it does write the hash's
    // cached result, hence the lock.
    Kestrel::MutexLocker lock(m_d->hashMutex);
    return QString::fromLatin1(hash->result().toHex());
}

QDateTime AssetBase::downloadListStartTime(QString name)
{
    Kestrel::MutexLocker lock(m_d->downloadMutex);
    const FileInfo *record = m_d->findDownload(name);
    return record ? record->ts : QDateTime();
}

bool AssetBase::removeFileFromDownloadList(QString name, bool success)
{
    FileInfo record;
    {
        Kestrel::MutexLocker lock(m_d->downloadMutex);
        const FileInfo *found = m_d->findDownload(name);
        if (!found)
            return false;
        record = *found;
    }
    if (success) {
        // The announced checksum stands for the file at once, so that it can be offered before
        // the next scan; that scan then finds the time unchanged and doesn't hash it again.
        const QFileInfo file(m_d->fullPath(name));
        const QDateTime ts = (file.exists() ? file.lastModified() : QDateTime::currentDateTime()).toUTC();
        Kestrel::MutexLocker listLock(m_d->listMutex);
        Kestrel::MutexLocker readLock(m_d->readMutex);
        m_d->fileList.insert(name, FileInfo(ts, record.md5, record.size, Kestrel::TimeStamp::currentTime()));
        m_d->indexStale = true;
    }
    Kestrel::MutexLocker lock(m_d->downloadMutex);
    bool removed;
    {
        Kestrel::MutexLocker readLock(m_d->readMutex);
        removed = m_d->downloadList.remove(name) > 0;
    }
    if (removed && m_d->downloadList.isEmpty()) {
        buildFileList(nullptr);
        transferFinished();
    }
    return removed;
}

bool AssetBase::clearDownloadList(Kestrel::TimeStamp stamp)
{
    Kestrel::MutexLocker lock(m_d->downloadMutex);
    QStringList names;
    for (auto it = m_d->downloadList.cbegin(); it != m_d->downloadList.cend(); ++it) {
        if (it->stamp != stamp)
            continue;
        names << it.key();
        // Only a download that received a part has a part file of its own; an older one of the
        // same name may belong to someone else.
        if (it->currentParts >= 1)
            QFile::remove(m_d->fullPath(it.key()) + QStringLiteral(".filesync.part"));
    }
    Kestrel::MutexLocker readLock(m_d->readMutex);
    for (const QString &name : names)
        m_d->downloadList.remove(name);
    return !names.isEmpty();
}

} // namespace Loomy
