#pragma once
#include "loomy/loomy_export.h"
#include "loomy/sync/NodeWatcher.h"

#include "kestrel/SymbolTable.h"

#include <cstddef>
#include <vector>

namespace Loomy {

// One entry of the compressed queue of a sender.
struct ChangeData
{
    NodeWatcher::EventType type;   // ATTRIBUTE_ADDED, ATTRIBUTE_REMOVED or ATTRIBUTE_CHANGED
    unsigned int symbol;           // local symbol of the path
    bool sendValue;                // an addition: a change followed it, so the value goes along

    bool operator==(const ChangeData &other) const
    {
        return type == other.type && symbol == other.symbol && sendValue == other.sendValue;
    }
    bool operator!=(const ChangeData &other) const { return !(*this == other); }
};

// Reduces the raw events of one update to the shortest list with the same effect on the peer,
// in an order the peer can apply: of many changes only the last stays, a change right behind an
// addition travels with it, and an attribute that came and went within the update disappears.
// Survivors keep the place of their own last relevant event.
//
// Threads: one caller at a time (the sender's update, on the frame thread); no lock.
class LOOMY_EXPORT AttributeChangeCompressor
{
public:
    // Clears `result` first and keeps nothing of the call but scratch capacity.
    void compress(const std::vector<NodeWatcher::Event> &events, std::vector<ChangeData> &result);

    // The scratch list's allocation, which is kept from call to call.
    std::size_t scratchCapacity() const { return m_reversed.capacity(); }

private:
    // What one call has seen of a symbol; all zero between calls.
    struct Mark
    {
        unsigned int firstAdded = 0;    // 1 + index of the symbol's first addition; 0 for none
        unsigned char seen = 0;         // the s_... bits of the .cpp
    };

    std::vector<ChangeData> m_reversed; // survivors of the backward pass; only its capacity lives on
    Kestrel::SymbolTable<Mark> m_marks; // scratch by symbol; only its allocation lives on
};

} // namespace Loomy
