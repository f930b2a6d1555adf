#pragma once
#include "loomy/loomy_export.h"
#include "loomy/sync/AttributeCache.h"
#include "loomy/sync/NodeWatcher.h"
#include "loomy/sync/SyncFlags.h"

#include "kestrel/BinaryData.h"
#include "kestrel/Mutex.h"
#include "kestrel/SymbolRegistry.h"
#include "tamarack/Node.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QReadWriteLock>
#include <QRegExp>
#include <QString>

#include <atomic>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <unordered_map>
#include <utility>
#include <vector>

namespace Loomy {

/// The node an application puts into its tree to have that subtree kept equal with another
/// process. It owns what belongs to the subtree whoever the peers are: the registry of paths, the
/// attribute cache, the sync flags and the watcher, which starts watching at construction.
///
/// Lifetime: destruction first raises "destroyed" on this node, so that sessions drop the node
/// before any member goes.
///
/// Threads:
/// - update(), onChangeImpl() and setSyncFlags() run on the thread that drives the node (the frame
///   thread); the pattern listeners and rules have no lock of their own.
/// - Any thread may change the tree; addAttributeChangeListener listeners run on that thread.
/// - eventProcess()/eventProcessSlice() may be called from any thread; addEventListener listeners
///   run on the caller's thread.
/// - handleRemoteEvent() and what it calls run only on the thread that runs the receivers of the
///   node's sessions: the table of sliced events and the handling fields have no lock.
/// No lock is held while any listener runs.
class LOOMY_EXPORT RemoteNode : public Tamarack::Node
{
public:
    /// One event that leaves through the node.
    struct Event
    {
        unsigned int symbol;     ///< the event name's symbol in symbols()
        Kestrel::BinaryData data; ///< deep copy of the payload, rewound
    };

    /// A sliced event being put together from its slices. It holds what has arrived and nothing
    /// that was only announced: the sizes are the peer's word until the bytes are there.
    struct SlicedEvent
    {
        /// the event's name
        QByteArray name;
        int sliceSize;           ///< bytes in each slice but the last
        int totalSize;           ///< bytes of the whole payload
        QByteArray data;         ///< the slices from index 0 up to the first one missing, in place
        std::map<int, QByteArray> ahead; ///< slices received behind that gap, by index
    };

    /// A listener waiting for an attribute whose path matches regExp to appear.
    struct PendingAttributeListener
    {
        QRegExp regExp;          ///< matched (searched) against paths
        /// called once with the attribute when it appears
        std::function<void(Tamarack::Attribute *)> listener;
    };

    /// A sync flag applied to every attribute whose path matches regExp.
    struct SyncFlagSetting
    {
        QRegExp regExp;          ///< matched (searched) against paths
        /// the flag to set on a match
        SyncFlags::Flag flag;
        /// Set when regExp, like the built-in rule for "id", asks only for this last path
        /// component: then additions test the name instead of running the expression.
        QByteArray lastComponent = QByteArray();
    };

    /// Makes the node under host, as for any Tamarack node, and starts watching the subtree.
    RemoteNode(Tamarack::Node *host, const QByteArray &name);
    ~RemoteNode() override;
    RemoteNode(const RemoteNode &) = delete;
    RemoteNode &operator=(const RemoteNode &) = delete;

    /// The per-frame work: raises queued additions, then runs the pattern listeners of every
    /// attribute added or changed since the last call, once each, in order of first change.
    virtual void update();

    /// Adds the attribute at a path of names joined by "/", making the missing nodes on the way
    /// (they stay even if the addition fails). Result of the final addAttribute, or false.
    bool addDeepAttribute(const QByteArray &fullName, Tamarack::Attribute *attribute);
    /// Adds node at fullName below this node, as Tamarack::Node::addDeepAttribute does.
    bool addNode(const QByteArray &fullName, Tamarack::Node *node);

    /// Runs listener at update() for every attribute whose path the pattern finds (a search, not a
    /// whole match), now present or added later; once per update() however often it changed. The
    /// attribute passed is null if an earlier listener removed it. There is no removal.
    void onChangeImpl(const QRegExp &regExp, std::function<void(Tamarack::Attribute *)> listener);

    /// Calls listener for every change below this node, on the changing thread; returns an id for removeAttributeChangeListener().
    long addAttributeChangeListener(const std::function<void(const NodeWatcher::Event &)> &listener);
    /// Removes a listener added by addAttributeChangeListener(); any thread.
    void removeAttributeChangeListener(long id);

    /// Listeners of the events that leave this node (local events only, never received ones).
    long addEventListener(const std::function<void(const Event &)> &listener);
    /// Removes a listener added by addEventListener(); any thread.
    void removeEventLIstener(long id);

    /// One-shot filter on the watcher's events: a bracket around a change the caller applies.
    void ignoreOne(const NodeWatcher::Event &event);
    /// Lets the watcher report changes like event again (see NodeWatcher::stopIgnoring).
    void stopIgnoring(const NodeWatcher::Event &event);
    /// Raises queued additions now, without the pattern listeners of update().
    void processPendingAdditions();

    /// Applies the rule to what exists now and keeps it for attributes added later; the last
    /// matching rule wins at an addition.
    void setSyncFlags(const QRegExp &regExp, SyncFlags::Flag flag);
    /// Applies the rule once, to what exists now.
    void updateSyncFlags(const QRegExp &regExp, SyncFlags::Flag flag);
    /// Applies every kept rule to one new attribute.
    void checkForSyncFlags(unsigned int symbol);
    /// A glob: "*" is one or more characters within a path component, "**" one or more of any;
    /// everything else stands for itself. Anchored at both ends.
    static QRegExp makeRegExp(const QString &pattern);

    /// The one entry for events that go through the node: one being dispatched from the other
    /// side goes to this node's own listeners, anything else leaves through insertEvent().
    void eventProcess(const QByteArray &name, Kestrel::BinaryData &data) override;
    /// Like eventProcess(), for a payload that is to travel in slices of at most sliceSize bytes.
    /// Every non-empty payload is sliced. sliceSize must be positive.
    void eventProcessSlice(const QByteArray &name, Kestrel::BinaryData &data, unsigned long sliceSize);
    /// Entry for everything received from the other side; source keys the slice ids.
    void handleRemoteEvent(const QByteArray &name, Kestrel::BinaryData &data, long source);
    /// Delivers a received event to this node through the virtual eventProcess().
    void dispatchRemoteEvent(const QByteArray &name, Kestrel::BinaryData &data);
    /// True when the arguments are the very objects now being dispatched (addresses, not contents).
    bool handlingRemoteEvent(const QByteArray &name, const Kestrel::BinaryData &data) const;
    /// Puts one slice of a sliced event from source in place; on the receivers' thread.
    void handleSlice(long source, Kestrel::BinaryData &data);
    /// Hands a copy of a local event to the addEventListener listeners, on the caller's thread.
    void insertEvent(const QByteArray &name, Kestrel::BinaryData &data);

    /// Read access for the sessions of this node.
    Kestrel::SymbolRegistry &symbols() { return m_symbols; }
    /// The cache of attribute values shared by the node's sessions.
    const AttributeCache &cache() const { return m_cache; }
    /// The sync flags of the node's attributes.
    const SyncFlags &syncFlags() const { return m_syncFlags; }

protected:
    /// First listener of the watcher: files added and changed symbols for the pattern listeners.
    void handleAttributeChange(const NodeWatcher::Event &event);
    /// Binds the waiting listeners whose pattern matches the symbol's path to that symbol.
    void checkForPendingListeners(unsigned int symbol);
    /// Calls the listeners bound to the symbol, with no lock held.
    void runListeners(unsigned int symbol);

private:
    void enqueueChanged(unsigned int symbol);

    /// Receiving thread only. The handling pair is written there and read by eventProcess() on
    /// any thread, hence atomic; both are null outside a dispatch.
    std::map<std::pair<long, int>, SlicedEvent> m_slicedEvents;
    std::atomic<const QByteArray *> m_handlingName{nullptr};
    std::atomic<const Kestrel::BinaryData *> m_handlingData{nullptr};

    Kestrel::SymbolRegistry m_symbols;
    AttributeCache m_cache;
    SyncFlags m_syncFlags;
    std::unique_ptr<NodeWatcher> m_watcher;

    /// Written on the frame thread; read also by the first change of a queued attribute, which
    /// raises its addition on the changing thread.
    std::vector<PendingAttributeListener> m_pendingListeners;   ///< the index is the listener id
    std::vector<SyncFlagSetting> m_syncFlagSettings;
    std::unordered_map<unsigned int, std::map<unsigned long, std::function<void(Tamarack::Attribute *)>>>
        m_attributeListeners;
    /// Guards the three above. Lock order: this, then the sync flags' lock. Never held while a
    /// pattern listener runs or while the tree is walked.
    mutable Kestrel::Mutex m_patternMutex;
    /// Set before the first pattern listener is stored and never cleared. Until then nothing can
    /// run for a change, so changes are not filed at all: that filing is most of a change's cost.
    std::atomic<bool> m_hasPatternListeners{false};

    mutable QReadWriteLock m_eventListenersLock;                 ///< guards the next two
    std::map<long, std::function<void(const Event &)>> m_eventListeners;
    long m_nextEventListenerId = 0;

    Kestrel::Mutex m_changedMutex;                               ///< guards the next two
    std::vector<unsigned int> m_changedOrder;                    ///< in order of first change
    std::set<unsigned int> m_changedSet;                         ///< same symbols as m_changedOrder
};

/// Walks or builds the nodes named by path below node. Missing nodes are made, and entered in
/// created (when given) under their path from the start, prefixed by prefix. An existing child
/// that is not a node (aliases are not followed) is reported and gives null.
LOOMY_EXPORT Tamarack::Node *findOrCreateNode(QList<QByteArray> path, Tamarack::Node *node,
                                              QMap<QByteArray, Tamarack::Node *> *created,
                                              QByteArray prefix = QByteArray());

/// True when attribute is node itself or one of the nodes that hold it, up to the root: what a
/// peer must never remove, replace or reach through a path.
LOOMY_EXPORT bool isNodeOrAbove(const Tamarack::Attribute *attribute, const Tamarack::Node &node);

} // namespace Loomy
