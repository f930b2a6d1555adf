#include "loomy/bundle/HandshakeSender.h"

#include "loomy/bundle/Bundle.h"
#include "loomy/bundle/BundleWriter.h"

#include <QMap>

namespace Loomy {

namespace {

// Maps are written inline, in the ascending key order of QMap.
void writeMap(BundleWriter &writer, const QMap<QString, QString> &map)
{
    writer.write(quint32(map.size()));
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
        writeString(writer, it.key());
        writeString(writer, it.value());
    }
}

} // namespace

class HandshakeSender::D
{
public:
    D() : writer(pending) {}

    Bundle pending;         // header bytes plus the records written since the last collection
    BundleWriter writer;    // on `pending`, which therefore must not move
    unsigned nextMessageType = 1;
};

HandshakeSender::HandshakeSender()
    : m_d(std::make_unique<D>())
{
    SenderGuard record(m_d->writer);
    writeString(m_d->writer, QStringLiteral("info"));
    writeMap(m_d->writer, {{QStringLiteral("application"), QStringLiteral("Loomy")},
                           {QStringLiteral("version"), QStringLiteral("2.14.4")}});
}

HandshakeSender::~HandshakeSender() = default;

unsigned HandshakeSender::registerMessageType(const QByteArray &name)
{
    const unsigned messageType = m_d->nextMessageType;
    {
        SenderGuard record(m_d->writer);
        writeString(m_d->writer, QStringLiteral("load-module"));
        m_d->writer.write(quint32(messageType));
        writeString(m_d->writer, QString::fromUtf8(name));
        writeMap(m_d->writer, {});
    }
    ++m_d->nextMessageType;
    return messageType;
}

void HandshakeSender::sendOk(const QString &command, const QString &module, const QString &description)
{
    sendOkError(QStringLiteral("ok"), m_d->writer, command, module, description);
}

void HandshakeSender::sendError(const QString &command, const QString &module, const QString &description)
{
    sendOkError(QStringLiteral("error"), m_d->writer, command, module, description);
}

void HandshakeSender::writeUpdates(BundleOutput &output)
{
    if (m_d->pending.size() == int(Bundle::headerSize))
        return;
    m_d->pending.stamp(0, output.nextBundleId(), output.ackBundleId());
    output.addBundle(m_d->pending);
    // Detaches from the output's copy, which keeps the records.
    m_d->pending.data().resize(int(Bundle::headerSize));
}

void sendOkError(const QString &status, BundleWriter &writer, const QString &command,
                 const QString &module, const QString &description)
{
    SenderGuard record(writer);
    writeString(writer, status);
    writeString(writer, command);
    writeString(writer, module);
    writeMap(writer, {{QStringLiteral("description"), description}});
}

} // namespace Loomy
