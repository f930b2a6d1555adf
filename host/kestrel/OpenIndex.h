#pragma once

#include <algorithm>
#include <cstddef>
#include <vector>

namespace Kestrel {

// An open-addressing index from 32-bit hashes to non-zero values (0 marks a free place), for an
// owner that keeps the keys itself: a probe tests each candidate value through the owner's
// `matches`. Linear probing over a power-of-two size that is kept at most half full; a removal
// shifts later members of its run back, so there are no tombstones. Not thread safe: the owner's
// lock guards it.
class OpenIndex
{
public:
    static constexpr std::size_t npos = std::size_t(-1);

    bool empty() const { return m_slots.empty(); }
    std::size_t count() const { return m_count; }
    void clear()
    {
        m_slots.clear();
        m_count = 0;
    }

    // The place of the value whose key matches, or the free place that ends the run (value 0).
    // Not on an empty index.
    template <class Matches>
    std::size_t probe(unsigned hash, Matches matches) const
    {
        const std::size_t mask = m_slots.size() - 1;
        for (std::size_t i = hash & mask;; i = (i + 1) & mask) {
            const Slot &slot = m_slots[i];
            if (slot.value == 0 || (slot.hash == hash && matches(slot.value)))
                return i;
        }
    }
    // The value whose key matches, or 0.
    template <class Matches>
    unsigned find(unsigned hash, Matches matches) const
    {
        return m_slots.empty() ? 0 : m_slots[probe(hash, matches)].value;
    }
    unsigned valueAt(std::size_t place) const { return m_slots[place].value; }

    // Enters a value whose key isn't in the index. `place` may be the free place that a probe for
    // the key has just ended on: it saves probing again unless the index has to grow.
    void insert(unsigned hash, unsigned value, std::size_t place = npos)
    {
        ++m_count;
        if (2 * m_count > m_slots.size()) {
            std::vector<Slot> old(std::max<std::size_t>(8, 2 * m_slots.size()), Slot{0, 0});
            old.swap(m_slots);
            for (const Slot &slot : old)
                if (slot.value != 0)
                    m_slots[freePlace(slot.hash)] = slot;
            place = npos;
        }
        m_slots[place == npos ? freePlace(hash) : place] = Slot{hash, value};
    }

    // Removes the value at a place that holds one.
    void erase(std::size_t place)
    {
        const std::size_t mask = m_slots.size() - 1;
        std::size_t hole = place;
        for (std::size_t i = (place + 1) & mask; m_slots[i].value != 0; i = (i + 1) & mask) {
            const std::size_t home = m_slots[i].hash & mask;
            // The entry may fill the hole if its home is not cyclically within (hole, i].
            if (((i - home) & mask) >= ((i - hole) & mask)) {
                m_slots[hole] = m_slots[i];
                hole = i;
            }
        }
        m_slots[hole] = Slot{0, 0};
        --m_count;
    }

private:
    struct Slot
    {
        unsigned hash;
        unsigned value;
    };

    std::size_t freePlace(unsigned hash) const
    {
        const std::size_t mask = m_slots.size() - 1;
        std::size_t i = hash & mask;
        while (m_slots[i].value != 0)
            i = (i + 1) & mask;
        return i;
    }

    std::vector<Slot> m_slots;
    std::size_t m_count = 0;
};

} // namespace Kestrel
