#include "loomy/sync/SyncFlags.h"

namespace Loomy {

SyncFlags::Flag SyncFlags::getFlags(unsigned int symbol) const
{
    QReadLocker locker(&m_lock);
    auto it = m_flags.find(symbol);
    return it == m_flags.end() ? SYNC_DEFAULT : it->second;
}

void SyncFlags::setFlags(unsigned int symbol, Flag flag)
{
    QWriteLocker locker(&m_lock);
    if (flag == SYNC_DEFAULT)
        m_flags.erase(symbol);
    else
        m_flags[symbol] = flag;
}

void SyncFlags::clear()
{
    QWriteLocker locker(&m_lock);
}

} // namespace Loomy
