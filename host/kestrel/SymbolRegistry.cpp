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
    const unsigned old = m_slots.empty() ? 0 : m_slots[findSlot(name, hash)].symbol;
    if (old != symbol) {
        if (old != 0)
            forget(old);
        if (const Entry *held = entry(symbol))
            if (!held->matches(name))
                forget(symbol);
    }
    Entry &made = m_entries.make(symbol);
    if (!made.defined()) {
        ++m_count;
        insertSlot(hash, symbol);
    }
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
    std::size_t slot = m_slots.empty() ? 0 : findSlot(name, hash);
    if (!m_slots.empty() && m_slots[slot].symbol != 0)
        return m_slots[slot].symbol;
    // Numbers given by define() may sit anywhere; skip them, and 0 after a wrap.
    while (m_next == 0 || entry(m_next))
        ++m_next;
    const unsigned symbol = m_next++;
    m_entries.make(symbol).define(name);
    ++m_count;
    if (second != name)
        m_seconds[symbol] = second;
    if (2 * m_count > m_slots.size())
        insertSlot(hash, symbol);   // grows the index, and probes anew
    else
        m_slots[slot] = Slot{hash, symbol};
    return symbol;
}

unsigned SymbolRegistry::lookupOrDefine(const QByteArray &name)
{
    const unsigned hash = qHash(name);
    {
        ReadLocker locker(&m_lock);
        if (!m_slots.empty())
            if (const unsigned symbol = m_slots[findSlot(name, hash)].symbol)
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
    return m_count;
}

unsigned SymbolRegistry::lookupUnlocked(const QByteArray &name) const
{
    return m_slots.empty() ? 0 : m_slots[findSlot(name, qHash(name))].symbol;
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
    eraseSlot(findSlot(name, qHash(name)));
    m_entries.reset(symbol);
    m_seconds.erase(symbol);
    --m_count;
}

std::size_t SymbolRegistry::findSlot(const QByteArray &name, unsigned hash) const
{
    const std::size_t mask = m_slots.size() - 1;
    for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
        const Slot &slot = m_slots[i];
        if (slot.symbol == 0 || (slot.hash == hash && entry(slot.symbol)->matches(name)))
            return i;
    }
}

void SymbolRegistry::insertSlot(unsigned hash, unsigned symbol)
{
    if (2 * m_count > m_slots.size()) {
        std::vector<Slot> old(std::max<std::size_t>(16, 2 * m_slots.size()), Slot{0, 0});
        old.swap(m_slots);
        const std::size_t mask = m_slots.size() - 1;
        for (const Slot &slot : old) {
            if (slot.symbol == 0)
                continue;
            std::size_t i = slot.hash & mask;
            while (m_slots[i].symbol != 0)
                i = (i + 1) & mask;
            m_slots[i] = slot;
        }
    }
    const std::size_t mask = m_slots.size() - 1;
    std::size_t i = hash & mask;
    while (m_slots[i].symbol != 0)
        i = (i + 1) & mask;
    m_slots[i] = Slot{hash, symbol};
}

// Backward-shift deletion: later members of the probe run move up, so no tombstones are needed.
void SymbolRegistry::eraseSlot(std::size_t slot)
{
    const std::size_t mask = m_slots.size() - 1;
    std::size_t hole = slot;
    for (std::size_t i = (slot + 1) & mask; m_slots[i].symbol != 0; i = (i + 1) & mask) {
        const std::size_t home = m_slots[i].hash & mask;
        // The entry may fill the hole if its home is not cyclically within (hole, i].
        if (((i - home) & mask) >= ((i - hole) & mask)) {
            m_slots[hole] = m_slots[i];
            hole = i;
        }
    }
    m_slots[hole] = Slot{0, 0};
}

} // namespace Kestrel
