#include "loomy/net/LoomySettings.h"

#include "common/IsolatedHome.h"
#include "common/TraceCapture.h"

#include <QDir>
#include <QFile>

#include <gtest/gtest.h>

namespace {

auto *const s_home = static_cast<IsolatedHome *>(::testing::AddGlobalTestEnvironment(new IsolatedHome));
const QString s_guardLine = "FileWriter::FileWriter # Writing LoomySettings::sync";

// Each case gets a data folder of its own.
QString useDataHome(const QString &name)
{
    const QString path = s_home->path(name);
    qputenv("XDG_DATA_HOME", path.toUtf8());
    return path;
}

} // namespace

TEST(LoomySettings, TheTwoGroupsAreSectionsOfOneIniFile)
{
    const QString data = useDataHome("groups");
    {
        Loomy::LoomySettings bramble(true), config(false);
        EXPECT_EQ(bramble.fileName(), data + "/Brindlewax/loomy.ini");
        EXPECT_EQ(bramble.format(), QSettings::IniFormat);
        bramble.setValue("port", 5001);
        config.setValue("port", 6001);
        TraceCapture trace;
        bramble.sync();
        config.sync();
        EXPECT_EQ(trace.count(s_guardLine), 0) << "a writable file is written once, without the guard";
        EXPECT_EQ(bramble.status(), QSettings::NoError);
    }
    Loomy::LoomySettings bramble(true), config(false);
    EXPECT_EQ(bramble.value("port").toInt(), 5001);
    EXPECT_EQ(config.value("port").toInt(), 6001);
    QSettings raw(data + "/Brindlewax/loomy.ini", QSettings::IniFormat);
    EXPECT_EQ(raw.childGroups(), (QStringList{"bramble", "config"}));
}

// The data folder lies below a plain file, so the file can never be written: the first failure on
// a clean object is tried again under the guard; so is a standing error while the file still
// can't be written. Once it can, a standing error is left alone.
TEST(LoomySettings, AnAccessErrorIsTriedAgainUnderTheGuard)
{
    const QString data = useDataHome("plain");
    QFile plain(data);
    ASSERT_TRUE(plain.open(QIODevice::WriteOnly));
    plain.close();
    TraceCapture trace;
    Loomy::LoomySettings settings(false);
    ASSERT_EQ(settings.status(), QSettings::NoError);
    settings.setValue("key", 1);
    settings.sync();
    EXPECT_EQ(settings.status(), QSettings::AccessError);
    EXPECT_EQ(trace.count(s_guardLine), 1);
    EXPECT_FALSE(settings.isWritable());

    settings.setValue("key", 2);
    settings.sync();
    EXPECT_EQ(trace.count(s_guardLine), 2) << "a standing error on an unwritable file";

    ASSERT_TRUE(QFile::remove(data));
    ASSERT_TRUE(QDir().mkpath(data + "/Brindlewax"));
    ASSERT_TRUE(settings.isWritable());
    settings.setValue("key", 3);
    settings.sync();
    EXPECT_EQ(trace.count(s_guardLine), 2) << "a standing error on a writable file gets no second sync";
}
