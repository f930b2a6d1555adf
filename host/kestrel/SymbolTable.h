#pragma once

#include <cstddef>
#include <unordered_map>
#include <vector>

namespace Kestrel {

// Values by symbol. Symbols are mostly handed out one after the other, so the values sit in a
// vector indexed by the symbol; a symbol far beyond the others goes to a hash map instead, and
// moves into the vector once the vector grows to cover it. A slot that was never set holds T().
// The vector never outgrows twice the number of make() calls (plus a little): numbers chosen by
// a peer cannot make it large without as many entries.
//
// No lock: the owner guards it. References stay valid until the next make().
template <typename T>
class SymbolTable
{
public:
    // The value's slot, or null if the table has none for the symbol.
    const T *find(unsigned symbol) const
    {
        if (symbol < m_dense.size())
            return &m_dense[symbol];
        auto it = m_sparse.find(symbol);
        return it == m_sparse.end() ? nullptr : &it->second;
    }
    T *find(unsigned symbol) { return const_cast<T *>(static_cast<const SymbolTable *>(this)->find(symbol)); }

    // The value's slot, made (as T()) if the table has none.
    T &make(unsigned symbol)
    {
        const std::size_t makes = m_makes++;
        if (symbol < m_dense.size())
            return m_dense[symbol];
        if (symbol >= 2 * makes + s_slack)
            return m_sparse[symbol];
        m_dense.resize(std::size_t(symbol) + 1);   // grows the capacity geometrically
        for (auto it = m_sparse.begin(); it != m_sparse.end();) {
            if (it->first < m_dense.size()) {
                m_dense[it->first] = std::move(it->second);
                it = m_sparse.erase(it);
            } else {
                ++it;
            }
        }
        return m_dense[symbol];
    }

    // Back to T(); a sparse slot goes.
    void reset(unsigned symbol)
    {
        if (symbol < m_dense.size())
            m_dense[symbol] = T();
        else
            m_sparse.erase(symbol);
    }

    // fn(symbol, value) for every slot, set or not, in no particular order.
    template <typename Fn>
    void forEach(Fn fn) const
    {
        for (std::size_t symbol = 0; symbol < m_dense.size(); ++symbol)
            fn(unsigned(symbol), m_dense[symbol]);
        for (const auto &entry : m_sparse)
            fn(entry.first, entry.second);
    }

private:
    static constexpr unsigned s_slack = 1024;   // numbers below this always go to the vector

    std::vector<T> m_dense;
    std::unordered_map<unsigned, T> m_sparse;
    std::size_t m_makes = 0;
};

} // namespace Kestrel
