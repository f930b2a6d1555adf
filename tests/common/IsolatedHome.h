#pragma once
#include <QSettings>
#include <QString>
#include <QTemporaryDir>

#include <gtest/gtest.h>

// Points QSettings (user scope) and XDG_DATA_HOME at a temporary folder of this test program, so
// that programs that ctest runs in parallel never share a settings file or a data folder.
// Register once per program: `static auto *s_home = ::testing::AddGlobalTestEnvironment(new IsolatedHome);`
class IsolatedHome : public ::testing::Environment
{
public:
    void SetUp() override
    {
        ASSERT_TRUE(m_dir.isValid());
        QSettings::setPath(QSettings::NativeFormat, QSettings::UserScope, path("config"));
        QSettings::setPath(QSettings::IniFormat, QSettings::UserScope, path("config"));
        qputenv("XDG_DATA_HOME", path("data").toUtf8());
    }
    QString path(const QString &sub) const { return m_dir.path() + '/' + sub; }

private:
    QTemporaryDir m_dir;
};
