#pragma once

#include <cstddef>
#include <memory>
#include <unordered_map>
#include <vector>

namespace Kestrel {

// Values by symbol. Symbols are mostly handed out one after the other, so the values sit in an
// array indexed by the symbol, made of chunks that double in size (64 values, then 64, 128, ...):
// growing adds a chunk and never moves or copies what is there, which for a table of a million
// symbols saves touching every value again at each doubling. A symbol far beyond the others goes
// to a hash map instead, and moves into the array once the array grows to cover it. A slot that
// was never set holds T(). The array never outgrows four times the number of make() calls (plus
// a little): numbers chosen by a peer cannot make it large without as many entries.
//
// No lock: the owner guards it. References stay valid until the next make().
template <typename T>
class SymbolTable
{
public:
    // The value's slot, or null if the table has none for the symbol.
    const T *find(unsigned symbol) const
    {
        if (symbol < m_capacity)
            return &at(symbol);
        auto it = m_sparse.find(symbol);
        return it == m_sparse.end() ? nullptr : &it->second;
    }
    T *find(unsigned symbol) { return const_cast<T *>(static_cast<const SymbolTable *>(this)->find(symbol)); }

    // The value's slot, made (as T()) if the table has none.
    T &make(unsigned symbol)
    {
        const std::size_t makes = m_makes++;
        if (symbol < m_capacity)
            return at(symbol);
        if (symbol >= 2 * makes + s_slack)
            return m_sparse[symbol];
        while (m_capacity <= symbol) {
            const std::size_t size = m_chunks.empty() ? s_firstChunk : m_capacity;
            m_chunks.emplace_back(new T[size]());
            m_capacity += size;
        }
        for (auto it = m_sparse.begin(); it != m_sparse.end();) {
            if (it->first < m_capacity) {
                at(it->first) = std::move(it->second);
                it = m_sparse.erase(it);
            } else {
                ++it;
            }
        }
        return at(symbol);
    }

    // Back to T(); a sparse slot goes.
    void reset(unsigned symbol)
    {
        if (symbol < m_capacity)
            at(symbol) = T();
        else
            m_sparse.erase(symbol);
    }

    // fn(symbol, value) for every slot, set or not, in no particular order.
    template <typename Fn>
    void forEach(Fn fn) const
    {
        for (std::size_t symbol = 0; symbol < m_capacity; ++symbol)
            fn(unsigned(symbol), at(unsigned(symbol)));
        for (const auto &entry : m_sparse)
            fn(entry.first, entry.second);
    }

private:
    static constexpr unsigned s_slack = 1024;    // numbers below this always go to the array
    static constexpr unsigned s_firstBits = 6;
    static constexpr unsigned s_firstChunk = 1u << s_firstBits;

    // Chunk 0 holds [0, 64); chunk i > 0 holds [64 << (i - 1), 64 << i). Only below m_capacity.
    const T &at(unsigned symbol) const
    {
        if (symbol < s_firstChunk)
            return m_chunks[0][symbol];
        const unsigned high = 31u - unsigned(__builtin_clz(symbol));
        return m_chunks[high - s_firstBits + 1][symbol - (1u << high)];
    }
    T &at(unsigned symbol) { return const_cast<T &>(static_cast<const SymbolTable *>(this)->at(symbol)); }

    std::vector<std::unique_ptr<T[]>> m_chunks;
    std::size_t m_capacity = 0;                  // symbols below this have a slot in the chunks
    std::unordered_map<unsigned, T> m_sparse;
    std::size_t m_makes = 0;
};

} // namespace Kestrel
