#pragma once
#include "loomy/loomy_export.h"

#include <functional>
#include <memory>

namespace Kestrel { class SymbolRegistry; }
namespace Tamarack { class Node; }

namespace Loomy {
class AttributeCache;

// Turns the raw callbacks of one watched tree into an ordered stream of events, one symbol per
// path. Additions are queued when the tree announces them (the attribute may still be under
// construction) and raised by update(), or by the first change of the attribute, whichever comes
// first. Changes and removals are raised at once, on the thread that causes them; on removal the
// children of a node are reported before the node. Aliases are followed: the events of a target
// are reported at the alias's path.
//
// Threads: any thread may change the watched tree at any time, so listeners run anywhere and at
// once. update() runs on the thread that drives the owning node. No lock is held while a listener
// runs: a listener may add or remove listeners and call ignoreOne/stopIgnoring.
class LOOMY_EXPORT NodeWatcher
{
public:
    enum EventType : int {
        ATTRIBUTE_ADDED = 0,
        ATTRIBUTE_REMOVED = 1,
        ATTRIBUTE_CHANGED = 2,
        NODE_ADDED = 3,
        NODE_REMOVED = 4,
    };

    // Ordered by symbol, then type, so it can be a key of std::set.
    struct Event
    {
        EventType type;
        unsigned int symbol;

        bool operator<(const Event &other) const
        {
            return symbol != other.symbol ? symbol < other.symbol : type < other.type;
        }
        bool operator==(const Event &other) const { return type == other.type && symbol == other.symbol; }
        bool operator!=(const Event &other) const { return !(*this == other); }
    };

    // Closes a bracket opened by ignoreOne(): its destructor calls stopIgnoring(event), so a change
    // that turned out to be no change leaves no stale entry. It does not call ignoreOne itself.
    class LOOMY_EXPORT IgnoreGuard
    {
    public:
        IgnoreGuard(NodeWatcher &watcher, const Event &event);
        ~IgnoreGuard();
        IgnoreGuard(const IgnoreGuard &) = delete;
        IgnoreGuard &operator=(const IgnoreGuard &) = delete;

    private:
        NodeWatcher &m_watcher;
        Event m_event;
    };

    // Both must outlive the watcher.
    NodeWatcher(Kestrel::SymbolRegistry &symbols, AttributeCache &cache);
    // Drops queued additions and all listeners on the tree; raises nothing and leaves the cache
    // as it is.
    ~NodeWatcher();
    NodeWatcher(const NodeWatcher &) = delete;
    NodeWatcher &operator=(const NodeWatcher &) = delete;

    // Watches node, which must outlive the watcher or be deleted while watched (its deletion is
    // reported as the removal of the whole tree). notify tells whether what already exists is
    // reported. Only one node per watcher: a second call is refused.
    void startWatching(Tamarack::Node &node, bool notify);
    // Raises the queued additions, oldest first, including those that processing itself causes.
    void update();

    long addListener(const std::function<void(const Event &)> &listener);
    void removeListener(long id);

    bool isPendingUpdate(unsigned int symbol) const;

    // One-shot filter: the next matching event reaches no listener. For the added kinds it
    // silences the whole addition, subtree included.
    void ignoreOne(const Event &event);
    void stopIgnoring(const Event &event);

private:
    class D;
    std::unique_ptr<D> m_d;
};

} // namespace Loomy
