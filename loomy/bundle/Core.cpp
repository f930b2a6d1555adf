#include "loomy/bundle/Core.h"

#include "loomy/bundle/BundleController.h"
#include "loomy/bundle/BundleDispatcher.h"
#include "loomy/bundle/BundleReader.h"
#include "loomy/bundle/SymbolRegistryHandler.h"
#include "loomy/sync/AttributeRemoveReceiver.h"
#include "loomy/sync/AttributeStorage.h"
#include "loomy/sync/AttributeUpdateReceiver.h"
#include "loomy/sync/NewAttributeReceiver.h"
#include "loomy/sync/NodeChangeSender.h"
#include "loomy/sync/OneWayEventReceiver.h"
#include "loomy/sync/RemoteNode.h"
#include "loomy/types/TypeRegistry.h"
#include "kestrel/BinaryData.h"
#include "kestrel/Mutex.h"
#include "kestrel/SymbolRegistry.h"
#include "kestrel/Trace.h"

#include <atomic>
#include <exception>

namespace Loomy {

namespace {

// Each session's default event handler keys its peer's sliced events by a source of its own:
// every peer numbers its slices from 0, so two peers of one node would otherwise fill, and
// corrupt, each other's records. Never 0, which stays free for handlers an application sets.
std::atomic<long> s_nextEventSource{1};

} // namespace

// The members are declared in the order that fixes teardown: the modules a core creates go before
// the connection and the flags, and the dispatcher, whose lists keep the senders and receivers
// alive, goes after all of them.
class Core::D
{
public:
    D(const BundleControllerParams &params, RemoteNode &remoteNode)
        : parameters(std::make_unique<BundleControllerParams>(params)), node(&remoteNode)
    {}

    // Frame thread only, up to `connection`.
    std::unique_ptr<BundleControllerParams> parameters;  // non-null until initialised
    RemoteNode *node;                                    // not owned
    BundleDispatcher dispatcher;
    Kestrel::SymbolRegistry symbolRegistryRecv;          // the peer's numbers
    TypeRegistry types;
    // Made by initialisation. The sender and the receivers live on in the dispatcher's lists, so
    // they outlast the storage and the type registry they refer to: their destructors use
    // neither. The sender's tree listeners go with it, so the tree must not change on another
    // thread while a core is released.
    std::shared_ptr<AttributeStorage> storage;
    std::shared_ptr<NodeChangeSender> sender;
    std::shared_ptr<NewAttributeReceiver> newAttributeReceiver;
    std::shared_ptr<AttributeUpdateReceiver> attributeUpdateReceiver;
    std::shared_ptr<AttributeRemoveReceiver> attributeRemoveReceiver;
    std::shared_ptr<OneWayEventReceiver> oneWayEventReceiver;
    std::shared_ptr<Connection> connection;              // set by initialisation, never changed

    std::atomic<bool> enabled{false};                    // written on the frame thread only
    // Lock order: s_controllersMutex (BundleController.cpp), then this one. Never held while a
    // task runs.
    Kestrel::Mutex taskMutex;
    std::vector<std::function<void(Core &)>> pendingTasks;  // guarded by taskMutex
    std::atomic<bool> destroyed{false};                  // written from any thread
    // Written by the controller's constructor and by the "destroyed" listener, both under
    // s_controllersMutex; read by the destructor after the last reference went.
    long destroyedListenerId = -1;
};

Core::Core(const BundleControllerParams &params, RemoteNode &node)
    : m_d(std::make_unique<D>(params, node))
{}

Core::~Core()
{
    if (m_d->destroyedListenerId != -1)
        m_d->node->eventRemoveListener(m_d->destroyedListenerId);
}

void Core::ensureIsInitialized()
{
    if (!m_d->parameters)
        return;
    const BundleControllerParams &params = *m_d->parameters;
    RemoteNode &node = *m_d->node;
    m_d->storage = std::make_shared<AttributeStorage>(node);
    m_d->enabled.store(params.enabled);
    m_d->dispatcher.preloadReceiver(std::make_shared<SymbolRegistryReceiver>(m_d->symbolRegistryRecv, &node.symbols()));
    // Registering announces the sender's message types: "load-module" records for the peer.
    m_d->sender = std::make_shared<NodeChangeSender>(node, *m_d->storage, m_d->types);
    m_d->dispatcher.registerSender(m_d->sender);
    m_d->attributeRemoveReceiver = std::make_shared<AttributeRemoveReceiver>(node, *m_d->storage, *m_d->sender);
    m_d->dispatcher.preloadReceiver(m_d->attributeRemoveReceiver);
    m_d->newAttributeReceiver = std::make_shared<NewAttributeReceiver>(node, *m_d->storage, m_d->symbolRegistryRecv,
                                                                       m_d->types, *m_d->sender);
    m_d->dispatcher.preloadReceiver(m_d->newAttributeReceiver);
    m_d->attributeUpdateReceiver = std::make_shared<AttributeUpdateReceiver>(*m_d->storage, *m_d->sender);
    m_d->dispatcher.preloadReceiver(m_d->attributeUpdateReceiver);
    m_d->oneWayEventReceiver = std::make_shared<OneWayEventReceiver>(m_d->symbolRegistryRecv);
    m_d->dispatcher.preloadReceiver(m_d->oneWayEventReceiver);
    m_d->connection = params.connection;
    m_d->newAttributeReceiver->m_dropStaleChanges = params.dropStaleChanges;
    m_d->attributeUpdateReceiver->m_dropStaleChanges = params.dropStaleChanges;
    m_d->newAttributeReceiver->m_authoritative = params.authoritative;
    if (params.eventHandler) {
        m_d->oneWayEventReceiver->m_handler = params.eventHandler;
    } else {
        // The node outlives the core: a global core goes at the node's "destroyed" event.
        RemoteNode *target = &node;
        const long source = s_nextEventSource.fetch_add(1);
        m_d->oneWayEventReceiver->m_handler = [target, source](const QByteArray &name, Kestrel::BinaryData &data) {
            target->handleRemoteEvent(name, data, source);
        };
    }
    m_d->newAttributeReceiver->setCreateMissingAttributes(params.createMissingAttributes);
    m_d->parameters.reset();
    // From here on this function is a no-op, also for a listener that the update calls back into.
    node.update();
    m_d->sender->sendInitialValues();
}

void Core::runPendingTasks()
{
    std::vector<std::function<void(Core &)>> tasks;
    {
        Kestrel::MutexLocker lock(m_d->taskMutex);
        tasks.swap(m_d->pendingTasks);
    }
    for (const auto &task : tasks) {
        if (task)
            task(*this);
    }
}

void Core::addTask(const std::function<void(Core &)> &task)
{
    Kestrel::MutexLocker lock(m_d->taskMutex);
    m_d->pendingTasks.push_back(task);
}

void Core::process(const std::vector<Bundle> &bundles)
{
    ensureIsInitialized();
    if (bundles.empty())
        return;
    // What changed here so far leaves ahead of the peer's batch, whose bundles were stamped
    // without knowing of it.
    updateAndSend();
    for (const Bundle &bundle : bundles) {
        BundleReader reader(bundle);
        try {
            m_d->dispatcher.dispatchBundle(reader);
        } catch (const std::exception &e) {
            // A bundle that failed half-way keeps what it applied; it is not acknowledged.
            Kestrel::Trace::warning("BundleController::process # Failed to process bundle of type type %d: %s",
                                    int(bundle.messageType()), e.what());
        }
    }
}

void Core::sendUpdates()
{
    const std::vector<Bundle> bundles = m_d->dispatcher.collectUpdates();
    if (const std::shared_ptr<Connection> connection = m_d->connection)
        connection->send(bundles);
}

void Core::updateAndSend()
{
    if (!isEnabled())
        return;
    m_d->node->update();
    // A listener run by the update may have disabled the session.
    if (!isEnabled())
        return;
    sendUpdates();
}

RemoteNode &Core::node() const
{
    return *m_d->node;
}

SessionStats Core::stats() const
{
    SessionStats stats;
    if (!m_d->sender)
        return stats;
    stats.changesSent = m_d->sender->changesSent();
    stats.changesReceived = m_d->newAttributeReceiver->m_valuesApplied + m_d->attributeUpdateReceiver->m_valuesApplied
                            + m_d->attributeRemoveReceiver->m_removalsApplied;
    stats.staleDropped = m_d->newAttributeReceiver->m_staleDropped + m_d->attributeUpdateReceiver->m_staleDropped;
    return stats;
}

AttributeStorage *Core::attributeStorage() const
{
    return m_d->storage.get();
}

BundleDispatcher &Core::dispatcher()
{
    return m_d->dispatcher;
}

Kestrel::SymbolRegistry &Core::symbolRegistryRecv()
{
    return m_d->symbolRegistryRecv;
}

bool Core::isEnabled() const
{
    return m_d->enabled.load();
}

void Core::setEnabled(bool enabled)
{
    m_d->enabled.store(enabled);
}

bool Core::isDestroyed() const
{
    return m_d->destroyed.load();
}

void Core::markDestroyed()
{
    m_d->destroyed.store(true);
}

void Core::setDestroyedListenerId(long id)
{
    m_d->destroyedListenerId = id;
}

} // namespace Loomy
