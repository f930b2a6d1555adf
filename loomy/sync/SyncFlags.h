#pragma once
#include "loomy/loomy_export.h"

#include <QReadWriteLock>

#include <unordered_map>

namespace Loomy {

// Per-symbol flag words that the sender consults before an attribute travels. Only exceptions
// are stored: a symbol without an entry has SYNC_DEFAULT.
// Threads: every operation may run on any thread; the lock is held inside each operation only.
class LOOMY_EXPORT SyncFlags
{
public:
    enum Flag : int {
        SYNC_NONE = 0,    // bit 0 clear: the attribute is not sent
        SYNC_DEFAULT = 1, // bit 0 set: the attribute is sent
    };

    SyncFlags() = default;
    SyncFlags(const SyncFlags &) = delete;
    SyncFlags &operator=(const SyncFlags &) = delete;

    Flag getFlags(unsigned int symbol) const;
    // SYNC_DEFAULT erases the entry; anything else is stored.
    void setFlags(unsigned int symbol, Flag flag);
    // Takes and releases the lock and keeps every entry: callers rely on stored flags surviving.
    void clear();

private:
    std::unordered_map<unsigned int, Flag> m_flags; // guarded by m_lock
    mutable QReadWriteLock m_lock;
};

} // namespace Loomy
