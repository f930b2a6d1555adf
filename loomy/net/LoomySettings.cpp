#include "loomy/net/LoomySettings.h"

#include "kestrel/FileWriter.h"
#include "kestrel/PlatformUtils.h"

namespace Loomy {

LoomySettings::LoomySettings(bool brambleGroup)
    : QSettings(QStringLiteral("%1/%2").arg(Kestrel::PlatformUtils::getModuleUserDataPath("Brindlewax", false),
                                           QStringLiteral("loomy.ini")),
                QSettings::IniFormat)
{
    beginGroup(brambleGroup ? QStringLiteral("bramble") : QStringLiteral("config"));
}

void LoomySettings::sync()
{
    const Status before = status();
    QSettings::sync();
    if (status() != QSettings::AccessError)
        return;
    // An error that stood already on a writable file isn't new: a second attempt would change
    // nothing. The guard is only built after a plain write has failed.
    if (before != QSettings::NoError && isWritable())
        return;
    Kestrel::FileWriter guard(QStringLiteral("LoomySettings::sync"));
    QSettings::sync();
}

} // namespace Loomy
