#pragma once
#include "kestrel/kestrel_export.h"

#include <QString>

namespace Kestrel {
namespace PlatformUtils {

// The folder for a module's per-user data: $XDG_DATA_HOME/<module>, or
// $HOME/.local/share/<module> when XDG_DATA_HOME is unset or empty. With `create` the folder is
// made when missing (a failure is logged; the path is returned all the same).
KESTREL_EXPORT QString getModuleUserDataPath(const char *module, bool create = false);

// Would ask a platform firewall to let the TCP port through. This platform has none to ask: the
// call only logs (debug) and succeeds.
KESTREL_EXPORT bool openFirewallPortTCP(int port, const QString &name);

} // namespace PlatformUtils
} // namespace Kestrel
