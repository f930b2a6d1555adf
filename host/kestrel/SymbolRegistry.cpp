#include "kestrel/SymbolRegistry.h"

#include "kestrel/ReadWriteLocker.h"
#include "kestrel/Trace.h"

namespace Kestrel {

void SymbolRegistry::define(const QByteArray &name, const QByteArray &second, unsigned symbol)
{
    if (symbol == 0) {
        Trace::warning("SymbolRegistry::define # Refusing symbol 0 for '%s'", name.constData());
        return;
    }
    WriteLocker locker(&m_lock);
    defineUnlocked(name, second, symbol);
}

// Keeps the two maps inverse: an older number of the name and an older name of the number are
// forgotten first.
void SymbolRegistry::defineUnlocked(const QByteArray &name, const QByteArray &second, unsigned symbol)
{
    auto byName = m_byName.find(name);
    if (byName != m_byName.end() && byName->second != symbol)
        m_bySymbol.erase(byName->second);
    auto bySymbol = m_bySymbol.find(symbol);
    if (bySymbol != m_bySymbol.end() && bySymbol->second.first != name)
        m_byName.erase(bySymbol->second.first);
    m_byName[name] = symbol;
    m_bySymbol[symbol] = std::make_pair(name, second);
}

unsigned SymbolRegistry::lookupOrDefineImpl(const QByteArray &name, const QByteArray &second)
{
    WriteLocker locker(&m_lock);
    // Another thread may have defined the name between the caller's read-locked miss and now.
    auto it = m_byName.find(name);
    if (it != m_byName.end())
        return it->second;
    // Numbers given by define() may sit anywhere; skip them, and 0 after a wrap.
    while (m_next == 0 || m_bySymbol.count(m_next))
        ++m_next;
    const unsigned symbol = m_next++;
    defineUnlocked(name, second, symbol);
    return symbol;
}

unsigned SymbolRegistry::lookupOrDefine(const QByteArray &name)
{
    const unsigned symbol = lookup(name);
    return symbol ? symbol : lookupOrDefineImpl(name, name);
}

unsigned SymbolRegistry::lookup(const QByteArray &name) const
{
    ReadLocker locker(&m_lock);
    return lookupUnlocked(name);
}

QByteArray SymbolRegistry::name(unsigned symbol) const
{
    ReadLocker locker(&m_lock);
    return nameUnlocked(symbol);
}

QByteArray SymbolRegistry::second(unsigned symbol) const
{
    ReadLocker locker(&m_lock);
    auto it = m_bySymbol.find(symbol);
    return it == m_bySymbol.end() ? QByteArray() : it->second.second;
}

std::size_t SymbolRegistry::count() const
{
    ReadLocker locker(&m_lock);
    return m_byName.size();
}

unsigned SymbolRegistry::lookupUnlocked(const QByteArray &name) const
{
    auto it = m_byName.find(name);
    return it == m_byName.end() ? 0 : it->second;
}

QByteArray SymbolRegistry::nameUnlocked(unsigned symbol) const
{
    auto it = m_bySymbol.find(symbol);
    return it == m_bySymbol.end() ? QByteArray() : it->second.first;
}

} // namespace Kestrel
