#include "kestrel/SymbolRegistry.h"

#include "kestrel/ReadWriteLocker.h"
#include "kestrel/Trace.h"

#include <QHash>

#include <algorithm>

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

// Keeps the two directions inverse: an older number of the name and an older name of the number
// are forgotten first.
void SymbolRegistry::defineUnlocked(const QByteArray &name, const QByteArray &second, unsigned symbol)
{
    const unsigned hash = qHash(name);
    const unsigned old = m_index.empty() ? 0 : m_index.valueAt(findSlot(name, hash));
    if (old != symbol) {
        if (old != 0)
            forget(old);
        if (const Entry *held = entry(symbol))
            if (!held->matches(name))
                forget(symbol);
    }
    Entry &made = m_entries.make(symbol);
    if (!made.defined())
        m_index.insert(hash, symbol);
    made.define(name);
    if (second == name)
        m_seconds.erase(symbol);
    else
        m_seconds[symbol] = second;
}

unsigned SymbolRegistry::lookupOrDefineImpl(const QByteArray &name, const QByteArray &second)
{
    return lookupOrDefineHashed(name, second, qHash(name));
}

// A new name is entered at the free slot its probe ended on: one hash and one probe for the
// whole definition, where a general define would probe again for an older number of the name.
unsigned SymbolRegistry::lookupOrDefineHashed(const QByteArray &name, const QByteArray &second, unsigned hash)
{
    WriteLocker locker(&m_lock);
    // Another thread may have defined the name between the caller's read-locked miss and now.
    const std::size_t slot = m_index.empty() ? OpenIndex::npos : findSlot(name, hash);
    if (slot != OpenIndex::npos && m_index.valueAt(slot) != 0)
        return m_index.valueAt(slot);
    // Numbers given by define() may sit anywhere; skip them, and 0 after a wrap.
    while (m_next == 0 || entry(m_next))
        ++m_next;
    const unsigned symbol = m_next++;
    m_entries.make(symbol).define(name);
    if (second != name)
        m_seconds[symbol] = second;
    m_index.insert(hash, symbol, slot);
    return symbol;
}

unsigned SymbolRegistry::lookupOrDefine(const QByteArray &name)
{
    const unsigned hash = qHash(name);
    {
        ReadLocker locker(&m_lock);
        if (!m_index.empty())
            if (const unsigned symbol = m_index.valueAt(findSlot(name, hash)))
                return symbol;
    }
    return lookupOrDefineHashed(name, name, hash);
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
    const Entry *held = entry(symbol);
    if (!held)
        return QByteArray();
    auto it = m_seconds.find(symbol);
    return it == m_seconds.end() ? held->name() : it->second;
}

std::size_t SymbolRegistry::count() const
{
    ReadLocker locker(&m_lock);
    return m_index.count();
}

unsigned SymbolRegistry::lookupUnlocked(const QByteArray &name) const
{
    return m_index.empty() ? 0 : m_index.valueAt(findSlot(name, qHash(name)));
}

QByteArray SymbolRegistry::nameUnlocked(unsigned symbol) const
{
    const Entry *held = entry(symbol);
    return held ? held->name() : QByteArray();
}

QByteArray SymbolRegistry::sharedName(const QByteArray &name) const
{
    ReadLocker locker(&m_lock);
    return nameUnlocked(lookupUnlocked(name));
}

const SymbolRegistry::Entry *SymbolRegistry::entry(unsigned symbol) const
{
    const Entry *held = m_entries.find(symbol);
    return held && held->defined() ? held : nullptr;
}

const QByteArray &SymbolRegistry::Entry::nullMarker()
{
    static const QByteArray s_marker(1, '\0');
    return s_marker;
}

// Drops a defined symbol in both directions.
void SymbolRegistry::forget(unsigned symbol)
{
    const Entry *held = entry(symbol);
    const QByteArray name = held->name();
    m_index.erase(findSlot(name, qHash(name)));
    m_entries.reset(symbol);
    m_seconds.erase(symbol);
}

std::size_t SymbolRegistry::findSlot(const QByteArray &name, unsigned hash) const
{
    return m_index.probe(hash, [&](unsigned symbol) { return entry(symbol)->matches(name); });
}

} // namespace Kestrel
