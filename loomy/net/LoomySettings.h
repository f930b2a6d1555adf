#pragma once
#include "loomy/loomy_export.h"

#include <QSettings>

namespace Loomy {

/// The library's own INI file, "loomy.ini" in the per-user data folder of the module "Brindlewax",
/// with one of its two groups entered for the object's whole life: "bramble" or "config". Keys of
/// the two kinds therefore live in separate sections of the file.
/// Threads: like any QSettings, one object is used by one thread at a time.
class LOOMY_EXPORT LoomySettings : public QSettings
{
public:
    /// brambleGroup: enter the "bramble" group; otherwise "config".
    explicit LoomySettings(bool brambleGroup);

    /// QSettings::sync, tried once more under a FileWriter guard when it ends in an access error
    /// and the file was clean before or can't be written. A second failure is left in status().
    /// Hides QSettings::sync; not virtual.
    void sync();
};

} // namespace Loomy
