#include "loomy/sync/NodeChangeSender.h"

#include "loomy/bundle/BundleDispatcher.h"
#include "loomy/bundle/BundleWriter.h"
#include "loomy/sync/AttributeChangeCompressor.h"
#include "loomy/sync/AttributeStorage.h"
#include "loomy/sync/NodeSerialization.h"
#include "loomy/sync/RemoteNode.h"
#include "loomy/types/TypeRegistry.h"

#include "kestrel/Mutex.h"
#include "kestrel/ReadWriteLocker.h"
#include "kestrel/SymbolRegistry.h"
#include "kestrel/SymbolTable.h"
#include "kestrel/Trace.h"

#include <QByteArray>

#include <atomic>
#include <set>
#include <vector>

namespace Loomy {

namespace {

using Event = NodeWatcher::Event;

const char s_missingRecord[] = "NodeChangeSender::sendChanges # Missing LoomySessionAttribute when sending an attribute event. Will ignore";
const char s_unknownSymbol[] = "NodeChangeSender # found an AttributeChange that points to an unknown symbol";
const char s_missingAttribute[] = "NodeChangeSender # Trying to send changes for a missing attribute with symbol %u. Ignoring";

QByteArray symbolName(Kestrel::SymbolRegistry &symbols, unsigned int symbol)
{
    Kestrel::ReadLocker locker(&symbols.lock());
    return symbols.nameUnlocked(symbol);
}

unsigned int headerBundleId(const BundleWriter &writer)
{
    return Bundle::headerWord(writer.data(), 8);
}

// A symbol record and an event record share their layout: a number, then a length-prefixed block.
void writeBlock(BundleWriter &writer, unsigned int symbol, const char *bytes, unsigned int length)
{
    writer.write<quint32>(symbol);
    writer.write<quint32>(length);
    writer.writeData(bytes, length);
}

bool hasBody(const Bundle &bundle)
{
    return unsigned(bundle.size()) > Bundle::headerSize;
}

void stampAndAdd(Bundle &bundle, unsigned int messageType, BundleOutput &output)
{
    bundle.stamp(messageType, output.nextBundleId(), output.ackBundleId());
    output.addBundle(bundle);
}

} // namespace

class NodeChangeSender::D
{
public:
    D(NodeChangeSender &q, RemoteNode &node, AttributeStorage &storage, TypeRegistry &types)
        : q(q), m_node(node), m_storage(storage), m_types(types)
    {}

    void onAttributeChange(const Event &event);
    void onEvent(const RemoteNode::Event &event);
    void collapseChanges();
    std::vector<RemoteNode::Event> getEvents();
    void sendSymbols(const std::vector<ChangeData> &changes, const std::vector<LoomySessionAttribute *> &records,
                     const std::vector<RemoteNode::Event> &events, BundleOutput &output);
    void sendChanges(const std::vector<ChangeData> &changes, const std::vector<LoomySessionAttribute *> &records,
                     BundleOutput &output);
    void sendEvents(const std::vector<RemoteNode::Event> &events, BundleOutput &output);
    void sendAdded(LoomySessionAttribute &record, bool sendValue, BundleWriter &writer);
    void sendChanged(LoomySessionAttribute &record, BundleWriter &writer);
    void sendRemoved(LoomySessionAttribute &record, BundleWriter &writer);
    unsigned int messageType(int type) const;
    Tamarack::Attribute *findAttribute(const LoomySessionAttribute &record) const;

    NodeChangeSender &q;
    RemoteNode &m_node;
    AttributeStorage &m_storage;
    TypeRegistry &m_types;
    AttributeChangeCompressor m_compressor;           // frame thread only

    // Lock order: this, then the storage's lock, then the node's symbol registry.
    Kestrel::Mutex m_pendingMutex;
    std::vector<Event> m_pendingChanges;             // guarded by m_pendingMutex
    std::vector<ChangeData> m_changes;               // frame thread only

    Kestrel::Mutex m_eventMutex;                     // a leaf
    std::vector<RemoteNode::Event> m_events;         // guarded by m_eventMutex

    unsigned long long m_changesSent = 0;            // frame thread only
    unsigned int m_newMessageType = 0;               // set by initialize, then read only
    unsigned int m_updateMessageType = 0;
    unsigned int m_removeMessageType = 0;
    unsigned int m_eventMessageType = 0;

    Kestrel::SymbolTable<char> m_sentSymbols;        // frame thread only; grows only
    // Filled and emptied on the frame thread, but consulted by every change on the thread that
    // makes it, so it has a leaf lock of its own. m_ignoredCount lets changes skip that lock
    // while nothing is ignored; the frame thread always sees its own entries.
    Kestrel::Mutex m_ignoredMutex;
    std::set<Event> m_ignored;                       // guarded by m_ignoredMutex
    std::atomic<int> m_ignoredCount{0};
    bool m_initializedSent = false;                  // frame thread only

    // -1 when gone; the node's deletion listener clears all three.
    long m_changeListenerId = -1;
    long m_eventListenerId = -1;
    long m_deleteListenerId = -1;
};

void NodeChangeSender::D::onAttributeChange(const Event &event)
{
    if (q.stopIgnoring(event))
        return; // applied by a receiver: not to be echoed
    if (event.type == NodeWatcher::NODE_ADDED || event.type == NodeWatcher::NODE_REMOVED)
        return;
    if ((m_node.syncFlags().getFlags(event.symbol) & SyncFlags::SYNC_DEFAULT) == 0)
        return;
    if (!m_node.cache().find(event.symbol)) {
        Kestrel::Trace::error("NodeChangeSender::onAttributeChange # Got an attribute change event but can't find the actual attribute");
        return;
    }

    Kestrel::MutexLocker locker(m_pendingMutex);
    LoomySessionAttribute *record = m_storage.findByWriteSymbol(event.symbol);
    if (event.type == NodeWatcher::ATTRIBUTE_ADDED && !record)
        record = m_storage.createForSymbol(event.symbol);
    if (!record) {
        // A change or removal whose addition was filtered out by the sync flags at the time.
        Kestrel::Trace::error("NodeChangeSender::onAttributeChange # Could not find a session attribute for the given change");
        return;
    }
    if (event.type == NodeWatcher::ATTRIBUTE_REMOVED) {
        // Both closures point into the attribute, which is going away.
        record->deserializer = LoomySessionAttribute::createDummyDeserializer(record->readSize);
        record->serializer = nullptr;
        record->lastReceivedId = 0;
        record->resendValue = true;
    }
    if (event.type != NodeWatcher::ATTRIBUTE_ADDED && record->removedByPeer)
        return; // the peer no longer has it
    m_pendingChanges.push_back(event);
}

void NodeChangeSender::D::onEvent(const RemoteNode::Event &event)
{
    Kestrel::MutexLocker locker(m_eventMutex);
    m_events.push_back(event);
}

void NodeChangeSender::D::collapseChanges()
{
    std::vector<Event> local;
    {
        Kestrel::MutexLocker locker(m_pendingMutex);
        local.swap(m_pendingChanges);
    }
    m_compressor.compress(local, m_changes);
}

std::vector<RemoteNode::Event> NodeChangeSender::D::getEvents()
{
    std::vector<RemoteNode::Event> events;
    {
        Kestrel::MutexLocker locker(m_eventMutex);
        events.swap(m_events);
    }
    if (!m_initializedSent) {
        m_initializedSent = true;
        events.insert(events.begin(), RemoteNode::Event{m_node.symbols().lookupOrDefine("initialized"),
                                                        Kestrel::BinaryData()});
    }
    return events;
}

void NodeChangeSender::D::sendSymbols(const std::vector<ChangeData> &changes,
                                      const std::vector<LoomySessionAttribute *> &records,
                                      const std::vector<RemoteNode::Event> &events, BundleOutput &output)
{
    Bundle bundle;
    BundleWriter writer(bundle);
    Kestrel::SymbolRegistry &symbols = m_node.symbols();
    auto tell = [&](unsigned int symbol) {
        const char *sent = m_sentSymbols.find(symbol);
        if (sent && *sent)
            return;
        const QByteArray name = symbolName(symbols, symbol);
        if (name.isEmpty()) {
            Kestrel::Trace::error("%s", s_unknownSymbol);
            return;
        }
        writeBlock(writer, symbol, name.constData(), unsigned(name.size()));
        m_sentSymbols.make(symbol) = 1;
    };
    for (std::size_t i = 0; i < changes.size(); ++i) {
        if (!records[i]) {
            Kestrel::Trace::error("%s", s_missingRecord);
            continue;
        }
        tell(changes[i].symbol);
    }
    for (const RemoteNode::Event &event : events)
        tell(event.symbol);
    if (hasBody(bundle))
        stampAndAdd(bundle, q.symbolMessageType(), output);
}

// One bundle per run of one kind. The header is stamped when a run starts, since the record
// writers take the bundle id from it, and again when the run is added, for its body size.
void NodeChangeSender::D::sendChanges(const std::vector<ChangeData> &changes,
                                      const std::vector<LoomySessionAttribute *> &records, BundleOutput &output)
{
    Bundle bundle;
    BundleWriter writer(bundle);
    int lastType = -1;
    for (std::size_t i = 0; i < changes.size(); ++i) {
        const ChangeData &change = changes[i];
        LoomySessionAttribute *record = records[i];
        if (!record) {
            Kestrel::Trace::error("%s", s_missingRecord);
            continue;
        }
        const int type = int(change.type);
        if (type > NodeWatcher::ATTRIBUTE_CHANGED) {
            Kestrel::Trace::error("NodeChangeSender # found a change with an unknown type: %d", type);
            continue;
        }
        if (type != lastType) {
            if (lastType != -1 && hasBody(bundle))
                stampAndAdd(bundle, messageType(lastType), output);
            bundle.data().resize(int(Bundle::headerSize));
            bundle.stamp(messageType(type), output.nextBundleId(), output.ackBundleId());
            lastType = type;
        }
        ++m_changesSent;
        switch (change.type) {
        case NodeWatcher::ATTRIBUTE_ADDED:
            sendAdded(*record, change.sendValue, writer);
            break;
        case NodeWatcher::ATTRIBUTE_REMOVED:
            sendRemoved(*record, writer);
            break;
        default:
            sendChanged(*record, writer);
            break;
        }
    }
    if (lastType != -1 && hasBody(bundle))
        stampAndAdd(bundle, messageType(lastType), output);
}

void NodeChangeSender::D::sendEvents(const std::vector<RemoteNode::Event> &events, BundleOutput &output)
{
    if (events.empty())
        return;
    Bundle bundle;
    BundleWriter writer(bundle);
    for (const RemoteNode::Event &event : events)
        writeBlock(writer, event.symbol, event.data.data(), event.data.total());
    stampAndAdd(bundle, m_eventMessageType, output);
}

void NodeChangeSender::D::sendAdded(LoomySessionAttribute &record, bool sendValue, BundleWriter &writer)
{
    Tamarack::Attribute *attribute = findAttribute(record);
    if (!attribute)
        return;
    if (record.resendValue && record.readType != 0) {
        // The removal left a dummy in place of the peer's reader; the attribute is back.
        record.deserializer = m_types.createDeserializer(record.readType, attribute);
        if (!record.deserializer) {
            Kestrel::Trace::error("NodeChangeSender::sendAdded # Tried to recreate a deserializer but failed. Will set it to null deserializer");
            record.deserializer = LoomySessionAttribute::createDummyDeserializer(record.readSize);
        }
    }
    unsigned int typeId = 0;
    unsigned int size = 0;
    record.serializer = m_types.createSerializer(attribute, typeId, size);
    record.writeType = typeId;
    record.writeSize = size;
    if (!record.serializer) {
        Kestrel::Trace::error("NodeChangeSender::sendAdded # Found an attribute that we can't serialize at '%s'. Ignoring",
                              symbolName(m_node.symbols(), record.writeSymbol).constData());
        return;
    }
    writer.write<quint32>(record.writeSymbol);
    writer.write<quint32>(typeId);
    writer.write<quint32>(size);
    // Our own attribute of which the peer has told us nothing: ours is the value. Otherwise the
    // value goes only if it changed since, or the attribute came back after a removal.
    const bool hasValue = (record.localOrigin && record.lastReceivedId == 0) || sendValue || record.resendValue;
    writer.write<quint32>(hasValue ? 1u : 0u);
    // Only a value sent makes the peer's crossing values stale. An answer without one only tells
    // the peer our symbol: marking it would drop the peer's next change, written before the
    // answer arrived, although no value of ours crossed it.
    if (hasValue) {
        record.serializer(writer);
        record.lastSentId = headerBundleId(writer);
    }
    record.resendValue = false;
}

void NodeChangeSender::D::sendChanged(LoomySessionAttribute &record, BundleWriter &writer)
{
    if (!findAttribute(record))
        return;
    if (!record.serializer) {
        Kestrel::Trace::error("NodeChangeSender::sendChanged # Found an attribute that we can't serialize at '%s'. Ignoring",
                              symbolName(m_node.symbols(), record.writeSymbol).constData());
        return;
    }
    record.lastSentId = headerBundleId(writer);
    writer.write<quint32>(record.writeSymbol);
    record.serializer(writer); // the value now, not the one at the time of the change
}

// No attribute lookup: it is gone by now.
void NodeChangeSender::D::sendRemoved(LoomySessionAttribute &record, BundleWriter &writer)
{
    writer.write<quint32>(record.writeSymbol);
    record.lastSentId = 0;
}

unsigned int NodeChangeSender::D::messageType(int type) const
{
    switch (type) {
    case NodeWatcher::ATTRIBUTE_ADDED:
        return m_newMessageType;
    case NodeWatcher::ATTRIBUTE_REMOVED:
        return m_removeMessageType;
    case NodeWatcher::ATTRIBUTE_CHANGED:
        return m_updateMessageType;
    default:
        Kestrel::Trace::error("NodeChangeSender::messageType # Found an invalid event type %d", type);
        return 0xFFFFFFFFu;
    }
}

Tamarack::Attribute *NodeChangeSender::D::findAttribute(const LoomySessionAttribute &record) const
{
    Tamarack::Attribute *attribute = m_node.cache().find(record.writeSymbol);
    if (!attribute)
        Kestrel::Trace::error(s_missingAttribute, record.writeSymbol);
    return attribute;
}

NodeChangeSender::NodeChangeSender(RemoteNode &node, AttributeStorage &storage, TypeRegistry &types)
    : m_d(new D(*this, node, storage, types))
{
    D *d = m_d.get();
    d->m_changeListenerId = node.addAttributeChangeListener([d](const Event &event) { d->onAttributeChange(event); });
    d->m_eventListenerId = node.addEventListener([d](const RemoteNode::Event &event) { d->onEvent(event); });
    // The node may die first (it holds no reference to the session): then there is nothing left
    // to unregister from.
    d->m_deleteListenerId = node.addListener(
        [d] {
            d->m_changeListenerId = -1;
            d->m_eventListenerId = -1;
            d->m_deleteListenerId = -1;
        },
        Tamarack::Attribute::DELETE_ROLE);
}

NodeChangeSender::~NodeChangeSender()
{
    if (m_d->m_changeListenerId >= 0)
        m_d->m_node.removeAttributeChangeListener(m_d->m_changeListenerId);
    if (m_d->m_eventListenerId >= 0)
        m_d->m_node.removeEventLIstener(m_d->m_eventListenerId);
    if (m_d->m_deleteListenerId >= 0)
        m_d->m_node.removeListener(m_d->m_deleteListenerId);
}

void NodeChangeSender::writeUpdates(BundleOutput &output)
{
    m_d->collapseChanges();
    // The record of each change, null for none, looked up once for both passes: records stay as
    // long as the storage, and a symbol's record never changes once it has one. Not kept beyond
    // the update: after the initial state it would hold a pointer per attribute.
    std::vector<LoomySessionAttribute *> records;
    records.reserve(m_d->m_changes.size());
    for (const ChangeData &change : m_d->m_changes)
        records.push_back(m_d->m_storage.findByWriteSymbol(change.symbol));
    const std::vector<RemoteNode::Event> events = m_d->getEvents();
    m_d->sendSymbols(m_d->m_changes, records, events, output);
    m_d->sendChanges(m_d->m_changes, records, output);
    m_d->sendEvents(events, output);
}

void NodeChangeSender::initialize(BundleDispatcher &dispatcher)
{
    m_d->m_newMessageType = dispatcher.lookupOrRegisterMessageType("Orchardlines.Loomy.AttributeNew");
    m_d->m_updateMessageType = dispatcher.lookupOrRegisterMessageType("Orchardlines.Loomy.AttributeUpdate");
    m_d->m_removeMessageType = dispatcher.lookupOrRegisterMessageType("Orchardlines.Loomy.AttributeRemove");
    m_d->m_eventMessageType = dispatcher.lookupOrRegisterMessageType("Orchardlines.Loomy.OneWayEvent");
}

void NodeChangeSender::sendInitialValues()
{
    // Attributes added to the tree before the session's first pass reach this sender twice: once
    // from the watcher's queue, flushed by the node update that precedes this walk, and once from
    // the walk. Announcing them twice would make the peer take its copy, made by the first
    // announcement, for one of its own (and so never remove it), so the walk skips them.
    Kestrel::SymbolTable<char> queued;
    {
        Kestrel::MutexLocker locker(m_d->m_pendingMutex);
        for (const Event &event : m_d->m_pendingChanges)
            if (event.type == NodeWatcher::ATTRIBUTE_ADDED)
                queued.make(event.symbol) = 1;
    }
    Kestrel::SymbolRegistry &symbols = m_d->m_node.symbols();
    walkAttributesWithPath(m_d->m_node, [&](Tamarack::Attribute &, const QByteArray &path) {
        unsigned int symbol;
        {
            Kestrel::ReadLocker locker(&symbols.lock());
            symbol = symbols.lookupUnlocked(path); // 0 if absent: never defined here
        }
        const char *isQueued = queued.find(symbol);
        if (!isQueued || !*isQueued)
            m_d->onAttributeChange(Event{NodeWatcher::ATTRIBUTE_ADDED, symbol});
    });
}

void NodeChangeSender::ignoreOne(const NodeWatcher::Event &event)
{
    Kestrel::MutexLocker locker(m_d->m_ignoredMutex);
    if (!m_d->m_ignored.insert(event).second) {
        locker.unlock();
        Kestrel::Trace::error("NodeChangeSender::ignoreOne # Called for an already ignored symbol");
        return;
    }
    ++m_d->m_ignoredCount;
}

bool NodeChangeSender::stopIgnoring(const NodeWatcher::Event &event)
{
    if (m_d->m_ignoredCount.load() == 0)
        return false;
    Kestrel::MutexLocker locker(m_d->m_ignoredMutex);
    if (m_d->m_ignored.erase(event) == 0)
        return false;
    --m_d->m_ignoredCount;
    return true;
}

void NodeChangeSender::queueChange(unsigned int symbol)
{
    m_d->onAttributeChange(Event{NodeWatcher::ATTRIBUTE_CHANGED, symbol});
}

unsigned long long NodeChangeSender::changesSent() const
{
    return m_d->m_changesSent;
}

} // namespace Loomy
