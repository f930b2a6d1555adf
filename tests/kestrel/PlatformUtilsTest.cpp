#include "kestrel/PlatformUtils.h"

#include "common/TraceCapture.h"

#include <gtest/gtest.h>

#include <QByteArray>
#include <QDir>
#include <QTemporaryDir>

#include <cstdlib>

namespace {

// Sets or unsets environment variables for one test and restores them afterwards.
class ScopedEnv
{
public:
    ScopedEnv(const char *name, const char *value) : m_name(name), m_had(qEnvironmentVariableIsSet(name)), m_old(qgetenv(name))
    {
        if (value)
            qputenv(name, value);
        else
            qunsetenv(name);
    }
    ~ScopedEnv()
    {
        if (m_had)
            qputenv(m_name, m_old);
        else
            qunsetenv(m_name);
    }

private:
    const char *m_name;
    bool m_had;
    QByteArray m_old;
};

} // namespace

TEST(PlatformUtils, UserDataPathFollowsXdgDataHome)
{
    ScopedEnv xdg("XDG_DATA_HOME", "/data/home");
    ScopedEnv home("HOME", "/users/me");
    EXPECT_EQ(Kestrel::PlatformUtils::getModuleUserDataPath("Module", false), "/data/home/Module");
}

TEST(PlatformUtils, UserDataPathFallsBackToHome)
{
    ScopedEnv home("HOME", "/users/me");
    for (const char *xdg : {static_cast<const char *>(nullptr), ""}) {
        ScopedEnv unset("XDG_DATA_HOME", xdg);
        EXPECT_EQ(Kestrel::PlatformUtils::getModuleUserDataPath("Module", false), "/users/me/.local/share/Module");
    }
}

TEST(PlatformUtils, CreateMakesTheFolderOnlyWhenAsked)
{
    QTemporaryDir root;
    ASSERT_TRUE(root.isValid());
    ScopedEnv xdg("XDG_DATA_HOME", qPrintable(root.path() + "/nested"));
    const QString path = Kestrel::PlatformUtils::getModuleUserDataPath("Module", false);
    EXPECT_FALSE(QDir(path).exists());
    EXPECT_EQ(Kestrel::PlatformUtils::getModuleUserDataPath("Module", true), path);
    EXPECT_TRUE(QDir(path).exists());
}

TEST(PlatformUtils, FirewallRequestOnlyLogs)
{
    TraceCapture trace;
    EXPECT_TRUE(Kestrel::PlatformUtils::openFirewallPortTCP(5000, "Loomy server"));
    EXPECT_EQ(trace.lines(Kestrel::Trace::Level::Debug),
              QStringList{"PlatformUtils::openFirewallPortTCP # No firewall to configure for port 5000 (Loomy server)"});
}
