#include "kestrel/PlatformUtils.h"

#include "kestrel/Trace.h"

#include <QDir>

namespace Kestrel {
namespace PlatformUtils {

QString getModuleUserDataPath(const char *module, bool create)
{
    QString base = qEnvironmentVariable("XDG_DATA_HOME");
    if (base.isEmpty())
        base = qEnvironmentVariable("HOME") + QStringLiteral("/.local/share");
    const QString path = base + QLatin1Char('/') + QString::fromUtf8(module ? module : "");
    if (create && !QDir().mkpath(path))
        Trace::warning("PlatformUtils::getModuleUserDataPath # Can't create %s", qUtf8Printable(path));
    return path;
}

bool openFirewallPortTCP(int port, const QString &name)
{
    Trace::debug("PlatformUtils::openFirewallPortTCP # No firewall to configure for port %d (%s)", port,
                 qUtf8Printable(name));
    return true;
}

} // namespace PlatformUtils
} // namespace Kestrel
