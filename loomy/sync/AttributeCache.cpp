#include "loomy/sync/AttributeCache.h"

#include "kestrel/ReadWriteLocker.h"
#include "kestrel/Trace.h"

namespace Loomy {

bool AttributeCache::add(unsigned int symbol, Tamarack::Attribute *attribute)
{
    Kestrel::WriteLocker locker(&m_lock);
    Tamarack::Attribute *&cached = m_attributes.make(symbol);
    if (cached && cached != attribute) {
        locker.unlock();
        Kestrel::Trace::error("AttributeCache::ensureExists # Found an existing symbol (%u) pointing to a different attribute",
                              symbol);
        return false;
    }
    cached = attribute;
    return true;
}

Tamarack::Attribute *AttributeCache::find(unsigned int symbol) const
{
    Kestrel::ReadLocker locker(&m_lock);
    Tamarack::Attribute *const *cached = m_attributes.find(symbol);
    return cached ? *cached : nullptr;
}

bool AttributeCache::isNode(unsigned int symbol) const
{
    Kestrel::ReadLocker locker(&m_lock);
    return m_nodes.count(symbol) != 0;
}

void AttributeCache::setIsNode(unsigned int symbol, bool isNode)
{
    Kestrel::WriteLocker locker(&m_lock);
    if (isNode)
        m_nodes.insert(symbol);
    else
        m_nodes.erase(symbol);
}

bool AttributeCache::remove(unsigned int symbol)
{
    Kestrel::WriteLocker locker(&m_lock);
    Tamarack::Attribute *const *cached = m_attributes.find(symbol);
    if (!cached || !*cached) {
        locker.unlock();
        Kestrel::Trace::error("AttributeCache::remove # Trying to remove missing symbol: %u", symbol);
        return false;
    }
    m_attributes.reset(symbol);
    m_nodes.erase(symbol);
    return true;
}

} // namespace Loomy
