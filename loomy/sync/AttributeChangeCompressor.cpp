#include "loomy/sync/AttributeChangeCompressor.h"

#include <algorithm>

namespace Loomy {

namespace {

// Bits of Mark::seen.
constexpr unsigned char s_superseded = 1; // a later change or removal of the symbol (backward pass)
constexpr unsigned char s_removed = 2;    // a later removal (backward pass)
constexpr unsigned char s_added = 4;      // a surviving addition before (forward pass)

} // namespace

void AttributeChangeCompressor::compress(const std::vector<NodeWatcher::Event> &events, std::vector<ChangeData> &result)
{
    result.clear();
    m_reversed.clear();
    // The marks go back to zero however the call ends.
    struct Reset
    {
        const std::vector<NodeWatcher::Event> &events;
        Kestrel::SymbolTable<Mark> &marks;
        ~Reset()
        {
            for (const NodeWatcher::Event &event : events)
                if (Mark *mark = marks.find(event.symbol))
                    *mark = Mark();
        }
    } reset{events, m_marks};
    // Every symbol of the call gets a slot here, so the passes below only find() and never move
    // the table.
    for (std::size_t i = 0; i < events.size(); ++i) {
        Mark &mark = m_marks.make(events[i].symbol);
        if (events[i].type == NodeWatcher::ATTRIBUTE_ADDED && mark.firstAdded == 0)
            mark.firstAdded = unsigned(i) + 1;
    }

    // Newest to oldest: only the last word about an attribute counts.
    for (std::size_t i = events.size(); i-- > 0;) {
        const NodeWatcher::Event &event = events[i];
        const unsigned int symbol = event.symbol;
        Mark &mark = *m_marks.find(symbol);
        switch (event.type) {
        case NodeWatcher::ATTRIBUTE_CHANGED:
            if (mark.seen & s_superseded)
                break;
            mark.seen |= s_superseded;
            m_reversed.push_back({NodeWatcher::ATTRIBUTE_CHANGED, symbol, false});
            break;
        case NodeWatcher::ATTRIBUTE_ADDED:
            if (mark.seen & s_removed)
                break;
            // A change came behind the addition: the addition carries the value.
            m_reversed.push_back({NodeWatcher::ATTRIBUTE_ADDED, symbol, (mark.seen & s_superseded) != 0});
            break;
        case NodeWatcher::ATTRIBUTE_REMOVED:
            mark.seen |= s_superseded | s_removed;
            // The peer needn't hear of an attribute that came and went within one update. The
            // addition may lie anywhere before, even behind an older removal, which then stays.
            if (mark.firstAdded == 0 || mark.firstAdded - 1 >= i)
                m_reversed.push_back({NodeWatcher::ATTRIBUTE_REMOVED, symbol, false});
            break;
        default:
            m_reversed.push_back({event.type, symbol, false});
            break;
        }
    }
    std::reverse(m_reversed.begin(), m_reversed.end());

    // Oldest to newest: a change behind a surviving addition is already in it.
    for (const ChangeData &change : m_reversed) {
        Mark &mark = *m_marks.find(change.symbol);
        if (change.type == NodeWatcher::ATTRIBUTE_ADDED)
            mark.seen |= s_added;
        else if (change.type == NodeWatcher::ATTRIBUTE_CHANGED && (mark.seen & s_added))
            continue;
        result.push_back(change);
    }
}

} // namespace Loomy
