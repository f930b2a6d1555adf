#include "kestrel/DirectoryListing.h"

#include <QDateTime>
#include <QDir>
#include <QFile>
#include <QFileInfo>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <sys/stat.h>

#include <cstring>
#include <map>

// The listing must agree with the QDir listing that it replaces, entry for entry.
TEST(DirectoryListing, AgreesWithQDirOnFilesFoldersHiddenNamesLinksAndSpecialFiles)
{
    QTemporaryDir dir;
    const QString root = dir.path();
    QDir().mkpath(root + "/sub/inner");
    QDir().mkpath(root + "/.hiddendir");
    for (const char *name : {"/a", "/.hidden", "/sub/b"}) {
        QFile file(root + name);
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QByteArray(name).repeated(100));
        file.close();
        ASSERT_TRUE(file.open(QIODevice::ReadWrite));
        file.setFileTime(QDateTime::fromMSecsSinceEpoch(1500000000123), QFileDevice::FileModificationTime);
    }
    ASSERT_TRUE(QFile::link(root + "/a", root + "/link"));
    ASSERT_TRUE(QFile::link(root + "/sub", root + "/dirlink"));
    ASSERT_TRUE(QFile::link(root + "/nowhere", root + "/broken"));
    ASSERT_EQ(mkfifo(qPrintable(root + "/fifo"), 0644), 0);

    std::map<QString, Kestrel::DirectoryEntry> listed;
    for (const auto &entry : Kestrel::listDirectory(root))
        listed[entry.name] = entry;
    const QFileInfoList expected = QDir(root).entryInfoList(
        QDir::Files | QDir::AllDirs | QDir::Readable | QDir::NoDot | QDir::NoDotDot, QDir::Name);
    ASSERT_EQ(listed.size(), size_t(expected.size()));
    for (const QFileInfo &info : expected) {
        SCOPED_TRACE(info.fileName().toStdString());
        ASSERT_EQ(listed.count(info.fileName()), 1u);
        const auto &entry = listed[info.fileName()];
        EXPECT_EQ(entry.isDir, info.isDir());
        EXPECT_EQ(entry.modifiedMs, info.lastModified().toMSecsSinceEpoch());
        if (!entry.isDir) {
            EXPECT_EQ(entry.size, info.size());
        }
    }
    EXPECT_EQ(listed.at("link").modifiedMs, 1500000000123);
    // A folder has one id whatever leads to it: its entry, a link to it, the listing of it.
    Kestrel::DirectoryId sub;
    Kestrel::listDirectory(root + "/sub", &sub);
    EXPECT_TRUE(listed.at("sub").id == sub && listed.at("dirlink").id == sub);
    Kestrel::DirectoryId inner;
    Kestrel::listDirectory(root + "/sub/inner", &inner);
    EXPECT_FALSE(inner == sub);
    EXPECT_TRUE(Kestrel::listDirectory(root + "/missing").empty());
}

// Helpers share the stat calls of a large folder: the same entries in the same order, folder after
// folder, whatever the number of helpers.
TEST(DirectoryLister, ListsAsListDirectoryDoesFolderAfterFolder)
{
    QTemporaryDir dir;
    const QString root = dir.path();
    for (int i = 0; i < 700; ++i) {
        QFile file(root + (i % 3 ? "/big/f" : "/other/f") + QString::number(i));
        QDir().mkpath(QFileInfo(file).absolutePath());
        ASSERT_TRUE(file.open(QIODevice::WriteOnly));
        file.write(QByteArray(i, 'x'));
    }
    QDir().mkpath(root + "/big/sub");
    ASSERT_TRUE(QFile::link(root + "/nowhere", root + "/big/broken"));
    ASSERT_TRUE(QFile::link(root + "/other", root + "/big/.hidden"));
    const auto key = [](const std::vector<Kestrel::DirectoryEntry> &entries) {
        QStringList out;
        for (const auto &e : entries)
            out << QStringLiteral("%1 %2 %3 %4 %5").arg(e.name).arg(e.isDir).arg(e.size).arg(e.modifiedMs).arg(e.id.inode);
        return out;
    };
    const auto rawKey = [](const Kestrel::RawDirectory &raw) {
        QStringList out;
        for (const auto &e : raw.entries) {
            EXPECT_EQ(size_t(e.nameLength), std::strlen(raw.name(e)));
            out << QStringLiteral("%1 %2 %3 %4 %5").arg(QFile::decodeName(raw.name(e))).arg(e.isDir).arg(e.size).arg(e.modifiedMs).arg(e.id.inode);
        }
        return out;
    };
    for (const int helpers : {0, 1, 3}) {
        Kestrel::DirectoryLister lister(helpers);
        Kestrel::RawDirectory raw;   // one buffer for every folder: nothing of a listing may stay in the next
        for (const char *folder : {"/big", "/other", "", "/big/sub", "/missing", "/big"}) {
            SCOPED_TRACE(std::to_string(helpers) + folder);
            Kestrel::DirectoryId expected, self;
            lister.list(QFile::encodeName(root + folder).constData(), raw, &self);
            EXPECT_EQ(rawKey(raw), key(Kestrel::listDirectory(root + folder, &expected)));
            EXPECT_TRUE(self == expected);
        }
    }
    EXPECT_EQ(Kestrel::listDirectory(root + "/big").size(), 466u + 1u) << "the files and \"sub\"";
}

// Names are decoded as QFile does, ASCII or not (even when not valid in the locale), and only the
// given length of them.
TEST(DecodeFileName, DecodesTheGivenBytesAsQFileDoes)
{
    for (const QByteArray &bytes : {QByteArray("plain"), QByteArray("\xc3\xa4-\xc3\xbc"), QByteArray("bad\xff"), QByteArray()})
        EXPECT_EQ(Kestrel::decodeFileName(bytes.constData(), bytes.size()), QFile::decodeName(bytes)) << bytes.toHex().constData();
    EXPECT_EQ(Kestrel::decodeFileName("ab\xc3\xa4", 2), "ab");
    EXPECT_EQ(Kestrel::decodeFileName("\xc3\xa4\xc3\xbc", 2), QFile::decodeName("\xc3\xa4"));
}
