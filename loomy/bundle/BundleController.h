#pragma once
#include "loomy/loomy_export.h"

#include <QByteArray>

#include <functional>
#include <memory>
#include <vector>

namespace Kestrel { class BinaryData; class SymbolRegistry; }

/// \class Loomy::BundleController
/// A session keeps one RemoteNode in step with one peer: a Core holds its state, a
/// BundleController is the application's thread-safe handle on it. All session work happens on
/// the frame thread in updateCores(); other threads only hand the core tasks.
///
/// Ownership: with useGlobalUpdate the only strong reference to a core is its entry in the global
/// list, so a controller may go away on any thread and the core is released on the frame thread,
/// by the next updateAllControllers() or by the node's "destroyed" event. Without it, the
/// controller owns its core and its owner drives it through update().
namespace Loomy {

class Bundle;
class Core;
class RemoteNode;

/// Where a core's bundles go. Called on the frame thread with every batch the core collects,
/// empty ones included; the core keeps nothing of the batch after the call.
class LOOMY_EXPORT Connection
{
public:
    virtual ~Connection();
    /// Hands one batch on; on the frame thread. Must not call back into the core.
    virtual void send(const std::vector<Bundle> &bundles) = 0;
};

/// How a session behaves; read once, by BundleController::create().
struct LOOMY_EXPORT BundleControllerParams
{
    /// Null: the core collects and drops its bundles.
    std::shared_ptr<Connection> connection;
    /// Called for a received event; empty means RemoteNode::handleRemoteEvent(name, data, source),
    /// with a source that no other session of the process uses, so that the sliced events of
    /// several peers of one node never mix. A handler set here chooses its own sources.
    std::function<void(const QByteArray &, Kestrel::BinaryData &)> eventHandler;
    /// Discard a remote value for an attribute whose last local send the peer has not yet
    /// acknowledged.
    bool dropStaleChanges = false;
    /// Make an attribute that the peer changes and this tree lacks, instead of logging and dropping the change.
    bool createMissingAttributes = false;
    /// The session's state once initialised; disabled sessions still apply what comes in.
    bool enabled = true;
    /// True: driven by updateAllControllers(). False: by BundleController::update().
    bool useGlobalUpdate = true;
    /// This side's state wins at first contact, where both sides announce what they hold, as at
    /// every reconnection: a value that the peer announces for an attribute this side already
    /// holds is not applied (stale or not), and this side sends its own value again as a change in
    /// its next update. That change acknowledges the peer's announcement, so the peer takes it
    /// whatever its own settings are. Attributes only the peer holds are made here as usual, and
    /// after a path's first contact the ordinary rules apply. Nothing changes on the wire.
    ///
    /// One side of a session should be authoritative. With neither, the two first announcements
    /// cross, and the sides can stay apart until the attribute is next written (see
    /// dropStaleChanges). With both, each refuses the other's value and the two resent values
    /// cross once more, with the same result. A removal made while no session ran can't be known
    /// at first contact: the attribute comes back from the side that still holds it. Off by
    /// default.
    bool authoritative = false;
};

/// Figures of one session since it began.
struct LOOMY_EXPORT SessionStats
{
    unsigned long long changesSent = 0;       ///< addition, change and removal records written
    unsigned long long changesReceived = 0;   ///< values applied and attributes removed for the peer
    unsigned long long staleDropped = 0;      ///< peer values dropped under dropStaleChanges
};

/// The application's handle on one session; see the description at the top of this header.
class LOOMY_EXPORT BundleController
{
public:
    /// Makes a session for node with one peer; any thread. The node must outlive the session's use of it.
    static std::shared_ptr<BundleController> create(RemoteNode &node, const BundleControllerParams &params);

    /// The node must outlive the controller unless useGlobalUpdate is set: a global core lets go of
    /// its node when the node raises "destroyed". Nothing is built before the first update pass.
    BundleController(RemoteNode &node, const BundleControllerParams &params);
    /// Any thread. A global core is only flagged here and released by the next frame pass.
    ~BundleController();
    BundleController(const BundleController &) = delete;
    BundleController &operator=(const BundleController &) = delete;

    /// Runs one update pass over this core alone; does nothing for a global controller.
    void update();

    /// Initialises the core and dispatches the bundles at once, on the calling thread. Frame
    /// thread only, like ensureIsInitialized() and the two registry accessors.
    void process(const std::vector<Bundle> &bundles);
    /// Any thread: the batch waits in the core's tasks for the next update pass.
    void scheduleProcess(const std::vector<Bundle> &bundles);
    /// Any thread. The task runs on the frame thread in the next pass; a core that is gone drops
    /// it silently.
    void addTask(const std::function<void(Core &)> &task);
    /// Any thread; takes effect at the next pass, in order with scheduled batches.
    void setEnabled(bool enabled);
    /// Any thread; at the next pass, initialises the core and prints its attribute storage to
    /// standard output.
    void debugDump();

    /// Sets the session up (storage, senders, receivers) unless done already; frame thread only.
    void ensureIsInitialized();
    /// Null once the core is gone. The registries live as long as the core.
    Kestrel::SymbolRegistry *symbolRegistryRecv();
    /// The registry of the symbols sent to the peer (the node's), after ensureIsInitialized().
    /// Null once the core is gone.
    Kestrel::SymbolRegistry *symbolRegistrySend();
    /// Frame thread. Zeros before the first pass and once the core is gone.
    SessionStats stats();

private:
    std::shared_ptr<Core> lockCore() const;

    bool m_dropStaleChanges;               ///< kept for the application; the core has its own copy
    bool m_useGlobalUpdate;
    std::weak_ptr<Core> m_weakCore;        ///< every operation goes through this: the core may be gone
    std::shared_ptr<Core> m_core;          ///< set only without useGlobalUpdate
};

/// The frame's work for a list of cores: tasks, node updates, sending, node updates again. A node
/// shared by several cores is updated once per phase. Frame thread; no lock held.
LOOMY_EXPORT void updateCores(std::vector<std::shared_ptr<Core>> &cores);

/// One pass over every global core, pruning those whose controller is gone. It queues itself with
/// Tamarack::Node::invokeAfterUpdate after each pass while global cores exist; the first global
/// controller starts it. The application normally never calls it.
LOOMY_EXPORT void updateAllControllers();

} // namespace Loomy
