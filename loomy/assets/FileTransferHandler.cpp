#include "loomy/assets/FileTransferHandler.h"

#include "loomy/assets/AssetBase.h"

#include "kestrel/BGThread.h"
#include "kestrel/BinaryData.h"
#include "kestrel/Mutex.h"
#include "kestrel/Task.h"
#include "kestrel/TimeStamp.h"
#include "kestrel/Trace.h"

#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QList>
#include <QMap>
#include <QRegExp>

#include <atomic>
#include <climits>
#include <cmath>
#include <tuple>
#include <utility>

namespace Loomy {

namespace {

// Above this many bytes in the writer's queue the upload reads nothing.
const long long s_uploadLimit = 0x1ffffff;
const double s_uploadPauseSeconds = 0.1;
const char s_partSuffix[] = ".filesync.part";

// The quoted name of every command; the capture is the bare name.
const QString s_name = QStringLiteral("\"((?:/[^?*<>:\"]+)+)\"");

QRegExp pattern(const QString &text)
{
    return QRegExp(text, Qt::CaseSensitive, QRegExp::RegExp);
}

} // namespace

// Runs the upload of one handler on the background pool until its queue is empty.
class FileUploadTask : public Kestrel::Task
{
public:
    explicit FileUploadTask(FileTransferHandler *handler) : Kestrel::Task(1.0f), m_handler(handler) {}

    void doTask() override
    {
        FileTransferHandler *handler = m_handler;
        if (!handler) {
            setState(Done);
            return;
        }
        switch (handler->sendFileParts()) {
        case 0:
            return;
        case 1:
            scheduleFromNowSecs(s_uploadPauseSeconds);
            return;
        default:
            setState(Done);
        }
    }

    std::atomic<FileTransferHandler *> m_handler;   // cleared by the handler's destructor
};

class FileTransferHandler::D
{
public:
    QMap<QString, long long> progress;        // connection thread only: bytes not yet reported
    Kestrel::TimeStamp connectedAt;           // connection thread only: tags this connection's downloads

    Kestrel::Mutex uploadMutex;               // guards the next two; the task only tries it
    std::shared_ptr<FileUploadTask> uploadTask;
    // Names with their full paths. The path is resolved when the name is queued, on the
    // connection's thread: the task calls no override, since it may run while a subclass's
    // destructor has already run and before this class's destructor has ended the task.
    QList<std::pair<QString, QString>> uploadQueue;

    QString uploadName;                       // the task only
    QString uploadPath;                       // the task only
    QFile uploadFile;                         // the task only

    // Connection thread only: a QRegExp keeps its captures in the object.
    QRegExp fileInfo = pattern(QStringLiteral("^fileinfo (-?\\d+) ") + s_name + QStringLiteral(" (\\d+) ([0-9a-f]{32})$"));
    QRegExp sendFileInfo = pattern(QStringLiteral("^sendfileinfo ") + s_name + QStringLiteral("$"));
    QRegExp filePart = pattern(QStringLiteral("^filepart ") + s_name + QStringLiteral(" (\\d+) (\\d+)$"));
    QRegExp sendParts = pattern(QStringLiteral("^sendparts ") + s_name + QStringLiteral("$"));
};

FileTransferHandler::FileTransferHandler(Kestrel::TCPSocket *socket, bool accepted, AssetBase &assets)
    : ConnectionThread(socket, accepted), m_assets(assets), m_d(std::make_unique<D>())
{
    m_pingTimeout = 60.0;
    eventAddOut("file-info");
}

FileTransferHandler::~FileTransferHandler()
{
    // The connection's thread calls into this part of the object: it ends first. A stopped
    // connection also ends the send loop of an upload in progress.
    stop();
    waitEnd(0);
    std::shared_ptr<FileUploadTask> task;
    {
        Kestrel::MutexLocker lock(m_d->uploadMutex);
        task = m_d->uploadTask;
        if (task)
            task->m_handler = nullptr;
    }
    // Waits for a run in progress, which may still use this object, and ends the task; without
    // the mutex, which such a run tries to take.
    if (task)
        task->runNow(true);
}

void FileTransferHandler::requestFileInfo(QString name)
{
    writeBuffer(QStringLiteral("sendfileinfo \"%1\"\n").arg(name), QByteArray());
}

void FileTransferHandler::requestFileParts(QString name)
{
    writeBuffer(QStringLiteral("sendparts \"%1\"\n").arg(name), QByteArray());
}

// In single precision on purpose: peers count parts this way (see the class comment).
long long FileTransferHandler::partCount(long long size) const
{
    return (long long)ceilf(float(size) / float(m_partSize));
}

bool FileTransferHandler::parse(QString line)
{
    if (m_d->fileInfo.exactMatch(line)) {
        const QString name = m_d->fileInfo.cap(2);
        if (name.contains(QLatin1String("..")) || !name.startsWith(QLatin1Char('/'))) {
            Kestrel::Trace::error("Filename can't contain '..' and it has to start with '/': %s", qUtf8Printable(name));
            return true;
        }
        receiveFileInfo(name, m_d->fileInfo.cap(1).toLongLong(), m_d->fileInfo.cap(3).toLongLong(),
                        m_d->fileInfo.cap(4));
        return true;
    }
    if (m_d->sendFileInfo.exactMatch(line)) {
        sendFileInfo(m_d->sendFileInfo.cap(1));
        return true;
    }
    if (m_d->filePart.exactMatch(line)) {
        receiveFilePart(m_d->filePart.cap(1), m_d->filePart.cap(2).toLongLong(), m_d->filePart.cap(3).toLongLong());
        return true;
    }
    if (m_d->sendParts.exactMatch(line)) {
        startFilePartsUploadTask(m_d->sendParts.cap(1));
        return true;
    }
    return false;
}

bool FileTransferHandler::sendFileInfo(QString name)
{
    const QString full = assetRoot() + name;
    const QFileInfo file(full);
    if (!file.exists()) {
        Kestrel::Trace::error("FileTransferHandler::commitUpload#  file '%s' doesn't exist. Not uploaded",
                              qUtf8Printable(full));
        return false;
    }
    // The checksum is the file list's: a file that no scan has seen yet goes out without one.
    const long long size = file.size();
    writeBuffer(QStringLiteral("fileinfo %1 \"%2\" %3 %4\n")
                    .arg(QString::number(size), name, QString::number(partCount(size)), m_assets.md5(name)),
                QByteArray());
    return true;
}

void FileTransferHandler::receiveFileInfo(QString name, long long size, long long parts, QString md5)
{
    Kestrel::BinaryData info;
    info.writeString(name);
    info.writeInt64(size);
    info.writeInt64(parts);
    info.writeString(md5);
    eventSend("file-info", info);
    if (m_assets.addFileToDownloadList(name, size, parts, md5, m_d->connectedAt))
        requestFileParts(name);
    else
        Kestrel::Trace::error("File '%s' is being downloaded already", qUtf8Printable(name));
}

void FileTransferHandler::startFilePartsUploadTask(QString name)
{
    const QString path = assetRoot() + name;   // not under the mutex: an override may lock
    Kestrel::MutexLocker lock(m_d->uploadMutex);
    m_d->uploadQueue.append({name, path});
    if (m_d->uploadTask)
        return;
    m_d->uploadTask = std::make_shared<FileUploadTask>(this);
    Kestrel::BGThread::instance()->addTask(m_d->uploadTask);
}

void FileTransferHandler::receiveFilePart(QString name, long long size, long long part)
{
    const QString full = assetRoot() + name;
    const QString partPath = full + QLatin1String(s_partSuffix);
    const QString folder = QFileInfo(full).absolutePath();
    if (!QDir(folder).exists())
        QDir().mkpath(folder);

    // The bytes are read before any check, so that the stream stays in step whatever becomes of
    // the part. A size that no read can take leaves nothing to stay in step with.
    if (size > INT_MAX) {
        Kestrel::Trace::error("FileTransferHandler::receiveFilePart # part of %lld bytes for '%s' is too large",
                              size, qUtf8Printable(name));
        abortRead();
        return;
    }
    QByteArray bytes = readData(int(size));
    if (bytes.size() != size)
        return;   // the connection failed (logged by the read) and is ending

    const long long expected = m_assets.currentParts(name) + 1;
    if (part != expected || !m_assets.isDownloading(name)) {
        Kestrel::Trace::error("received file part %lld but we expected %lld: '%s'", part, expected,
                              qUtf8Printable(name));
        return;
    }
    // A part file left by an earlier attempt would be appended to.
    if (part == 1 && QFile::exists(partPath))
        QFile::remove(partPath);
    const long long total = m_assets.totalParts(name);
    QFile file(partPath);
    if (!file.open(QIODevice::Append)) {
        Kestrel::Trace::error("Failed to open %s", qUtf8Printable(partPath));
        return;
    }
    const qint64 written = file.write(bytes);
    file.close();

    m_assets.increasePartCount(name);
    m_assets.downloadListAddHashData(name, bytes);
    const long long current = m_assets.currentParts(name);
    const bool finished = current == total || total == 0;
    long long &unreported = m_d->progress[name];
    unreported += written;
    if (current % m_progressInterval == 0 || finished) {
        downloadProgress(unreported, name);
        unreported = 0;
    }
    if (!finished)
        return;
    m_d->progress.remove(name);

    // The running hash covers the bytes as they came off the wire; the file isn't read again.
    bool success = m_assets.downloadListMD5(name) == m_assets.downloadListPartMD5(name);
    if (success) {
        if (QFile::exists(full))
            QFile::remove(full);
        if (!QFile::rename(partPath, full)) {
            Kestrel::Trace::error("Failed to rename '%s' to '%s'", qUtf8Printable(partPath), qUtf8Printable(full));
            success = false;
        }
    } else {
        Kestrel::Trace::error("md5 mismatch for '%s'", qUtf8Printable(partPath));
    }
    if (!success) {
        QFile::remove(partPath);
        Kestrel::Trace::error("File Download for '%s' failed", qUtf8Printable(name));
    }
    m_assets.removeFileFromDownloadList(name, success);
}

int FileTransferHandler::sendFileParts()
{
    if (bufferedDataSize() > s_uploadLimit)
        return 1;
    if (m_d->uploadFile.isOpen()) {
        // While the connection is down the file waits at its position; looking again every
        // pause instead of at once keeps the pool's thread free.
        if (!isConnected())
            return 1;
        continueSendingFileParts();
        return 0;
    }
    if (!m_d->uploadMutex.tryLock())
        return 0;
    if (m_d->uploadQueue.isEmpty()) {
        m_d->uploadTask = nullptr;
        m_d->uploadMutex.unlock();
        return 2;
    }
    std::tie(m_d->uploadName, m_d->uploadPath) = m_d->uploadQueue.takeFirst();
    m_d->uploadMutex.unlock();
    startSendingfileParts();
    return 0;
}

void FileTransferHandler::startSendingfileParts()
{
    m_d->uploadFile.setFileName(m_d->uploadPath);
    if (!m_d->uploadFile.open(QIODevice::ReadOnly | QIODevice::Unbuffered)) {
        Kestrel::Trace::error("FileTransferHandler::startSendingfileParts # Failed to open file '%s': %s",
                              qUtf8Printable(m_d->uploadFile.fileName()), qUtf8Printable(m_d->uploadFile.errorString()));
        return;
    }
    continueSendingFileParts();
}

void FileTransferHandler::continueSendingFileParts()
{
    QFile &file = m_d->uploadFile;
    const QString &name = m_d->uploadName;
    if (partCount(file.size()) < 1) {
        writeBuffer(QStringLiteral("filepart \"%1\" 0 1\n").arg(name), QByteArray());
        file.close();
        return;
    }
    // The writer's queue holds at most the limit and one part more.
    while (!file.atEnd() && isConnected() && bufferedDataSize() <= s_uploadLimit) {
        const long long part = file.pos() / m_partSize + 1;
        // Each part's bytes are an array of their own: the writer holds them until they are sent.
        QByteArray bytes(int(m_partSize), Qt::Uninitialized);
        const qint64 got = file.read(bytes.data(), m_partSize);
        if (got < 1) {
            Kestrel::Trace::error("FileTransferHandler::continueSendingFileParts # Failed to read file '%s': %s",
                                  qUtf8Printable(file.fileName()), qUtf8Printable(file.errorString()));
            file.close();
            return;
        }
        bytes.resize(int(got));
        const QString line = QStringLiteral("filepart \"%1\" %2 %3\n").arg(name, QString::number(got), QString::number(part));
        writeBuffer(QList<QByteArray>{line.toUtf8(), bytes}, QByteArray());
    }
    if (file.atEnd())
        file.close();
}

void FileTransferHandler::connected()
{
    m_d->connectedAt = Kestrel::TimeStamp::currentTime();
}

void FileTransferHandler::disconnected()
{
    m_assets.clearDownloadList(m_d->connectedAt);
}

} // namespace Loomy
