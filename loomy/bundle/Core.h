#pragma once
#include "loomy/loomy_export.h"

#include <functional>
#include <memory>
#include <vector>

namespace Kestrel { class SymbolRegistry; }

namespace Loomy {

class AttributeStorage;
class Bundle;
class BundleController;
struct BundleControllerParams;
struct SessionStats;
class BundleDispatcher;
class RemoteNode;

// One synchronisation session: the state that keeps one RemoteNode in step with one peer.
//
// States: created (parameters held, nothing built), initialised disabled or enabled, destroyed
// flagged, gone. Initialisation is one-way and lazy; enabled toggles only through tasks.
//
// Threads: everything but addTask() runs on the frame thread (or, without useGlobalUpdate, on the
// thread that calls BundleController::update()). addTask() may come from any thread. Lock order:
// the controllers' list mutex first, then the task mutex; neither is held while a task runs.
class LOOMY_EXPORT Core
{
public:
    // The node must outlive the core; a global core is released when the node raises "destroyed".
    Core(const BundleControllerParams &params, RemoteNode &node);
    ~Core();
    Core(const Core &) = delete;
    Core &operator=(const Core &) = delete;

    // Builds the session's modules on the first call; a no-op afterwards. Not thread-safe: the
    // frame thread, or a setup where only one thread touches the session.
    void ensureIsInitialized();
    // Runs the tasks queued so far, in order. Tasks added meanwhile wait for the next call.
    // A task's exception passes out, and the tasks behind it are dropped.
    void runPendingTasks();
    // Any thread.
    void addTask(const std::function<void(Core &)> &task);
    // Sends what changed locally, then dispatches the batch; a bundle that throws is logged and
    // the next one is dispatched. Incoming bundles are applied also while disabled.
    void process(const std::vector<Bundle> &bundles);
    // Collects one batch and hands it to the connection, if any; nothing is kept for resending.
    void sendUpdates();
    // Updates the node and sends, unless disabled.
    void updateAndSend();

    RemoteNode &node() const;
    // Null until initialised. Frame thread only, like everything it holds.
    AttributeStorage *attributeStorage() const;
    // Zeros before ensureIsInitialized().
    SessionStats stats() const;
    BundleDispatcher &dispatcher();
    Kestrel::SymbolRegistry &symbolRegistryRecv();

    bool isEnabled() const;
    // Frame thread, from a task or during initialisation.
    void setEnabled(bool enabled);
    bool isDestroyed() const;

private:
    friend class BundleController;
    // Any thread: the controller is gone, the next pass releases the core.
    void markDestroyed();
    // The "destroyed" listener's id on the node, removed again by the destructor; -1 for none.
    void setDestroyedListenerId(long id);

    class D;
    std::unique_ptr<D> m_d;
};

} // namespace Loomy
