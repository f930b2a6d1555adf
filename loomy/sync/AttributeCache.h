#pragma once
#include "loomy/loomy_export.h"

#include "kestrel/SymbolTable.h"

#include <QReadWriteLock>

#include <unordered_set>

namespace Tamarack { class Attribute; }

namespace Loomy {

// Symbol to live attribute of one watched tree, and the mark of the symbols
// that stand for nodes. The mark outlives the attribute's dynamic type: at a removal the
// attribute may already be reduced to its base, and the mark still tells what it was.
//
// Owns nothing: the attributes belong to the tree, and find() hands out a bare pointer whose
// lifetime the caller must know by other means.
// Threads: every operation may run on any thread; each takes the lock for its own duration only
// and calls nothing outside, so the cache can be used from inside attribute listeners.
class LOOMY_EXPORT AttributeCache
{
public:
    AttributeCache() = default;
    AttributeCache(const AttributeCache &) = delete;
    AttributeCache &operator=(const AttributeCache &) = delete;

    // True if the symbol now maps to the attribute. A symbol that already maps to another
    // attribute is reported and kept as it is (false).
    bool add(unsigned int symbol, Tamarack::Attribute *attribute);
    Tamarack::Attribute *find(unsigned int symbol) const;
    bool isNode(unsigned int symbol) const;
    // Works for a symbol that is not (yet) cached.
    void setIsNode(unsigned int symbol, bool isNode);
    // Drops the symbol and its node mark; an unknown symbol is reported (false).
    bool remove(unsigned int symbol);

private:
    mutable QReadWriteLock m_lock;                                     // guards both tables
    std::unordered_set<unsigned int> m_nodes;
    Kestrel::SymbolTable<Tamarack::Attribute *> m_attributes;          // null: not cached
};

} // namespace Loomy
