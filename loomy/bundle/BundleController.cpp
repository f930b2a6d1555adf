#include "loomy/bundle/BundleController.h"

#include "loomy/bundle/Bundle.h"
#include "loomy/bundle/Core.h"
#include "loomy/sync/AttributeStorage.h"
#include "loomy/sync/RemoteNode.h"
#include "kestrel/Mutex.h"
#include "tamarack/Node.h"

#include <algorithm>
#include <map>

namespace Loomy {

namespace {

// Both are never destroyed: other threads may still add tasks or drop controllers during exit.
//
// s_controllersMutex (recursive) guards s_controllers and s_loopArmed, and also every span in
// which a weak reference to a global core is locked and released again, so that such a temporary
// reference is never the last one: global cores are released only by pruning or by the node's
// "destroyed" listener. Lock order: this mutex, then a core's task mutex, then the node's own
// locks. It is never held during updateCores() or while a task runs.
Kestrel::Mutex &s_controllersMutex = *new Kestrel::Mutex(true);
// The only strong references to global cores.
std::vector<std::shared_ptr<Core>> &s_controllers = *new std::vector<std::shared_ptr<Core>>;
// A pass is queued with invokeAfterUpdate and has not started yet. Keeps the loop single: a
// controller made on another thread while a pass that found the list empty is still running
// would otherwise queue a second, equally self-renewing, loop.
bool s_loopArmed = false;

void runQueuedPass();

// Under s_controllersMutex.
void armLoop()
{
    if (s_loopArmed)
        return;
    s_loopArmed = true;
    Tamarack::Node::invokeAfterUpdate(&runQueuedPass);
}

void runQueuedPass()
{
    {
        Kestrel::MutexLocker lock(s_controllersMutex);
        s_loopArmed = false;
    }
    updateAllControllers();
}

} // namespace

Connection::~Connection() = default;

std::shared_ptr<BundleController> BundleController::create(RemoteNode &node, const BundleControllerParams &params)
{
    return std::make_shared<BundleController>(node, params);
}

BundleController::BundleController(RemoteNode &node, const BundleControllerParams &params)
    : m_dropStaleChanges(params.dropStaleChanges), m_useGlobalUpdate(params.useGlobalUpdate)
{
    auto core = std::make_shared<Core>(params, node);
    m_weakCore = core;
    if (!m_useGlobalUpdate) {
        m_core = std::move(core);
        return;
    }
    Kestrel::MutexLocker lock(s_controllersMutex);
    s_controllers.push_back(core);
    armLoop();
    Core *address = core.get();
    std::weak_ptr<Core> weak = core;
    // Runs first thing in the node's destructor, on that thread, before any member of the node
    // goes: the core must be gone, or at least done with the node, by the time it returns.
    const long id = node.eventAddListener("destroyed", [address, weak] {
        Kestrel::MutexLocker lock(s_controllersMutex);
        const std::shared_ptr<Core> core = weak.lock();
        if (!core)
            return;
        // The node drops its listeners itself; a core that outlives this call in a frame pass's
        // list must not reach back into the node from its destructor.
        core->setDestroyedListenerId(-1);
        s_controllers.erase(std::remove_if(s_controllers.begin(), s_controllers.end(),
                                           [address](const std::shared_ptr<Core> &c) { return c.get() == address; }),
                            s_controllers.end());
        // `core` goes here, still under the mutex: normally the last reference.
    }, Tamarack::Node::DIRECT);
    core->setDestroyedListenerId(id);
}

BundleController::~BundleController()
{
    {
        Kestrel::MutexLocker lock(s_controllersMutex);
        if (const std::shared_ptr<Core> core = m_weakCore.lock())
            core->markDestroyed();
    }
    m_core.reset();
    m_weakCore.reset();
}

void BundleController::update()
{
    if (m_useGlobalUpdate)
        return;
    std::vector<std::shared_ptr<Core>> cores{m_core};
    updateCores(cores);
}

void BundleController::process(const std::vector<Bundle> &bundles)
{
    if (const std::shared_ptr<Core> core = lockCore()) {
        core->ensureIsInitialized();
        core->process(bundles);
    }
}

void BundleController::scheduleProcess(const std::vector<Bundle> &bundles)
{
    // Copies references only; the bytes stay shared and unchanged.
    addTask([bundles](Core &core) { core.process(bundles); });
}

void BundleController::addTask(const std::function<void(Core &)> &task)
{
    Kestrel::MutexLocker lock(s_controllersMutex);
    if (const std::shared_ptr<Core> core = m_weakCore.lock())
        core->addTask(task);
}

void BundleController::setEnabled(bool enabled)
{
    addTask([enabled](Core &core) { core.setEnabled(enabled); });
}

void BundleController::debugDump()
{
    addTask([](Core &core) {
        core.ensureIsInitialized();
        core.attributeStorage()->debugDump();
    });
}

void BundleController::ensureIsInitialized()
{
    if (const std::shared_ptr<Core> core = lockCore())
        core->ensureIsInitialized();
}

Kestrel::SymbolRegistry *BundleController::symbolRegistryRecv()
{
    const std::shared_ptr<Core> core = lockCore();
    if (!core)
        return nullptr;
    core->ensureIsInitialized();
    return &core->symbolRegistryRecv();
}

SessionStats BundleController::stats()
{
    const std::shared_ptr<Core> core = lockCore();
    return core ? core->stats() : SessionStats();
}

Kestrel::SymbolRegistry *BundleController::symbolRegistrySend()
{
    const std::shared_ptr<Core> core = lockCore();
    if (!core)
        return nullptr;
    core->ensureIsInitialized();
    return &core->node().symbols();
}

std::shared_ptr<Core> BundleController::lockCore() const
{
    return m_weakCore.lock();
}

void updateCores(std::vector<std::shared_ptr<Core>> &cores)
{
    // Keyed by node so that a node shared by several cores is updated once per phase, and a node
    // whose cores are all disabled not at all.
    std::map<RemoteNode *, std::vector<Core *>> nodes;
    for (const std::shared_ptr<Core> &core : cores) {
        core->ensureIsInitialized();
        core->runPendingTasks();
        // Serves what the first run queued, e.g. a batch whose processing scheduled more work.
        core->runPendingTasks();
        if (core->isEnabled())
            nodes[&core->node()].push_back(core.get());
    }
    for (const auto &entry : nodes)
        entry.first->update();
    for (const auto &entry : nodes)
        entry.first->update();
    for (const std::shared_ptr<Core> &entry : cores) {
        // A reference of its own for the call, whatever the senders do to the caller's list.
        const std::shared_ptr<Core> core = entry;
        // Read afresh: listeners run by the updates above may have switched it.
        if (core->isEnabled())
            core->sendUpdates();
    }
    for (const auto &entry : nodes)
        entry.first->update();
}

void updateAllControllers()
{
    std::vector<std::shared_ptr<Core>> cores;
    {
        Kestrel::MutexLocker lock(s_controllersMutex);
        // Pruned cores are destroyed right here, on the frame thread, under the mutex.
        s_controllers.erase(std::remove_if(s_controllers.begin(), s_controllers.end(),
                                           [](const std::shared_ptr<Core> &core) { return core->isDestroyed(); }),
                            s_controllers.end());
        cores = s_controllers;
    }
    // Re-arms after the pass also when a task or a sender throws: the exception goes on to the
    // host's update, which logs it, and the sessions still get the next frame. Runs before
    // `cores` is released, which may be the last release of a core that its node let go of
    // during the pass.
    struct Rearm
    {
        ~Rearm()
        {
            Kestrel::MutexLocker lock(s_controllersMutex);
            if (!s_controllers.empty())
                armLoop();
        }
    } rearm;
    updateCores(cores);
}

} // namespace Loomy
