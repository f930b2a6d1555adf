#include "loomy/sync/SyncFlags.h"

#include "kestrel/ReadWriteLocker.h"

namespace Loomy {

SyncFlags::Flag SyncFlags::getFlags(unsigned int symbol) const
{
    Kestrel::ReadLocker locker(&m_lock);
    auto it = m_flags.find(symbol);
    return it == m_flags.end() ? SYNC_DEFAULT : it->second;
}

void SyncFlags::setFlags(unsigned int symbol, Flag flag)
{
    Kestrel::WriteLocker locker(&m_lock);
    if (flag == SYNC_DEFAULT)
        m_flags.erase(symbol);
    else
        m_flags[symbol] = flag;
}

void SyncFlags::clear()
{
    Kestrel::WriteLocker locker(&m_lock);
}

} // namespace Loomy
