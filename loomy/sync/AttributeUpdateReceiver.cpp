#include "loomy/sync/AttributeUpdateReceiver.h"

#include "loomy/bundle/BundleReader.h"
#include "loomy/sync/AttributeStorage.h"
#include "loomy/sync/NodeChangeSender.h"
#include "kestrel/Trace.h"

namespace Loomy {

AttributeUpdateReceiver::AttributeUpdateReceiver(AttributeStorage &storage, NodeChangeSender &sender)
    : BundleReceiver(QByteArrayLiteral("Orchardlines.Loomy.AttributeUpdate")), m_storage(storage), m_sender(sender)
{}

void AttributeUpdateReceiver::handleBundle(BundleReader &reader)
{
    const unsigned end = unsigned(reader.data().size());
    if (reader.position() >= end)
        return;
    const quint32 ackBundleId = reader.ackBundleId();
    const quint32 bundleId = reader.bundleId();
    while (reader.position() < end) {
        const quint32 symbol = reader.read<quint32>();
        LoomySessionAttribute *record = m_storage.findByReadSymbol(symbol);
        if (!record) {
            // A value's length comes from the type its AttributeNew announced: without the
            // record nothing behind this point can be parsed.
            Kestrel::Trace::error("AttributeUpdateHandler::handleBundle # BUG: unknown attribute with symbol %d",
                                  int(symbol));
            return;
        }

        // Stale when the bundle doesn't acknowledge our last send of the attribute (plain
        // unsigned comparison): the peer wrote it before it had seen our value, and ours stands.
        // Both sides apply the rule, so two values that cross are both dropped.
        if (!m_dropStaleChanges || ackBundleId >= record->lastSentId) {
            const NodeChangeSender::IgnoreGuard echo(m_sender, {NodeWatcher::ATTRIBUTE_CHANGED, record->writeSymbol});
            record->deserializer(reader);
        } else if (record->readSize != 0) {
            LoomySessionAttribute::createDummyDeserializer(record->readSize)(reader);
        } else {
            // A dynamic value: its length word L, then a skip of size L. Kept deliberately as it
            // is: for L 0 that skip reads the following word as a length as well, so a dropped
            // empty value swallows the next word (NewAttributeReceiver's skip reads one word).
            const quint32 length = reader.read<quint32>();
            LoomySessionAttribute::createDummyDeserializer(length)(reader);
        }
        record->lastReceivedId = bundleId;
    }
}

} // namespace Loomy
