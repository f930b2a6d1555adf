#include "loomy/sync/AttributeRemoveReceiver.h"

#include "loomy/bundle/BundleReader.h"
#include "loomy/sync/AttributeStorage.h"
#include "loomy/sync/NodeChangeSender.h"
#include "loomy/sync/RemoteNode.h"
#include "kestrel/Trace.h"

namespace Loomy {

AttributeRemoveReceiver::AttributeRemoveReceiver(RemoteNode &node, AttributeStorage &storage, NodeChangeSender &sender)
    : BundleReceiver(QByteArrayLiteral("Orchardlines.Loomy.AttributeRemove")),
      m_node(node),
      m_storage(storage),
      m_sender(sender)
{}

void AttributeRemoveReceiver::handleBundle(BundleReader &reader)
{
    const unsigned end = unsigned(reader.data().size());
    while (reader.position() < end) {
        const quint32 symbol = reader.read<quint32>();
        LoomySessionAttribute *record = m_storage.findByReadSymbol(symbol);
        if (!record) {
            Kestrel::Trace::error("AttributeRemoveHandler::handleBundle # Failed to find attribute with symbol %u",
                                  symbol);
            continue;
        }
        Tamarack::Attribute *attribute = m_node.cache().find(record->writeSymbol);
        if (!attribute) {
            Kestrel::Trace::error("AttributeRemoveHandler::handleBundle # Attribute %u already removed", symbol);
            continue;
        }

        // The peer's names are checked where they come in; this guards the one deletion a peer
        // can cause against a record that names this node (the empty path) or what holds it.
        if (isNodeOrAbove(attribute, m_node)) {
            Kestrel::Trace::error("AttributeRemoveHandler::handleBundle # Refused to remove the synchronised node or "
                                  "a node above it (symbol %u)",
                                  symbol);
            continue;
        }

        // Only what was made for the peer goes; an attribute of our own stays in the tree.
        if (!record->localOrigin) {
            const NodeChangeSender::IgnoreGuard echo(m_sender, {NodeWatcher::ATTRIBUTE_REMOVED, record->writeSymbol});
            delete attribute;
        }

        // readSymbol, readSize and the index stay: a later AttributeNew of the symbol finds this
        // record again.
        record->readType = 0;
        record->lastReceivedId = 0;
        record->deserializer = LoomySessionAttribute::createDummyDeserializer(record->readSize);
        record->removedByPeer = true;
        record->lastSentId = 0;
    }
}

} // namespace Loomy
