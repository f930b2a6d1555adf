#include "loomy/sync/NewAttributeReceiver.h"

#include "loomy/bundle/BundleReader.h"
#include "loomy/sync/AttributeStorage.h"
#include "loomy/sync/NodeChangeSender.h"
#include "loomy/sync/RemoteNode.h"
#include "loomy/types/AliasDeserializer.h"
#include "loomy/types/TypeRegistry.h"
#include "kestrel/SymbolRegistry.h"
#include "kestrel/Trace.h"
#include "tamarack/AttributeAlias.h"
#include "tamarack/Node.h"

#include <memory>

namespace Loomy {

namespace {

// A value of `size` (0: dynamic, its length word first) is stepped over exactly as a dummy
// deserialiser of that size would do it.
void skipValue(BundleReaderCore &reader, unsigned int size)
{
    LoomySessionAttribute::createDummyDeserializer(size)(reader);
}

// A path from the peer that must not be used: an empty component (so also the empty path, and a
// leading, trailing or doubled "/"), or a step that, aliases followed, lands on the synchronised
// node or a node above it. Walks the tree as it stands; where it ends, whatever the path would
// make is new, below the node.
bool refusedPath(const QList<QByteArray> &pieces, Tamarack::Node &root)
{
    for (const QByteArray &piece : pieces)
        if (piece.isEmpty())
            return true;
    Tamarack::Attribute *current = &root;
    for (const QByteArray &piece : pieces) {
        current = followAliases(current->attribute(piece));
        if (!current)
            return false;
        if (isNodeOrAbove(current, root))
            return true;
    }
    return false;
}

} // namespace

NewAttributeReceiver::NewAttributeReceiver(RemoteNode &node, AttributeStorage &storage,
                                           Kestrel::SymbolRegistry &recvSymbols, TypeRegistry &types,
                                           NodeChangeSender &sender)
    : BundleReceiver(QByteArrayLiteral("Orchardlines.Loomy.AttributeNew")),
      m_node(node),
      m_storage(storage),
      m_recvSymbols(recvSymbols),
      m_types(types),
      m_sender(sender)
{}

void NewAttributeReceiver::handleBundle(BundleReader &reader)
{
    const unsigned end = unsigned(reader.data().size());
    for (unsigned index = 0; reader.position() < end; ++index) {
        const quint32 symbol = reader.read<quint32>();
        const quint32 typeId = reader.read<quint32>();
        const quint32 size = reader.read<quint32>();
        const quint32 flags = reader.read<quint32>();

        const QByteArray name = m_recvSymbols.name(symbol);
        if (name.isNull()) {
            // The text says "bundle", but only this record is lost.
            Kestrel::Trace::error("NewAttributeReceiver::handleBundle # Unknown symbol %d at message index %u. "
                                  "Will ignore the bundle",
                                  int(symbol), index);
            if (flags & 1u)
                skipValue(reader, size);
            continue;
        }

        QList<QByteArray> path = name.split('/');
        // Checked before the name reaches the storage: a refused path gets no record, so the
        // peer's later updates of the symbol are unknown, and its removals find nothing.
        if (refusedPath(path, m_node)) {
            Kestrel::Trace::error("NewAttributeReceiver::handleBundle # Refused path '%s' at message index %u: an "
                                  "empty component, or the synchronised node or a node above it",
                                  name.constData(), index);
            if (flags & 1u)
                skipValue(reader, size);
            continue;
        }

        LoomySessionAttribute *record = m_storage.findByReadSymbol(symbol);
        if (!record)
            record = m_storage.findOrCreate(name);
        m_storage.indexByReadSymbol(symbol, record);
        const bool firstAnnouncement = record->readSymbol == 0; // in this session

        record->readSymbol = symbol;
        record->readType = typeId;
        record->readSize = size;
        record->removedByPeer = false;
        // Until a value has been read into what the tree holds, the record steps over values: a
        // read below that throws leaves no deserialiser bound to an attribute that never reached
        // the tree, nor an empty one that would fail the peer's next update bundle.
        record->deserializer = LoomySessionAttribute::createDummyDeserializer(size);

        bool hasValue = (flags & 1u) != 0;
        // The peer wrote this value before it had seen our latest one: ours stands.
        if (hasValue && m_dropStaleChanges && reader.ackBundleId() < record->lastSentId) {
            skipValue(reader, size);
            hasValue = false;
            ++m_staleDropped;
        }

        const QByteArray attributeName = path.takeLast();
        Tamarack::Node *node = createOrFindNode(path);
        if (!node) {
            // Without createMissingAttributes a missing parent is expected and not worth a line.
            if (m_createMissingAttributes)
                Kestrel::Trace::error("NewAttributeReceiver::handleBundle # Failed to create target node at path %s",
                                      name.constData());
            if (hasValue)
                skipValue(reader, size);
            continue;
        }

        Tamarack::Attribute *attribute = node->attribute(attributeName);
        record->localOrigin = attribute != nullptr;
        if (attribute && m_authoritative && firstAnnouncement && (flags & 1u) != 0) {
            // This side's state wins at first contact: ours goes back as a change, in a bundle
            // that acknowledges this one, so that even a peer that drops stale values takes it.
            // Without a serialiser our own announcement hasn't left yet (a disabled session
            // doesn't update the tree before a batch); it carries our value, as none was taken.
            if (hasValue)
                skipValue(reader, size);
            hasValue = false;
            if (record->serializer)
                m_sender.queueChange(record->writeSymbol);
        }

        if (attribute) {
            record->deserializer = createDeserializer(*record, attribute, size);
            if (hasValue) {
                const NodeChangeSender::IgnoreGuard echo(m_sender, {NodeWatcher::ATTRIBUTE_CHANGED, record->writeSymbol});
                record->lastReceivedId = reader.bundleId();
                record->deserializer(reader);
                ++m_valuesApplied;
            }
        } else if (m_createMissingAttributes && ((flags & 1u) != 0 || !record->resendValue)) {
            // Not for an answer without a value to an announcement of ours that a local removal
            // has withdrawn since: that removal is on its way and takes the peer's copy, and
            // making the attribute here would bring back what this side removed.
            // Owned here until the tree takes it: a value that fails to read frees it.
            std::unique_ptr<Tamarack::Attribute> made(createAttribute(typeId));
            std::function<void(BundleReaderCore &)> deserializer;
            if (made) {
                deserializer = createDeserializer(*record, made.get(), size);
                if (hasValue) {
                    // Not in the tree yet, so nothing can echo.
                    record->lastReceivedId = reader.bundleId();
                    deserializer(reader);
                    made->setAsDefaults();
                    ++m_valuesApplied;
                }
            }
            // For an unknown type id a null attribute goes in (and is refused), and the announced
            // value is not stepped over: the next record is read from the value's first byte.
            // A refusal of a real one means another thread took the name since the lookup; it is
            // then freed, and the record keeps stepping over values.
            if (node->addAttribute(attributeName, made.get())) {
                made.release();
                record->deserializer = std::move(deserializer);
            }
            // The watcher reports the addition now; the sender answers it with this side's symbol.
            m_node.processPendingAdditions();
        } else if (hasValue) {
            skipValue(reader, size);
        }
    }
}

void NewAttributeReceiver::setCreateMissingAttributes(bool create)
{
    m_createMissingAttributes = create;
}

bool NewAttributeReceiver::createMissingAttributes() const
{
    return m_createMissingAttributes;
}

Tamarack::Node *NewAttributeReceiver::createOrFindNode(const QList<QByteArray> &path)
{
    Tamarack::Node *current = &m_node;
    for (const QByteArray &piece : path) {
        Tamarack::Attribute *child = current->attribute(piece);
        while (auto *alias = Tamarack::toAlias(child))
            child = alias->attribute();

        if (!child) {
            if (!m_createMissingAttributes)
                return nullptr;
            auto *made = new Tamarack::Node(current, piece);
            // The name can be taken by an alias whose chain ends in null: the node is refused
            // and would stay free, so it goes again and the path counts as not made.
            if (made->host() != current) {
                delete made;
                return nullptr;
            }
            current = made;
            continue;
        }

        current = Tamarack::toNode(child);
        if (!current) {
            Kestrel::Trace::error("NewAttributeReceiver::createOrFindAttribute # Found an existing attribute where a "
                                  "node was expected");
            return nullptr;
        }
    }
    return current;
}

Tamarack::Attribute *NewAttributeReceiver::createAttribute(unsigned int typeId)
{
    return m_types.createAttribute(typeId);
}

std::function<void(BundleReaderCore &)> NewAttributeReceiver::createDeserializer(LoomySessionAttribute &record,
                                                                                 Tamarack::Attribute *attribute,
                                                                                 unsigned int size)
{
    std::function<void(BundleReaderCore &)> deserializer = m_types.createDeserializer(record.readType, attribute);
    if (deserializer)
        return deserializer;
    // The attribute stays in step on everything else; its values are stepped over.
    const QByteArray name = m_recvSymbols.name(record.readSymbol);
    Kestrel::Trace::warning("NewAttributeReceiver::createDeserializer # Found an attribute that we don't know how "
                            "to deserialize at '%s'",
                            name.constData());
    return LoomySessionAttribute::createDummyDeserializer(size);
}

} // namespace Loomy
