#pragma once
#include "kestrel/OpenIndex.h"
#include "kestrel/SymbolTable.h"
#include "kestrel/kestrel_export.h"

#include <QByteArray>
#include <QReadWriteLock>

#include <unordered_map>
#include <vector>

namespace Kestrel {

// A thread-safe two-way table between names and symbols (non-zero unsigned numbers; 0 means
// "no symbol"). The two maps stay inverse to each other: each name has at most one symbol and
// each symbol at most one name. Entries are never removed.
class KESTREL_EXPORT SymbolRegistry
{
public:
    SymbolRegistry() = default;
    SymbolRegistry(const SymbolRegistry &) = delete;
    SymbolRegistry &operator=(const SymbolRegistry &) = delete;

    // Enters `name` under a number chosen by the caller, in both directions. An earlier entry of
    // the same name or the same number is replaced. Symbol 0 is refused (logged).
    void define(const QByteArray &name, const QByteArray &second, unsigned symbol);
    // The name's symbol, allocating a new non-zero one for a new name. Two threads that race
    // with the same new name get the same number.
    unsigned lookupOrDefineImpl(const QByteArray &name, const QByteArray &second);
    unsigned lookupOrDefine(const QByteArray &name);

    unsigned lookup(const QByteArray &name) const;    // 0 on a miss
    QByteArray name(unsigned symbol) const;           // the first array of the entry; null on a miss
    QByteArray second(unsigned symbol) const;         // the second array; null on a miss
    std::size_t count() const;

    // For callers that do several lookups under one read lock of their own: take lock() for
    // reading, then use the Unlocked forms. Never define while holding it.
    QReadWriteLock &lock() const { return m_lock; }
    unsigned lookupUnlocked(const QByteArray &name) const;
    QByteArray nameUnlocked(unsigned symbol) const;

    // This registry's own copy of a name equal to `name`, null if it has none: another registry
    // that stores the copy shares its bytes instead of holding them twice.
    QByteArray sharedName(const QByteArray &name) const;

private:
    // A symbol's name in a single pointer: a null array marks a symbol never defined, so a name
    // defined null is held as one shared marker array and given back null. The second array is
    // kept apart, and only where its bytes differ from the name's: this system always passes the
    // same array twice.
    class Entry
    {
    public:
        bool defined() const { return !m_name.isNull(); }
        QByteArray name() const { return isNullName() ? QByteArray() : m_name; }
        // QByteArray's equality: a null name equals an empty one.
        bool matches(const QByteArray &other) const { return isNullName() ? other.isEmpty() : m_name == other; }
        void define(const QByteArray &name) { m_name = name.isNull() ? nullMarker() : name; }

    private:
        static const QByteArray &nullMarker();
        bool isNullName() const { return m_name.isSharedWith(nullMarker()); }
        QByteArray m_name;
    };
    void defineUnlocked(const QByteArray &name, const QByteArray &second, unsigned symbol);
    unsigned lookupOrDefineHashed(const QByteArray &name, const QByteArray &second, unsigned hash);
    const Entry *entry(unsigned symbol) const;   // null unless defined
    void forget(unsigned symbol);
    std::size_t findSlot(const QByteArray &name, unsigned hash) const; // its place, or a free one

    // All guarded by m_lock.
    SymbolTable<Entry> m_entries;
    std::unordered_map<unsigned int, QByteArray> m_seconds;
    OpenIndex m_index;          // names to symbols: one value per defined name
    mutable QReadWriteLock m_lock;
    unsigned m_next = 1;   // next candidate for allocation; never 0
};

} // namespace Kestrel
