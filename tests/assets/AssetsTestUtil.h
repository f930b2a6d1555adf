#pragma once
#include "net/NetTestUtil.h"

#include <QByteArray>
#include <QCryptographicHash>
#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QString>

#include <stdexcept>

// Writes the bytes, making the folders; with a valid time, sets it as the modification time.
inline void writeFile(const QString &path, const QByteArray &bytes, const QDateTime &mtime = QDateTime())
{
    QDir().mkpath(QFileInfo(path).absolutePath());
    QFile file(path);
    if (!file.open(QIODevice::WriteOnly) || file.write(bytes) != bytes.size())
        throw std::runtime_error("can't write " + path.toStdString());
    file.flush();   // written bytes would otherwise move the time again when the file closes
    if (mtime.isValid())
        file.setFileTime(mtime, QFileDevice::FileModificationTime);
}

inline QByteArray readFile(const QString &path)
{
    QFile file(path);
    return file.open(QIODevice::ReadOnly) ? file.readAll() : QByteArray();
}

inline QString md5Hex(const QByteArray &bytes)
{
    return QString::fromLatin1(QCryptographicHash::hash(bytes, QCryptographicHash::Md5).toHex());
}

// Deterministic bytes of any length.
inline QByteArray pattern(long long size, unsigned seed = 1)
{
    QByteArray bytes(int(size), Qt::Uninitialized);
    unsigned x = seed * 2654435761u + 1;
    for (char &c : bytes) {
        x = x * 1103515245u + 12345u;
        c = char(x >> 23);
    }
    return bytes;
}
