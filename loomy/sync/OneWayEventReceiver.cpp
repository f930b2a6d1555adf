#include "loomy/sync/OneWayEventReceiver.h"

#include "loomy/bundle/BundleReader.h"
#include "kestrel/BinaryData.h"
#include "kestrel/SymbolRegistry.h"
#include "kestrel/Trace.h"

namespace Loomy {

OneWayEventReceiver::OneWayEventReceiver(Kestrel::SymbolRegistry &recvSymbols)
    : BundleReceiver(QByteArrayLiteral("Orchardlines.Loomy.OneWayEvent")), m_recvSymbols(recvSymbols)
{}

void OneWayEventReceiver::handleBundle(BundleReader &reader)
{
    const unsigned end = unsigned(reader.data().size());
    while (reader.position() < end) {
        const quint32 symbol = reader.read<quint32>();
        const quint32 length = reader.read<quint32>();
        // read() checks the payload against the bytes left before anything is copied.
        const char *bytes = reader.read(length);
        QByteArray payload(bytes, int(length));

        const QByteArray name = m_recvSymbols.name(symbol);
        if (name.isNull()) {
            Kestrel::Trace::warning("OneWayEventReceiver::handleBundle # Symbol %u not found", symbol);
            continue;
        }
        if (!m_handler)
            continue;

        // Linked, not copied again: the handler reads the payload in place and must copy what it
        // keeps beyond the call.
        Kestrel::BinaryData data;
        data.linkTo(payload.data(), int(length));
        data.setTotal(length);
        m_handler(name, data);
    }
}

} // namespace Loomy
