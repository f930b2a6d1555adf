#include "loomy/sync/AttributeChangeCompressor.h"

#include <QSet>

#include <algorithm>

namespace Loomy {

namespace {

bool addedBefore(const std::vector<NodeWatcher::Event> &events, std::size_t end, unsigned int symbol)
{
    for (std::size_t i = 0; i < end; ++i)
        if (events[i].type == NodeWatcher::ATTRIBUTE_ADDED && events[i].symbol == symbol)
            return true;
    return false;
}

} // namespace

void AttributeChangeCompressor::compress(const std::vector<NodeWatcher::Event> &events, std::vector<ChangeData> &result)
{
    result.clear();
    m_reversed.clear();
    // Symbols of which a later change or removal has been seen, and of which a later removal.
    QSet<unsigned int> superseded;
    QSet<unsigned int> removed;

    // Newest to oldest: only the last word about an attribute counts.
    for (std::size_t i = events.size(); i-- > 0;) {
        const NodeWatcher::Event &event = events[i];
        const unsigned int symbol = event.symbol;
        switch (event.type) {
        case NodeWatcher::ATTRIBUTE_CHANGED:
            if (superseded.contains(symbol))
                break;
            superseded.insert(symbol);
            m_reversed.push_back({NodeWatcher::ATTRIBUTE_CHANGED, symbol, false});
            break;
        case NodeWatcher::ATTRIBUTE_ADDED:
            if (removed.contains(symbol))
                break;
            // A change came behind the addition: the addition carries the value.
            m_reversed.push_back({NodeWatcher::ATTRIBUTE_ADDED, symbol, superseded.contains(symbol)});
            break;
        case NodeWatcher::ATTRIBUTE_REMOVED:
            superseded.insert(symbol);
            removed.insert(symbol);
            // The peer needn't hear of an attribute that came and went within one update. The
            // addition may lie anywhere before, even behind an older removal, which then stays.
            if (i == 0 || !addedBefore(events, i, symbol))
                m_reversed.push_back({NodeWatcher::ATTRIBUTE_REMOVED, symbol, false});
            break;
        default:
            m_reversed.push_back({event.type, symbol, false});
            break;
        }
    }
    std::reverse(m_reversed.begin(), m_reversed.end());

    // Oldest to newest: a change behind a surviving addition is already in it.
    QSet<unsigned int> &added = superseded;
    added.clear();
    for (const ChangeData &change : m_reversed) {
        if (change.type == NodeWatcher::ATTRIBUTE_ADDED)
            added.insert(change.symbol);
        else if (change.type == NodeWatcher::ATTRIBUTE_CHANGED && added.contains(change.symbol))
            continue;
        result.push_back(change);
    }
}

} // namespace Loomy
