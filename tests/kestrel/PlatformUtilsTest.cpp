#include "kestrel/PlatformUtils.h"

#include "common/TraceCapture.h"

#include <gtest/gtest.h>

#include <QByteArray>
#include <QDir>
#include <QTemporaryDir>

namespace {

// Sets (or, for a null value, unsets) an environment variable for one scope.
struct ScopedEnv
{
    ScopedEnv(const char *name, const char *value) : name(name), had(qEnvironmentVariableIsSet(name)), old(qgetenv(name))
    { value ? qputenv(name, value) : qunsetenv(name); }
    ~ScopedEnv() { had ? qputenv(name, old) : qunsetenv(name); }
    const char *name;
    const bool had;
    const QByteArray old;
};

} // namespace

using namespace Kestrel::PlatformUtils;

TEST(PlatformUtils, UserDataPathIsUnderXdgDataHomeOrElseHomeAndIsMadeOnlyWhenAsked)
{
    QTemporaryDir root;
    ASSERT_TRUE(root.isValid());
    const QString base = root.path();
    ScopedEnv home("HOME", qPrintable(base + "/home"));
    for (const char *xdg : {static_cast<const char *>(nullptr), ""}) {
        ScopedEnv unset("XDG_DATA_HOME", xdg);
        EXPECT_EQ(getModuleUserDataPath("Module", false), base + "/home/.local/share/Module") << (xdg ? "empty" : "unset");
    }
    ScopedEnv xdg("XDG_DATA_HOME", qPrintable(base + "/data"));
    const QString path = getModuleUserDataPath("Module", false);
    EXPECT_EQ(path, base + "/data/Module");
    EXPECT_FALSE(QDir(path).exists());
    EXPECT_EQ(getModuleUserDataPath("Module", true), path);
    EXPECT_TRUE(QDir(path).exists());
}

TEST(PlatformUtils, FirewallRequestOnlyLogs)
{
    TraceCapture trace;
    EXPECT_TRUE(openFirewallPortTCP(5000, "Loomy server"));
    EXPECT_EQ(trace.lines(Kestrel::Trace::Level::Debug),
              QStringList{"PlatformUtils::openFirewallPortTCP # No firewall to configure for port 5000 (Loomy server)"});
}
