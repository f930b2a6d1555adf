#include "loomy/bundle/BundleWriter.h"

#include "kestrel/Trace.h"

#include <QtEndian>

#include <stdexcept>

namespace Loomy {

void BundleWriterCore::writeDataAt(unsigned offset, quint32 value)
{
    const unsigned size = unsigned(m_data->size());
    // Compared against what is left, so that an offset near 2^32 cannot wrap past the check.
    if (offset > size || size - offset < 4)
        throw std::out_of_range("BundleWriterCore::writeDataAt # tried to write past the end");
    qToLittleEndian<quint32>(value, m_data->data() + offset);
}

void BundleWriterCore::throwTooLarge()
{
    throw std::length_error("BundleWriterCore::writeData # too much data");
}

SenderGuard::SenderGuard(BundleWriter &writer)
    : m_writer(writer)
    , m_offset(unsigned(writer.data().size()))
    , m_uncaughtAtStart(std::uncaught_exceptions())
{
    m_writer.write(quint32(0));
}

SenderGuard::~SenderGuard() noexcept(false)
{
    const unsigned size = unsigned(m_writer.data().size());
    try {
        m_writer.writeDataAt(m_offset, size - m_offset - 4);
    } catch (const std::out_of_range &e) {
        // The array was cut behind the size word. While another exception unwinds, a second one
        // would terminate the process, and the first one already ends the record: only log.
        if (std::uncaught_exceptions() <= m_uncaughtAtStart)
            throw;
        Kestrel::Trace::error("%s", e.what());
    }
}

void writeString(BundleWriter &writer, const QString &text)
{
    const QByteArray utf8 = text.toUtf8();
    writer.write(quint32(utf8.size()));
    writer.writeData(utf8.constData(), unsigned(utf8.size()));
}

} // namespace Loomy
