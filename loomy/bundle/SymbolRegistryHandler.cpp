#include "loomy/bundle/SymbolRegistryHandler.h"

#include "loomy/bundle/BundleReader.h"
#include "kestrel/SymbolRegistry.h"

#include <QByteArray>

namespace Loomy {

SymbolRegistryReceiver::SymbolRegistryReceiver(Kestrel::SymbolRegistry &registry)
    : BundleReceiver(BundleSender::symbolMessageName), m_registry(registry)
{}

void SymbolRegistryReceiver::handleBundle(BundleReader &reader)
{
    const unsigned size = unsigned(reader.data().size());
    while (reader.position() < size) {
        const quint32 symbol = reader.read<quint32>();
        const quint32 length = reader.read<quint32>();
        // read() checks the name against the bytes left before anything is copied.
        const char *name = reader.read(length);
        const QByteArray bytes(name, int(length));
        m_registry.define(bytes, bytes, symbol);
    }
}

} // namespace Loomy
