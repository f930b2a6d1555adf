#include "loomy/bundle/HandshakeReceiver.h"

#include "loomy/bundle/BundleDispatcher.h"
#include "loomy/bundle/BundleReader.h"
#include "kestrel/Trace.h"

#include <QStringList>

#include <stdexcept>

namespace Loomy {

HandshakeReceiver::HandshakeReceiver(BundleDispatcher &dispatcher)
    : BundleReceiver("Orchardlines.Loomy.Handshake")
    , m_dispatcher(dispatcher)
{}

void HandshakeReceiver::handleBundle(BundleReader &reader)
{
    while (reader.position() < unsigned(reader.data().size())) {
        const quint32 recordSize = reader.read<quint32>();
        const unsigned recordStart = reader.position();
        const QString command = readString(reader);
        // Known commands are read by their fields; only an unknown one needs the record size.
        if (command == QLatin1String("info")) {
            readMap(reader);
        } else if (command == QLatin1String("load-module")) {
            const quint32 messageType = reader.read<quint32>();
            const QString module = readString(reader);
            m_dispatcher.loadModule(messageType, module, readMap(reader));
        } else if (command == QLatin1String("error")) {
            const QString failedCommand = readString(reader);
            const QString module = readString(reader);
            const QMap<QString, QString> info = readMap(reader);
            QStringList entries;
            for (auto it = info.cbegin(); it != info.cend(); ++it)
                entries << QStringLiteral("%1: %2").arg(it.key(), it.value());
            Kestrel::Trace::error("HandshakeReceiver::handleBundle # error, command: %s, module: %s, additional info: %s",
                                  qUtf8Printable(failedCommand), qUtf8Printable(module),
                                  qUtf8Printable(entries.join(QStringLiteral(", "))));
        } else if (command == QLatin1String("ok")) {
            readString(reader);
            readString(reader);
            readMap(reader);
        } else {
            Kestrel::Trace::warning("HandshakeReceiver::handleBundle # Unknown command '%s'",
                                    qUtf8Printable(command));
            const unsigned consumed = reader.position() - recordStart;
            if (consumed > recordSize)
                throw std::out_of_range("HandshakeReceiver::handleBundle # Corrupted message");
            reader.read(recordSize - consumed);
        }
    }
}

} // namespace Loomy
