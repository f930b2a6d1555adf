#pragma once
#include "loomy/loomy_export.h"

#include "kestrel/Thread.h"
#include "kestrel/TimeStamp.h"

#include <QByteArray>
#include <QDateTime>
#include <QMap>
#include <QString>

#include <memory>

class QCryptographicHash;

namespace Loomy {

class AssetBase;
class ConnectionThread;

/// What a scan reports to, for a user interface.
class LOOMY_EXPORT ProgressSender
{
public:
    virtual ~ProgressSender();
    /// For a subclass's own progress reports; the scan doesn't call it.
    virtual void transferProgress(long long done, long long total);
    /// One line of the scan's progress: "Scanning directory tree...", "Failed to open: <name>",
    /// "Generated checksums: <name>", "Checksum list generated". Called on the scanning thread.
    virtual void transferInfo(const QString &text);
};

/// The thread "LoomyFileList": runs one scan of its asset base and ends.
class LOOMY_EXPORT FileListThread : public Kestrel::Thread
{
public:
    explicit FileListThread(AssetBase *assets);   ///< assets outlives the thread
    ~FileListThread() override;

protected:
    /// Runs the scan; on this thread.
    void childLoop() override;

private:
    AssetBase *m_assets;
};

/// One asset root: the files in it with their sizes, times and MD5 sums, and the downloads into it
/// that are running. File names are relative to the root, begin with "/" and use "/" between
/// folders; the full path is the root followed by the name.
///
/// Checksums are kept in QSettings("Brindlewax", "Cache"), under the array "FileList/" + root, so
/// that a scan only hashes files whose modification time differs from their record. The cached
/// list is in place as soon as the constructor returns; the constructor starts a first scan on the
/// thread "LoomyFileList".
///
/// Threads: any. A scan holds the list lock for its whole length, so a second scan waits for the
/// first. md5, isDownloading, totalParts, currentParts, downloadListMD5 and downloadListPartMD5
/// never wait for a scan. Lock order: list lock, then the remove-queue lock; download lock, then
/// list lock.
class LOOMY_EXPORT AssetBase
{
public:
    /// A record of the file list or of the download list. Two records are equal when ts and md5
    /// are; the other fields don't count.
    struct LOOMY_EXPORT FileInfo
    {
        QDateTime ts;                 ///< file list: modification time; download list: when added
        QByteArray md5;               ///< 16 raw bytes: of the file, or as announced by the sender
        /// bytes: of the file, or as announced by the sender
        long long size = 0;
        long long totalParts = 0;     ///< announced parts; 0 in the file list
        long long currentParts = 0;   ///< parts received; 0 in the file list
        std::shared_ptr<QCryptographicHash> hash;   ///< MD5 of the parts received so far
        Kestrel::TimeStamp stamp;     ///< file list: creation; download list: the owning connection's

        FileInfo();
        /// A record with the given fields and no parts.
        FileInfo(const QDateTime &ts, const QByteArray &md5, long long size, Kestrel::TimeStamp stamp);
        /// Equal when ts and md5 are.
        bool operator==(const FileInfo &other) const { return ts == other.ts && md5 == other.md5; }
        /// Not equal when ts or md5 differ.
        bool operator!=(const FileInfo &other) const { return !(*this == other); }
    };

    /// root: the folder whose files this base lists and receives, made if it doesn't exist yet; the
    /// checksum cache is read here.
    explicit AssetBase(const QString &root);
    /// Stops the scans, joins the scan thread. Marks of the remove queue aren't kept.
    virtual ~AssetBase();
    AssetBase(const AssetBase &) = delete;
    AssetBase &operator=(const AssetBase &) = delete;

    /// Ends all scanning for good: a scan in progress stops at its next file and leaves the list
    /// and the cache as they were, and so does every later one.
    virtual void stop();
    /// Called when the last download of the list has ended, on the thread that ended it, with the
    /// download lock held: an override must not call addFileToDownloadList, increasePartCount,
    /// downloadListAddHashData, downloadListStartTime, removeFileFromDownloadList or
    /// clearDownloadList on this object.
    virtual void transferFinished();

    /// Scans the root (sender may be null) and returns the list; updates the file list and the
    /// cache when it changed. Blocks until a scan already running has ended.
    QMap<QString, FileInfo> buildFileList(ProgressSender *sender);
    /// The folder given at construction; any thread.
    QString root() const;

    /// Leaves the name out of the next scans. Nothing here clears the mark.
    void addFileToRemoveQueue(const QString &name, std::shared_ptr<ConnectionThread> connection);
    /// Removes the file, then its folders upwards while they are empty, up to the root.
    void removeFileAndEmptyFolders(const QString &name);

    /// 32 lower-case hex digits; empty for an unknown name.
    QString md5(QString name) const;

    /// False, with the running record unchanged, when the name is being downloaded already.
    bool addFileToDownloadList(QString name, long long size, long long parts, QString md5Hex,
                               Kestrel::TimeStamp stamp);
    /// Whether the name is in the download list; any thread.
    bool isDownloading(QString name) const;
    long long totalParts(QString name) const;     ///< -1 for an unknown name
    long long currentParts(QString name) const;   ///< -1 for an unknown name
    /// Counts one more part received; false for an unknown name.
    bool increasePartCount(QString name);
    /// Adds the bytes of a received part to the name's running MD5; nothing for an unknown name.
    /// The hashing runs on the thread "LoomyHash"; this waits only while more than 4 MiB of
    /// parts are queued there.
    void downloadListAddHashData(QString name, QByteArray &data);
    QString downloadListMD5(QString name) const;       ///< announced; empty for an unknown name
    /// Of all parts added so far: waits until they are hashed. Empty for an unknown name.
    QString downloadListPartMD5(QString name) const;
    QDateTime downloadListStartTime(QString name);     ///< invalid for an unknown name
    /// Ends a download. With success the file list takes the announced checksum at once. The last
    /// removal from the list runs a scan and transferFinished, with the download lock held.
    bool removeFileFromDownloadList(QString name, bool success);
    /// Forgets the downloads of one connection and deletes their part files (those that received
    /// a part). No scan, no transferFinished. True if there were any.
    bool clearDownloadList(Kestrel::TimeStamp stamp);

private:
    class D;
    std::unique_ptr<D> m_d;
};

} // namespace Loomy
