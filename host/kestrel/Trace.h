#pragma once
#include "kestrel/kestrel_export.h"

#include <QString>

#include <functional>

// Log lines of the library and its host. Every line goes through one of the four printf-style
// functions; by default it is handed to Qt's logging under the category "loomy.trace", so an
// application filters with QT_LOGGING_RULES (e.g. "loomy.trace.debug=false").
// Thread safe; logging never fails and never throws.
namespace Kestrel {
namespace Trace {

enum class Level { Debug, Info, Warning, Error };

KESTREL_EXPORT void debug(const char *format, ...) __attribute__((format(printf, 1, 2)));
KESTREL_EXPORT void info(const char *format, ...) __attribute__((format(printf, 1, 2)));
KESTREL_EXPORT void warning(const char *format, ...) __attribute__((format(printf, 1, 2)));
KESTREL_EXPORT void error(const char *format, ...) __attribute__((format(printf, 1, 2)));

// Receives every formatted line with its level, on the thread that logged it, instead of Qt's
// logging. Used by tests to capture lines, and by applications that route logs themselves.
using Hook = std::function<void(Level level, const QString &line)>;

// Installs the hook (an empty one restores Qt logging) and returns the previous one.
// The hook is called under no lock of the caller; it must be thread safe itself.
KESTREL_EXPORT Hook setHook(Hook hook);

} // namespace Trace
} // namespace Kestrel
