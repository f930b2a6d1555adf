#include "loomy/sync/NodeWatcher.h"

#include "loomy/sync/AttributeCache.h"
#include "loomy/sync/NodeSerialization.h"
#include "loomy/types/AliasDeserializer.h"

#include "kestrel/Mutex.h"
#include "kestrel/ReadWriteLocker.h"
#include "kestrel/SymbolRegistry.h"
#include "kestrel/SymbolTable.h"
#include "kestrel/Trace.h"
#include "tamarack/AttributeAlias.h"
#include "tamarack/ListenerHolder.h"
#include "tamarack/Node.h"
#include "tamarack/Reference.h"

#include <QReadWriteLock>

#include <algorithm>
#include <atomic>
#include <deque>
#include <map>
#include <memory>
#include <set>
#include <unordered_map>
#include <vector>

namespace Loomy {

namespace {

using Tamarack::Attribute;
using Tamarack::AttributeAlias;
using Tamarack::Node;

const char *const s_emptyName = "NodeWatcher # Found an attribute with an empty name. This should never happen";

// Calls fn(child, its path) for each child of node in stored order. Paths are built from the
// children's own names, as the added and removed listeners build them.
template <typename Fn>
void forEachChild(Node &node, const QByteArray &path, Fn fn)
{
    for (const auto &entry : node.children()) {
        Attribute *child = entry.second;
        if (!child)
            continue;
        if (child->name().isEmpty())
            Kestrel::Trace::error("%s", s_emptyName);
        fn(*child, kidPath(path, child->name()));
    }
}

// An addition announced by the tree and not yet classified. Whoever sets `handled` first (update()
// or the attribute's first change) processes it. The temporary change listener lives exactly as
// long as the record.
struct PendingAdded
{
    PendingAdded(unsigned int symbol_, Attribute *attribute_, bool notify_)
        : symbol(symbol_), attribute(attribute_), notify(notify_)
    {
    }
    ~PendingAdded()
    {
        Attribute *alive = attribute.exchange(nullptr);
        if (alive && observer)
            alive->detachObserver(observer);
        else if (alive)
            alive->removeListener(changeListener);
    }
    PendingAdded(const PendingAdded &) = delete;
    PendingAdded &operator=(const PendingAdded &) = delete;

    std::atomic<bool> handled{false};
    unsigned int symbol;
    // Only for removing the listener; cleared by AttributeAddedQueue::forget once it is gone.
    std::atomic<Attribute *> attribute;
    bool notify;
    // The temporary listener: the watcher's pending observer inside the attribute where it had
    // room, else a listener.
    Tamarack::ChangeObserver *observer = nullptr;
    long changeListener = 0;
};

using PendingPtr = std::shared_ptr<PendingAdded>;

// Oldest first. A record leaves the queue exactly once, by takeFirst() or erase(), and is then in
// flight until finish(): processing it calls listeners, which may remove its attribute.
struct AttributeAddedQueue
{
    void push(PendingPtr record)
    {
        Kestrel::MutexLocker locker(mutex);
        queue.push_back(std::move(record));
    }
    PendingPtr takeFirst()
    {
        Kestrel::MutexLocker locker(mutex);
        if (queue.empty())
            return nullptr;
        PendingPtr record = std::move(queue.front());
        queue.pop_front();
        inFlight.push_back(record.get());
        return record;
    }
    // The oldest record of the symbol, taken out; null if there is none. Linear, oldest first.
    PendingPtr erase(unsigned int symbol)
    {
        Kestrel::MutexLocker locker(mutex);
        for (auto it = queue.begin(); it != queue.end(); ++it) {
            if ((*it)->symbol == symbol) {
                PendingPtr record = std::move(*it);
                queue.erase(it);
                inFlight.push_back(record.get());
                return record;
            }
        }
        return nullptr;
    }
    // Releases a record taken by this thread, which removes its listener unless forgotten.
    void finish(PendingPtr &record)
    {
        {
            Kestrel::MutexLocker locker(mutex);
            inFlight.erase(std::find(inFlight.begin(), inFlight.end(), record.get()));
        }
        record.reset();
    }
    // The attribute is being removed: records in flight must not touch it afterwards.
    void forget(Attribute *attribute)
    {
        Kestrel::MutexLocker locker(mutex);
        for (PendingAdded *record : inFlight) {
            Attribute *expected = attribute;
            record->attribute.compare_exchange_strong(expected, nullptr);
        }
    }
    bool contains(unsigned int symbol)
    {
        Kestrel::MutexLocker locker(mutex);
        for (const auto &record : queue)
            if (record->symbol == symbol)
                return true;
        return false;
    }

    Kestrel::Mutex mutex;
    std::deque<PendingPtr> queue;          // guarded by mutex
    std::vector<PendingAdded *> inFlight;  // guarded by mutex; alive until removed by finish()
};

// The final target of an alias as last seen; null for none.
struct AliasData
{
    Attribute *target = nullptr;
};

} // namespace

// Five leaf locks, never two at a time and never held across a listener or a call into Tamarack:
// the queue's mutex, aliasMutex, ignoredMutex, listenersLock, watchedMutex.
class NodeWatcher::D
{
public:
    D(Kestrel::SymbolRegistry &symbols_, AttributeCache &cache_) : symbols(symbols_), cache(cache_) {}
    ~D();

    unsigned int ensureCached(Attribute *attribute, const QByteArray &path);
    void setupNodeListeners(Node &node, const QByteArray &path);
    void onAttributeAdded(const QByteArray &path, Attribute *attribute);
    void onAttributeRemoved(const QByteArray &path, Attribute *attribute);
    void processPendingAdded(const PendingAdded &record);
    void processPendingAddedChanged(unsigned int symbol);
    void somethingAdded(Attribute &attribute, const QByteArray &path, unsigned int symbol, bool notify);
    void attributeAdded(Attribute &attribute, unsigned int symbol, bool notify);
    void setupAttributeListeners(Attribute &attribute, unsigned int symbol);
    void removeAttributeListener(Attribute &attribute, unsigned int symbol);
    void nodeAdded(Node &node, const QByteArray &path, unsigned int symbol, bool notify);
    void aliasAdded(AttributeAlias &alias, const QByteArray &path, unsigned int symbol, bool notify);
    void onAliasChanged(AttributeAlias &alias, const QByteArray &path, unsigned int symbol, bool notify);
    void somethingRemoved(Attribute &attribute, const QByteArray &path, unsigned int symbol, bool notify);
    void attributeRemoved(unsigned int symbol, bool notify);
    void nodeRemoved(Node &node, const QByteArray &path, unsigned int symbol, bool notify);
    void event(EventType type, unsigned int symbol);

    // The two observers a plain attribute carries inside itself where it has room: while its
    // addition is queued, then while it is watched. The cookie is the symbol.
    template <void (D::*Handle)(unsigned int)>
    struct Observer : Tamarack::ChangeObserver
    {
        explicit Observer(D &d_) : d(d_) {}
        void attributeChanged(unsigned cookie) override { (d.*Handle)(cookie); }
        D &d;
    };
    void changed(unsigned int symbol) { event(ATTRIBUTE_CHANGED, symbol); }

    Kestrel::SymbolRegistry &symbols;   // not owned
    AttributeCache &cache;              // not owned
    // Before the queue: its records detach the pending observer when they go.
    Observer<&D::processPendingAddedChanged> pendingObserver{*this};
    Observer<&D::changed> watchedObserver{*this};
    Tamarack::ListenerHolder holder;    // aliases' change listeners, and the root's deletion listener
    Tamarack::Reference reference;      // receiver of the listeners on nodes' added/removed events

    Kestrel::Mutex aliasMutex;
    std::unordered_map<Attribute *, AliasData> aliases; // guarded by aliasMutex

    AttributeAddedQueue pending;        // guarded by its own mutex

    std::set<Event> ignored;            // guarded by ignoredMutex
    Kestrel::Mutex ignoredMutex;
    // Size of ignored, so that the exit skips the mutex on the common path where nothing is
    // ignored; written under ignoredMutex.
    std::atomic<std::size_t> ignoredCount{0};

    using Listeners = std::map<long, std::function<void(const Event &)>>;
    QReadWriteLock listenersLock;
    Listeners listeners;                // guarded by listenersLock
    long nextListenerId = 0;            // guarded by listenersLock
    // An immutable copy of listeners, replaced at each registration, so that an event takes a
    // reference instead of copying the map; guarded by listenersLock.
    std::shared_ptr<const Listeners> snapshot = std::make_shared<const Listeners>();

    // Both under ignoredMutex.
    bool eraseIgnored(const Event &event)
    {
        if (ignored.erase(event) == 0)
            return false;
        ignoredCount.store(ignored.size(), std::memory_order_release);
        return true;
    }

    std::atomic<bool> watching{false};

    // The change listener of each plain attribute, by the symbol it was filed under: one slot
    // where the holder would keep a table, a deletion listener and a closure per attribute. No
    // deletion listener is needed: every attribute here leaves through somethingRemoved (its
    // host's removed listener, a removed node's walk, or the root's deletion) before it dies, and
    // that empties its slot. A second attribute at a taken symbol goes to the holder.
    struct Watched
    {
        Attribute *attribute = nullptr;
        long listener = 0;              // 0 while the slot is being filled; s_observed for the observer
    };
    static constexpr long s_observed = -1;
    void unwatch(Attribute &attribute, long listener)
    {
        if (listener == s_observed)
            attribute.detachObserver(&watchedObserver);
        else if (listener)
            attribute.removeListener(listener);
    }
    Kestrel::Mutex watchedMutex;
    Kestrel::SymbolTable<Watched> watched; // guarded by watchedMutex
};

// Listeners still on attributes of the tree go before anything they use.
NodeWatcher::D::~D()
{
    std::vector<Watched> left;
    {
        Kestrel::MutexLocker locker(watchedMutex);
        watched.forEach([&](unsigned int, const Watched &slot) {
            if (slot.attribute && slot.listener)
                left.push_back(slot);
        });
    }
    for (const Watched &slot : left)
        unwatch(*slot.attribute, slot.listener);
}

unsigned int NodeWatcher::D::ensureCached(Attribute *attribute, const QByteArray &path)
{
    const unsigned int symbol = symbols.lookupOrDefine(path);
    // An attribute already cached at the path stays cached.
    if (!cache.find(symbol))
        cache.add(symbol, attribute);
    return symbol;
}

// Both listeners keep their own copy of the path, and expire with `reference`.
void NodeWatcher::D::setupNodeListeners(Node &node, const QByteArray &path)
{
    node.eventAttributeAdded.addListener(reference.weak(),
                                         [this, path](Attribute *attribute) { onAttributeAdded(path, attribute); });
    node.eventAttributeRemoved.addListener(reference.weak(),
                                           [this, path](Attribute *attribute) { onAttributeRemoved(path, attribute); });
}

// Runs on whichever thread adds. The attribute may still be under construction: only its address
// and name are used, and no event is raised here.
void NodeWatcher::D::onAttributeAdded(const QByteArray &path, Attribute *attribute)
{
    if (!attribute)
        return;
    if (attribute->name().isEmpty())
        Kestrel::Trace::error("%s", s_emptyName);
    const unsigned int symbol = ensureCached(attribute, kidPath(path, attribute->name()));

    // The kind is not known yet, so either added kind silences the addition.
    bool ignore;
    {
        Kestrel::MutexLocker locker(ignoredMutex);
        ignore = eraseIgnored(Event{ATTRIBUTE_ADDED, symbol}) || eraseIgnored(Event{NODE_ADDED, symbol});
    }

    auto record = std::make_shared<PendingAdded>(symbol, attribute, !ignore);
    if (attribute->attachObserver(&pendingObserver, symbol))
        record->observer = &pendingObserver;
    else
        record->changeListener = attribute->addListener([this, symbol] { processPendingAddedChanged(symbol); },
                                                        Attribute::CHANGE_ROLE);
    pending.push(std::move(record));
}

// Runs on whichever thread removes; the attribute may be under destruction, so its dynamic type
// decides nothing until somethingRemoved has looked at what is left of it.
void NodeWatcher::D::onAttributeRemoved(const QByteArray &path, Attribute *attribute)
{
    if (!attribute)
        return;
    const QByteArray childPath = kidPath(path, attribute->name());
    const unsigned int symbol = symbols.lookup(childPath);
    if (!cache.find(symbol))
        return;
    // An alias without a target was never announced, so its removal is not either.
    bool notify = true;
    {
        Kestrel::MutexLocker locker(aliasMutex);
        auto it = aliases.find(attribute);
        if (it != aliases.end() && !it->second.target)
            notify = false;
    }
    somethingRemoved(*attribute, childPath, symbol, notify);
}

void NodeWatcher::D::processPendingAdded(const PendingAdded &record)
{
    // The cache, not the record: an attribute cached earlier at the path wins.
    Attribute *attribute = cache.find(record.symbol);
    if (!attribute) {
        Kestrel::Trace::error("NodeWatcher::processPendingAdded # Could not find attribute in cache");
        return;
    }
    somethingAdded(*attribute, symbols.name(record.symbol), record.symbol, record.notify);
}

// The temporary listener: the first change of a queued attribute pulls its addition forward, so
// that nobody hears of a change of an attribute they were never told of.
void NodeWatcher::D::processPendingAddedChanged(unsigned int symbol)
{
    if (PendingPtr record = pending.erase(symbol)) {
        if (!record->handled.exchange(true))
            processPendingAdded(*record);
        pending.finish(record);
    }
    // If update() on another thread took the record first, this change may be raised before
    // that thread's addition.
    Attribute *attribute = cache.find(symbol);
    if (!attribute) {
        Kestrel::Trace::error("NodeWatcher::processPendingAddedChanged # Could not find attribute in cache");
        return;
    }
    // An alias reports its changes through its own listener.
    if (dynamic_cast<AttributeAlias *>(attribute))
        return;
    event(ATTRIBUTE_CHANGED, symbol);
}

// The order of the tests matters: an alias whose target is a node is still an alias here.
void NodeWatcher::D::somethingAdded(Attribute &attribute, const QByteArray &path, unsigned int symbol, bool notify)
{
    if (auto *alias = dynamic_cast<AttributeAlias *>(&attribute))
        aliasAdded(*alias, path, symbol, notify);
    else if (auto *node = dynamic_cast<Node *>(&attribute))
        nodeAdded(*node, path, symbol, notify);
    else
        attributeAdded(attribute, symbol, notify);
}

void NodeWatcher::D::attributeAdded(Attribute &attribute, unsigned int symbol, bool notify)
{
    setupAttributeListeners(attribute, symbol);
    if (notify)
        event(ATTRIBUTE_ADDED, symbol);
}

// A queued attribute's pending observer becomes the watched one in its place, so that it keeps
// ranking before the listeners added meanwhile, as the first listener would.
void NodeWatcher::D::setupAttributeListeners(Attribute &attribute, unsigned int symbol)
{
    auto listener = [this, symbol] { event(ATTRIBUTE_CHANGED, symbol); };
    {
        Kestrel::MutexLocker locker(watchedMutex);
        Watched &slot = watched.make(symbol);
        if (slot.attribute) {
            locker.unlock();
            holder.add(&attribute, listener, Attribute::CHANGE_ROLE);
            return;
        }
        slot.attribute = &attribute;
    }
    const long id = attribute.replaceObserver(&pendingObserver, symbol, &watchedObserver)
                            || attribute.attachObserver(&watchedObserver, symbol)
                        ? s_observed
                        : attribute.addListener(listener, Attribute::CHANGE_ROLE);
    {
        Kestrel::MutexLocker locker(watchedMutex);
        Watched *slot = watched.find(symbol);
        if (slot->attribute == &attribute && slot->listener == 0) {
            slot->listener = id;
            return;
        }
    }
    // Removed on another thread meanwhile: the removal found no listener to take away.
    unwatch(attribute, id);
}

// The attribute is leaving: alive, but perhaps already reduced to its base.
void NodeWatcher::D::removeAttributeListener(Attribute &attribute, unsigned int symbol)
{
    long id = 0;
    {
        Kestrel::MutexLocker locker(watchedMutex);
        Watched *slot = watched.find(symbol);
        if (!slot || slot->attribute != &attribute)
            return;
        id = slot->listener;
        *slot = Watched();
    }
    unwatch(attribute, id);
}

// Children present now are classified right here, depth first, after their node; later ones come
// through the queue.
void NodeWatcher::D::nodeAdded(Node &node, const QByteArray &path, unsigned int symbol, bool notify)
{
    cache.setIsNode(symbol, true);
    setupNodeListeners(node, path);
    if (notify)
        event(NODE_ADDED, symbol);
    forEachChild(node, path, [&](Attribute &child, const QByteArray &childPath) {
        somethingAdded(child, childPath, ensureCached(&child, childPath), notify);
    });
}

// The cache keeps the alias at its symbol; the target is reported at the alias's path. Only the
// first alias of a chain gets a listener.
void NodeWatcher::D::aliasAdded(AttributeAlias &alias, const QByteArray &path, unsigned int symbol, bool notify)
{
    Attribute *target = followAliases(&alias);
    {
        Kestrel::MutexLocker locker(aliasMutex);
        aliases[&alias].target = target;
    }
    AttributeAlias *aliasPtr = &alias;
    holder.add(&alias, [this, aliasPtr, path, symbol] { onAliasChanged(*aliasPtr, path, symbol, true); },
               Attribute::CHANGE_ROLE);
    if (!target)
        return;
    if (auto *node = dynamic_cast<Node *>(target))
        nodeAdded(*node, path, symbol, notify);
    else if (notify)
        event(ATTRIBUTE_ADDED, symbol);
}

// A retarget is the removal of the old target and the addition of the new one, at the alias's
// symbol; an unchanged target means a change inside it. An old target that is being deleted is
// still alive here: the alias hears of the deletion from the target's deletion listeners.
void NodeWatcher::D::onAliasChanged(AttributeAlias &alias, const QByteArray &path, unsigned int symbol, bool notify)
{
    Attribute *oldTarget;
    {
        Kestrel::MutexLocker locker(aliasMutex);
        oldTarget = aliases[&alias].target;
    }
    Attribute *newTarget = followAliases(&alias);
    {
        Kestrel::MutexLocker locker(aliasMutex);
        aliases[&alias].target = newTarget;
    }
    if (oldTarget == newTarget) {
        if (newTarget && notify)
            event(ATTRIBUTE_CHANGED, symbol);
        return;
    }
    if (oldTarget) {
        // The old node's added and removed listeners stay where they are.
        if (auto *oldNode = dynamic_cast<Node *>(oldTarget))
            nodeRemoved(*oldNode, path, symbol, notify);
        else if (notify)
            event(cache.isNode(symbol) ? NODE_REMOVED : ATTRIBUTE_REMOVED, symbol);
    }
    if (!newTarget)
        return;
    if (auto *newNode = dynamic_cast<Node *>(newTarget)) {
        nodeAdded(*newNode, path, symbol, notify);
        return;
    }
    if (notify) {
        cache.setIsNode(symbol, false);
        event(ATTRIBUTE_ADDED, symbol);
    }
}

void NodeWatcher::D::somethingRemoved(Attribute &attribute, const QByteArray &path, unsigned int symbol, bool notify)
{
    PendingPtr record = pending.erase(symbol);
    if (record) {
        // The addition was never reported: observers get a balanced pair, never a lone removal.
        auto *alias = dynamic_cast<AttributeAlias *>(&attribute);
        if (notify && !(alias && !alias->attribute())) {
            if (dynamic_cast<Node *>(followAliases(&attribute))) {
                event(NODE_ADDED, record->symbol);
                event(NODE_REMOVED, record->symbol);
            } else {
                event(ATTRIBUTE_ADDED, record->symbol);
                event(ATTRIBUTE_REMOVED, record->symbol);
            }
        }
    } else if (auto *node = dynamic_cast<Node *>(followAliases(&attribute))) {
        nodeRemoved(*node, path, symbol, notify);
        node->eventAttributeAdded.removeListeners(reference.weak());
        node->eventAttributeRemoved.removeListeners(reference.weak());
    } else {
        // A plain attribute, an alias without a target, or a type already reduced by its destructor.
        attributeRemoved(symbol, notify);
    }
    if (record)
        pending.finish(record);
    pending.forget(&attribute);
    removeAttributeListener(attribute, symbol);
    holder.removeListeners(&attribute);
    cache.remove(symbol);
    Kestrel::MutexLocker locker(aliasMutex);
    aliases.erase(&attribute);
}

// The cache's mark decides the kind: the attribute's own type can no longer be trusted.
void NodeWatcher::D::attributeRemoved(unsigned int symbol, bool notify)
{
    if (notify)
        event(cache.isNode(symbol) ? NODE_REMOVED : ATTRIBUTE_REMOVED, symbol);
}

// Children first, then the node.
void NodeWatcher::D::nodeRemoved(Node &node, const QByteArray &path, unsigned int symbol, bool notify)
{
    forEachChild(node, path, [&](Attribute &child, const QByteArray &childPath) {
        somethingRemoved(child, childPath, symbols.lookup(childPath), notify);
    });
    if (notify)
        event(NODE_REMOVED, symbol);
}

// The single exit. Listeners run on the current thread with no lock held, in ascending id order,
// on a copy: one added or removed meanwhile does not affect this delivery.
void NodeWatcher::D::event(EventType type, unsigned int symbol)
{
    const Event ev{type, symbol};
    if (ignoredCount.load(std::memory_order_acquire) != 0) {
        Kestrel::MutexLocker locker(ignoredMutex);
        if (eraseIgnored(ev))
            return;
    }
    std::shared_ptr<const Listeners> copy;
    {
        Kestrel::ReadLocker locker(&listenersLock);
        copy = snapshot;
    }
    for (const auto &listener : *copy)
        listener.second(ev);
}

NodeWatcher::IgnoreGuard::IgnoreGuard(NodeWatcher &watcher, const Event &event)
    : m_watcher(watcher), m_event(event)
{
}

NodeWatcher::IgnoreGuard::~IgnoreGuard()
{
    m_watcher.stopIgnoring(m_event);
}

NodeWatcher::NodeWatcher(Kestrel::SymbolRegistry &symbols, AttributeCache &cache)
    : m_d(new D(symbols, cache))
{
}

NodeWatcher::~NodeWatcher() = default;

void NodeWatcher::startWatching(Tamarack::Node &node, bool notify)
{
    if (m_d->watching.exchange(true)) {
        Kestrel::Trace::error("NodeWatcher can only watch one node at a time");
        return;
    }
    const QByteArray path;
    const unsigned int symbol = m_d->symbols.lookupOrDefine(path);
    m_d->cache.add(symbol, &node);
    m_d->nodeAdded(node, path, symbol, notify);
    // Deleting the root reports the whole tree as removed.
    D *d = m_d.get();
    Tamarack::Node *root = &node;
    m_d->holder.add(&node, [d, root, path, symbol] { d->nodeRemoved(*root, path, symbol, true); },
                    Tamarack::Attribute::DELETE_ROLE);
}

// Additions that processing itself causes are queued behind and handled by this same run.
void NodeWatcher::update()
{
    while (PendingPtr record = m_d->pending.takeFirst()) {
        if (!record->handled.exchange(true))
            m_d->processPendingAdded(*record);
        m_d->pending.finish(record);
    }
}

long NodeWatcher::addListener(const std::function<void(const Event &)> &listener)
{
    Kestrel::WriteLocker locker(&m_d->listenersLock);
    const long id = m_d->nextListenerId++;
    m_d->listeners.emplace(id, listener);
    m_d->snapshot = std::make_shared<const D::Listeners>(m_d->listeners);
    return id;
}

void NodeWatcher::removeListener(long id)
{
    Kestrel::WriteLocker locker(&m_d->listenersLock);
    if (m_d->listeners.erase(id) != 0)
        m_d->snapshot = std::make_shared<const D::Listeners>(m_d->listeners);
}

bool NodeWatcher::isPendingUpdate(unsigned int symbol) const
{
    return m_d->pending.contains(symbol);
}

void NodeWatcher::ignoreOne(const Event &event)
{
    bool inserted;
    {
        Kestrel::MutexLocker locker(m_d->ignoredMutex);
        inserted = m_d->ignored.insert(event).second;
        m_d->ignoredCount.store(m_d->ignored.size(), std::memory_order_release);
    }
    if (!inserted)
        Kestrel::Trace::error("NodeWatcher # called ignoreOne for an event that is already ignored");
}

void NodeWatcher::stopIgnoring(const Event &event)
{
    Kestrel::MutexLocker locker(m_d->ignoredMutex);
    m_d->eraseIgnored(event);
}

} // namespace Loomy
