#include "kestrel/Trace.h"

#include <QLoggingCategory>

#include <cstdarg>
#include <cstdio>
#include <memory>
#include <mutex>
#include <vector>

namespace {

Q_LOGGING_CATEGORY(lcTrace, "loomy.trace", QtDebugMsg)

std::mutex s_hookMutex;                                  // guards s_hook
std::shared_ptr<const Kestrel::Trace::Hook> s_hook;      // null: log through Qt

QString format(const char *fmt, va_list args)
{
    char stackBuffer[512];
    va_list copy;
    va_copy(copy, args);
    const int needed = std::vsnprintf(stackBuffer, sizeof stackBuffer, fmt, copy);
    va_end(copy);
    if (needed < 0)
        return QString::fromUtf8(fmt);
    if (size_t(needed) < sizeof stackBuffer)
        return QString::fromUtf8(stackBuffer, needed);
    std::vector<char> heap(size_t(needed) + 1);
    std::vsnprintf(heap.data(), heap.size(), fmt, args);
    return QString::fromUtf8(heap.data(), needed);
}

void emitLine(Kestrel::Trace::Level level, const char *fmt, va_list args)
{
    const QString line = format(fmt, args);
    std::shared_ptr<const Kestrel::Trace::Hook> hook;
    {
        std::lock_guard<std::mutex> lock(s_hookMutex);
        hook = s_hook;
    }
    if (hook) {
        // Logging never fails for its caller, whatever the hook does.
        try {
            (*hook)(level, line);
        } catch (...) {
        }
        return;
    }
    switch (level) {
    case Kestrel::Trace::Level::Debug:
        qCDebug(lcTrace, "%s", qUtf8Printable(line));
        break;
    case Kestrel::Trace::Level::Info:
        qCInfo(lcTrace, "%s", qUtf8Printable(line));
        break;
    case Kestrel::Trace::Level::Warning:
        qCWarning(lcTrace, "%s", qUtf8Printable(line));
        break;
    case Kestrel::Trace::Level::Error:
        qCCritical(lcTrace, "%s", qUtf8Printable(line));
        break;
    }
}

} // namespace

namespace Kestrel {
namespace Trace {

#define KESTREL_TRACE_FORWARD(LEVEL)   \
    va_list args;                      \
    va_start(args, format);            \
    emitLine(LEVEL, format, args);     \
    va_end(args)

void debug(const char *format, ...) { KESTREL_TRACE_FORWARD(Level::Debug); }
void info(const char *format, ...) { KESTREL_TRACE_FORWARD(Level::Info); }
void warning(const char *format, ...) { KESTREL_TRACE_FORWARD(Level::Warning); }
void error(const char *format, ...) { KESTREL_TRACE_FORWARD(Level::Error); }

#undef KESTREL_TRACE_FORWARD

Hook setHook(Hook hook)
{
    auto next = hook ? std::make_shared<const Hook>(std::move(hook)) : nullptr;
    std::lock_guard<std::mutex> lock(s_hookMutex);
    std::swap(s_hook, next);
    return next ? *next : Hook();
}

} // namespace Trace
} // namespace Kestrel
