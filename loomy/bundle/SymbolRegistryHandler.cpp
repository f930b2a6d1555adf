#include "loomy/bundle/SymbolRegistryHandler.h"

#include "loomy/bundle/BundleReader.h"
#include "kestrel/SymbolRegistry.h"

#include <QByteArray>

namespace Loomy {

SymbolRegistryReceiver::SymbolRegistryReceiver(Kestrel::SymbolRegistry &registry,
                                               const Kestrel::SymbolRegistry *local)
    : BundleReceiver(BundleSender::symbolMessageName), m_registry(registry), m_local(local)
{}

void SymbolRegistryReceiver::handleBundle(BundleReader &reader)
{
    const unsigned size = unsigned(reader.data().size());
    while (reader.position() < size) {
        const quint32 symbol = reader.read<quint32>();
        const quint32 length = reader.read<quint32>();
        // read() checks the name against the bytes left before anything is copied.
        const char *name = reader.read(length);
        // Most names the peer announces are ours too (both trees hold the same paths): one
        // string for both registries instead of a copy in each.
        QByteArray bytes = QByteArray::fromRawData(name, int(length));
        const QByteArray shared = m_local ? m_local->sharedName(bytes) : QByteArray();
        bytes = shared.isNull() ? QByteArray(name, int(length)) : shared;
        m_registry.define(bytes, bytes, symbol);
    }
}

} // namespace Loomy
