#include "loomy/sync/AttributeCache.h"

#include "kestrel/ReadWriteLocker.h"
#include "kestrel/Trace.h"

namespace Loomy {

bool AttributeCache::add(unsigned int symbol, Tamarack::Attribute *attribute)
{
    Kestrel::WriteLocker locker(&m_lock);
    auto it = m_attributes.find(symbol);
    if (it != m_attributes.end()) {
        if (it->second == attribute)
            return true;
        locker.unlock();
        Kestrel::Trace::error("AttributeCache::ensureExists # Found an existing symbol (%u) pointing to a different attribute",
                              symbol);
        return false;
    }
    m_attributes.emplace(symbol, attribute);
    // An attribute cached under another symbol keeps its first reverse entry.
    m_symbols.emplace(attribute, symbol);
    return true;
}

Tamarack::Attribute *AttributeCache::find(unsigned int symbol) const
{
    Kestrel::ReadLocker locker(&m_lock);
    auto it = m_attributes.find(symbol);
    return it == m_attributes.end() ? nullptr : it->second;
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
    auto it = m_attributes.find(symbol);
    if (it == m_attributes.end()) {
        locker.unlock();
        Kestrel::Trace::error("AttributeCache::remove # Trying to remove missing symbol: %u", symbol);
        return false;
    }
    m_symbols.erase(it->second);
    m_attributes.erase(it);
    m_nodes.erase(symbol);
    return true;
}

} // namespace Loomy
