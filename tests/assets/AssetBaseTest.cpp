#include "loomy/assets/AssetBase.h"

#include "assets/AssetsTestUtil.h"
#include "common/IsolatedHome.h"
#include "common/TraceCapture.h"

#include <QSettings>
#include <QStringList>
#include <QTemporaryDir>

#include <gtest/gtest.h>

#include <future>

using Loomy::AssetBase;

namespace {

auto *const s_home = ::testing::AddGlobalTestEnvironment(new IsolatedHome);
const QDateTime s_then = QDateTime::fromSecsSinceEpoch(1500000000);

struct Texts : Loomy::ProgressSender
{
    QStringList texts;
    void transferInfo(const QString &text) override { texts << text; }
};

class AssetBaseTest : public ::testing::Test
{
protected:
    QString path(const QString &name) const { return m_dir.path() + name; }
    QTemporaryDir m_dir;
};

// Counts transferFinished and notes what the file list knew at that moment.
struct Assets : AssetBase
{
    using AssetBase::AssetBase;
    void transferFinished() override
    {
        ++finished;
        knewNewFile = !md5("/new").isEmpty();
    }
    int finished = 0;
    bool knewNewFile = false;
};

} // namespace

TEST_F(AssetBaseTest, TheCacheDecidesByTimeAloneAndIsSharedByEveryObjectOfTheRoot)
{
    writeFile(path("/a"), "one", s_then);
    writeFile(path("/sub/b"), "two", s_then);
    {
        AssetBase first(m_dir.path() + "//");
        EXPECT_EQ(first.root(), QFileInfo(m_dir.path()).canonicalFilePath());
        const auto list = first.buildFileList(nullptr);
        EXPECT_EQ(list.keys(), (QStringList{"/a", "/sub/b"}));
        EXPECT_EQ(first.md5("/a"), md5Hex("one"));
        EXPECT_EQ(list.value("/sub/b").size, 3);
        EXPECT_EQ(list.value("/a").ts, s_then);

        QSettings cache("Brindlewax", "Cache");
        const int entries = cache.beginReadArray("FileList/" + first.root());
        EXPECT_EQ(entries, 2);
        cache.setArrayIndex(1);
        EXPECT_EQ(cache.value("file").toString(), "/sub/b");
        EXPECT_EQ(cache.value("MD5").toByteArray(), QCryptographicHash::hash("two", QCryptographicHash::Md5));
        EXPECT_EQ(cache.value("ts").toDateTime(), s_then);
        EXPECT_EQ(cache.value("size").toLongLong(), 3);
    }
    // A new size under the old time isn't noticed; a new time is.
    writeFile(path("/a"), "one more", s_then);
    writeFile(path("/sub/b"), "three", s_then.addSecs(10));
    AssetBase second(m_dir.path());
    second.buildFileList(nullptr);   // waits for the object's first scan
    EXPECT_EQ(second.md5("/a"), md5Hex("one"));
    EXPECT_EQ(second.md5("/sub/b"), md5Hex("three"));

    // The object's own first scan may still come, once: if it hashes the new time before this
    // scan does, the next new time is this scan's.
    Texts texts;
    for (int attempt = 1; attempt <= 2 && texts.texts.size() != 3; ++attempt) {
        writeFile(path("/a"), "one more", s_then.addSecs(20 * attempt));
        texts.texts.clear();
        second.buildFileList(&texts);
    }
    EXPECT_EQ(texts.texts, (QStringList{"Scanning directory tree...", "Generated checksums: /a", "Checksum list generated"}));
    EXPECT_EQ(second.md5("/a"), md5Hex("one more"));
    EXPECT_EQ(second.md5("/gone"), "");
    // The list that scan stored is what the next one compares with: nothing is hashed again.
    texts.texts.clear();
    EXPECT_EQ(second.buildFileList(&texts).keys(), (QStringList{"/a", "/sub/b"}));
    EXPECT_EQ(texts.texts, (QStringList{"Scanning directory tree...", "Checksum list generated"}));
}

// Names that aren't ASCII are compared with their records as text, the others as bytes: either
// way a file whose time is unchanged isn't hashed again, in any folder.
TEST_F(AssetBaseTest, AnUnchangedFileIsntHashedAgainWhateverItsName)
{
    const QStringList names{"/a", "/sub/b", "/sub/\u00df", "/\u00e4", "/\u00fc/inner", "/\u00fc/\u00f6"};   // sorted
    for (const QString &name : names)
        writeFile(path(name), name.toUtf8(), s_then);
    AssetBase assets(m_dir.path());
    assets.buildFileList(nullptr);
    Texts texts;
    EXPECT_EQ(assets.buildFileList(&texts).keys(), names);
    EXPECT_EQ(texts.texts, (QStringList{"Scanning directory tree...", "Checksum list generated"}));
    for (const int changed : {1, 5})
        writeFile(path(names[changed]), "changed", s_then.addSecs(1));
    texts.texts.clear();
    assets.buildFileList(&texts);
    ASSERT_EQ(texts.texts.size(), 4);
    QStringList hashed = texts.texts.mid(1, 2);
    hashed.sort();
    EXPECT_EQ(hashed, QStringList({"Generated checksums: " + names[1], "Generated checksums: " + names[5]}));
    EXPECT_EQ(assets.md5(names[5]), md5Hex("changed"));
}

// A finished download's record, with the announced checksum, is the one that later scans compare
// with: a file whose time is unchanged keeps it (here it differs from the bytes on purpose).
TEST_F(AssetBaseTest, AFinishedDownloadsRecordIsntHashedAgain)
{
    writeFile(path("/a"), "a");
    Assets assets(m_dir.path());
    assets.buildFileList(nullptr);
    ASSERT_TRUE(assets.addFileToDownloadList("/got", 5, 1, md5Hex("announced"), Kestrel::TimeStamp(1)));
    writeFile(path("/got"), "fresh");
    ASSERT_TRUE(assets.removeFileFromDownloadList("/got", true));
    EXPECT_EQ(assets.finished, 1);
    Texts texts;
    assets.buildFileList(&texts);
    EXPECT_EQ(texts.texts, (QStringList{"Scanning directory tree...", "Checksum list generated"}));
    EXPECT_EQ(assets.md5("/got"), md5Hex("announced"));
}

TEST_F(AssetBaseTest, PartFilesOddNamesHiddenAndMarkedFilesAreInNoList)
{
    for (const char *name : {"/keep", "/dir/x.filesync.part", "/dir/inner", "/q\"uote", "/co:lon", "/st*ar",
                             "/que?ry", "/a<b", "/a>b", "/back\\slash", "/X.FILESYNC.PART", "/.hidden", "/marked", "/dir\"odd/inside",
                             "/\xc3\xa4.FileSync.Part", "/\xc3\xa4?", "/.\xc3\xa4", "/\xc3\xa4/\xc3\xa4\"", "/\xc3\xa4/.x",
                             "/\xc3\xa4/marked", "/\xc3\xa4/x.filesync.part", "/\xc3\xa4/inner"})
        writeFile(path(QString::fromUtf8(name)), name);
    ASSERT_TRUE(QFile::link(path("/keep"), path("/link")));
    AssetBase assets(m_dir.path());
    assets.buildFileList(nullptr);
    assets.addFileToRemoveQueue("/marked", nullptr);
    assets.addFileToRemoveQueue(QString::fromUtf8("/\xc3\xa4/marked"), nullptr);
    EXPECT_EQ(assets.buildFileList(nullptr).keys(),
              (QStringList{"/dir/inner", "/keep", "/link", QString::fromUtf8("/\xc3\xa4/inner")}));
    EXPECT_EQ(assets.md5("/link"), md5Hex("/keep"));
    EXPECT_EQ(assets.md5("/marked"), "") << "left out of the list that the second scan stored";
}

// Links are followed, but never into a folder of the path that leads to them: a link back to the
// root, or to a folder above it, would otherwise be walked for ever. A link to a folder beside it
// is no loop, and its files are listed under both names.
TEST_F(AssetBaseTest, LinksBackIntoOrAboveTheRootAreNotWalkedAgain)
{
    const QString root = path("/root");
    writeFile(root + "/a", "a");
    writeFile(root + "/sub/b", "b");
    writeFile(path("/outside/c"), "c");
    ASSERT_TRUE(QFile::link(root, root + "/sub/loop"));
    ASSERT_TRUE(QFile::link(m_dir.path(), root + "/sub/up"));
    ASSERT_TRUE(QFile::link(root + "/sub", root + "/alias"));
    AssetBase assets(root);
    EXPECT_EQ(assets.buildFileList(nullptr).keys(),
              (QStringList{"/a", "/alias/b", "/alias/up/outside/c", "/sub/b", "/sub/up/outside/c"}));
}

// A missing root used to canonicalise to "", so the scan walked the whole file system and a
// download landed in "/".
TEST_F(AssetBaseTest, AMissingRootIsMadeAndAnUnusableOneListsAndStoresNothing)
{
    AssetBase made(path("/new/downloads"));
    EXPECT_EQ(made.root(), QFileInfo(path("/new/downloads")).canonicalFilePath());
    EXPECT_TRUE(made.buildFileList(nullptr).isEmpty());
    writeFile(path("/plain"), "x");
    TraceCapture trace;
    AssetBase unusable(path("/plain/sub"));
    EXPECT_EQ(unusable.root(), path("/plain/sub"));
    EXPECT_TRUE(unusable.buildFileList(nullptr).isEmpty());
    EXPECT_EQ(trace.count(QString("AssetBase::AssetBase # No folder at '%1'; nothing will be listed or stored")
                              .arg(path("/plain/sub"))), 1);
}

TEST_F(AssetBaseTest, StopIsFinalAndAStoppedScanChangesNothing)
{
    writeFile(path("/a"), "one", s_then);
    AssetBase assets(m_dir.path());
    assets.buildFileList(nullptr);
    assets.stop();
    writeFile(path("/a"), "two", s_then.addSecs(5));
    writeFile(path("/b"), "new");
    Texts texts;
    EXPECT_TRUE(assets.buildFileList(&texts).isEmpty());
    EXPECT_EQ(texts.texts, (QStringList{"Scanning directory tree...", "Checksum list generated"}));
    EXPECT_EQ(assets.md5("/a"), md5Hex("one"));
    EXPECT_EQ(assets.md5("/b"), "");
    QSettings cache("Brindlewax", "Cache");
    ASSERT_EQ(cache.beginReadArray("FileList/" + assets.root()), 1);
    cache.setArrayIndex(0);
    EXPECT_EQ(cache.value("MD5").toByteArray().toHex(), md5Hex("one")) << "the cache was left as it was";
}

TEST_F(AssetBaseTest, DownloadListRecordsAndClearingOneConnectionsDownloads)
{
    Assets assets(m_dir.path());
    assets.buildFileList(nullptr);
    EXPECT_EQ(assets.totalParts("/f") + assets.currentParts("/f"), -2);
    EXPECT_FALSE(assets.increasePartCount("/f"));
    EXPECT_EQ(assets.downloadListMD5("/f") + assets.downloadListPartMD5("/f"), "");
    EXPECT_FALSE(assets.downloadListStartTime("/f").isValid());

    const Kestrel::TimeStamp mine(1), other(2);
    ASSERT_TRUE(assets.addFileToDownloadList("/f", 6, 2, md5Hex("abcdef"), mine));
    EXPECT_FALSE(assets.addFileToDownloadList("/f", 9, 9, md5Hex("x"), mine));
    EXPECT_EQ(assets.totalParts("/f"), 2);
    EXPECT_EQ(assets.downloadListPartMD5("/f"), md5Hex(""));
    for (QByteArray part : {"abc", "def"}) {
        assets.downloadListAddHashData("/f", part);
        EXPECT_EQ(assets.downloadListPartMD5("/f"), md5Hex(part == "abc" ? "abc" : "abcdef")) << "the result doesn't end the hash";
    }
    EXPECT_EQ(assets.downloadListMD5("/f"), md5Hex("abcdef"));

    // Only a download that received a part owns its part file.
    for (const char *name : {"/started", "/waiting", "/others"}) {
        writeFile(path(name) + ".filesync.part", "x");
        ASSERT_TRUE(assets.addFileToDownloadList(name, 1, 1, md5Hex("x"), QString(name) == "/others" ? other : mine));
    }
    assets.increasePartCount("/started");
    assets.increasePartCount("/others");
    writeFile(path("/new"), "new");
    EXPECT_FALSE(assets.clearDownloadList(Kestrel::TimeStamp(3)));
    EXPECT_TRUE(assets.clearDownloadList(mine));
    EXPECT_FALSE(QFile::exists(path("/started.filesync.part")));
    EXPECT_TRUE(QFile::exists(path("/waiting.filesync.part")) && QFile::exists(path("/others.filesync.part")));
    EXPECT_FALSE(assets.isDownloading("/f") || assets.isDownloading("/started") || assets.isDownloading("/waiting"));
    EXPECT_TRUE(assets.isDownloading("/others"));
    EXPECT_EQ(assets.finished, 0);
    EXPECT_EQ(assets.md5("/new"), "") << "no scan";
}

// Parts are hashed off the receiving thread: more than the feeder's backlog, fed at once, and the
// running MD5 read right after the last covers all of them, in order.
TEST_F(AssetBaseTest, TheRunningMD5CoversEveryPartFedBeforeItIsRead)
{
    AssetBase assets(m_dir.path());
    ASSERT_TRUE(assets.addFileToDownloadList("/big", 0, 0, md5Hex(""), Kestrel::TimeStamp(1)));
    QCryptographicHash all(QCryptographicHash::Md5);
    for (unsigned seed = 0; seed < 160; ++seed) {   // 10 MiB
        QByteArray part = pattern(65536, seed);
        all.addData(part);
        assets.downloadListAddHashData("/big", part);
    }
    EXPECT_EQ(assets.downloadListPartMD5("/big"), QString::fromLatin1(all.result().toHex()));
}

// A failed download adds nothing, and only the last removal scans (the new file appears) and
// calls transferFinished, after its scan.
TEST_F(AssetBaseTest, TheLastRemovalFromTheDownloadListScansOnceAndFinishes)
{
    writeFile(path("/old"), "old", s_then);
    Assets assets(m_dir.path());
    assets.buildFileList(nullptr);
    ASSERT_TRUE(assets.addFileToDownloadList("/old", 3, 1, md5Hex("bad"), Kestrel::TimeStamp(1)));
    ASSERT_TRUE(assets.addFileToDownloadList("/got", 5, 1, md5Hex("fresh"), Kestrel::TimeStamp(1)));
    writeFile(path("/new"), "new");

    EXPECT_TRUE(assets.removeFileFromDownloadList("/old", false));
    EXPECT_EQ(assets.md5("/old"), md5Hex("old"));
    EXPECT_EQ(assets.md5("/new"), "");
    EXPECT_EQ(assets.finished, 0);

    writeFile(path("/got"), "fresh");
    EXPECT_TRUE(assets.removeFileFromDownloadList("/got", true));
    EXPECT_EQ(assets.finished, 1);
    EXPECT_TRUE(assets.knewNewFile);
    EXPECT_EQ(assets.md5("/got"), md5Hex("fresh"));
    EXPECT_FALSE(assets.removeFileFromDownloadList("/got", true));
    EXPECT_EQ(assets.finished, 1);
}

TEST_F(AssetBaseTest, RemovingAFileTakesItsEmptyFoldersUpToTheRoot)
{
    writeFile(path("/a/b/c/f"), "f");
    writeFile(path("/a/keep"), "k");
    AssetBase assets(m_dir.path());
    assets.removeFileAndEmptyFolders("/a/b/c/f");
    EXPECT_FALSE(QFileInfo::exists(path("/a/b")));
    EXPECT_TRUE(QFileInfo::exists(path("/a/keep")));
    writeFile(path("/top"), "t");
    assets.removeFileAndEmptyFolders("/top");
    EXPECT_TRUE(QFileInfo::exists(m_dir.path()));
}

// The readers that connections call must answer while a scan holds the list lock (here the
// scan is held at its first progress text).
TEST_F(AssetBaseTest, ReadersDontWaitForAScan)
{
    struct Blocking : Loomy::ProgressSender
    {
        std::promise<void> entered, release;
        void transferInfo(const QString &text) override
        {
            if (text == "Scanning directory tree...") {
                entered.set_value();
                release.get_future().wait();
            }
        }
    } blocking;
    writeFile(path("/a"), "a");
    AssetBase assets(m_dir.path());
    assets.buildFileList(nullptr);
    ASSERT_TRUE(assets.addFileToDownloadList("/d", 1, 1, md5Hex("d"), Kestrel::TimeStamp(1)));
    auto scan = std::async(std::launch::async, [&] { assets.buildFileList(&blocking); });
    blocking.entered.get_future().wait();
    auto reads = std::async(std::launch::async, [&] {
        return assets.md5("/a") + assets.downloadListMD5("/d") + assets.downloadListPartMD5("/d") +
               QString::number(assets.totalParts("/d") + assets.currentParts("/d")) + (assets.isDownloading("/d") ? "y" : "n");
    });
    const bool answered = reads.wait_for(s_patience) == std::future_status::ready;
    blocking.release.set_value();
    ASSERT_TRUE(answered);
    EXPECT_EQ(reads.get(), md5Hex("a") + md5Hex("d") + md5Hex("") + "1y");
}
