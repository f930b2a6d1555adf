#pragma once
#include "loomy/loomy_export.h"
#include "loomy/net/ConnectionThread.h"

#include <QString>

#include <memory>

namespace Loomy {

class AssetBase;

/// A connection that moves files between the asset roots of two peers. Either side may ask the
/// other for a file; the side that wants it drives the transfer:
///
///   D: "sendfileinfo \"<name>\"\n"                        tell me about this file
///   U: "fileinfo <size> \"<name>\" <parts> <md5 hex>\n"  (nothing if U has no such file)
///   D: "sendparts \"<name>\"\n"                           send me all its parts
///   U: "filepart \"<name>\" <bytes> <part>\n" + bytes      parts numbered from 1
///
/// A name begins with "/", has no ? * < > : or double quote, and is relative to assetRoot(). A
/// part holds m_partSize bytes except the last; an empty file is announced with 0 parts and sent
/// as the one line "filepart \"<name>\" 0 1\n". Part counts are computed in single precision, so
/// that both ends of a link agree with older peers: above 16777216 bytes the announced count can
/// fall short of the parts sent, and such a download fails its MD5 check. Nothing is ever sent back
/// about a failure; the downloader only waits.
///
/// The downloader appends the parts to "<name>.filesync.part", hashes them as they come, and only
/// when the MD5 of all parts equals the announced one replaces the file. A disconnect ends this
/// connection's downloads and removes their part files; there is no resuming. The uploader reads
/// the file on a background task and pauses while the writer holds more than 0x1ffffff bytes.
///
/// Threads: parse and the downloads run on the connection's thread, uploads on a Kestrel::BGThread
/// task, requests from any thread. downloadProgress() runs on the connection's thread.
///
/// Lifetime: the assets object outlives the handler. A subclass calls stop() and waitEnd(0) in its
/// own destructor, since the connection's thread calls its overrides. The upload task calls none:
/// the full path of a file to send is taken from assetRoot() when its "sendparts" is parsed.
class LOOMY_EXPORT FileTransferHandler : public ConnectionThread
{
public:
    /// socket and accepted as for ConnectionThread; assets must outlive the connection.
    FileTransferHandler(Kestrel::TCPSocket *socket, bool accepted, AssetBase &assets);
    ~FileTransferHandler() override;

    /// The folder that names are relative to: the full path is its result followed by the name.
    virtual QString assetRoot() = 0;
    /// Declared for subclasses; the library never calls it.
    virtual void reserved() = 0;
    /// Bytes stored for the file since the last report: every m_progressInterval parts and at the
    /// end of the download.
    virtual void downloadProgress(long long bytes, const QString &name) = 0;

    /// Asks the peer for a file; this is how a download begins.
    void requestFileInfo(QString name);
    /// Asks the peer for all parts of a file it has announced.
    void requestFileParts(QString name);

    /// The handlers of the four commands, on the connection's thread.
    bool sendFileInfo(QString name);
    /// Handles a "fileinfo" line: raises "file-info" and asks for the parts unless the file is being downloaded already.
    void receiveFileInfo(QString name, long long size, long long parts, QString md5);
    /// Handles a "sendparts" line: queues the file for the upload task.
    void startFilePartsUploadTask(QString name);
    /// Handles a "filepart" line: reads the part's bytes and stores them.
    void receiveFilePart(QString name, long long size, long long part);

    /// The upload, on the task's thread: 0 to be run again at once, 1 to be run again in 0.1
    /// seconds, 2 when the queue is empty and the task has ended.
    int sendFileParts();
    /// Opens the file being uploaded and sends what the writer takes of it.
    void startSendingfileParts();
    /// Sends further parts while the writer holds less than its limit.
    void continueSendingFileParts();

protected:
    bool parse(QString line) override;
    void connected() override;
    void disconnected() override;

    long long m_partSize = 65536;      ///< bytes per part
    /// the asset base files are listed from and stored into; not owned
    AssetBase &m_assets;
    int m_progressInterval = 20;       ///< parts between two calls of downloadProgress

private:
    long long partCount(long long size) const;

    class D;
    std::unique_ptr<D> m_d;
};

} // namespace Loomy
