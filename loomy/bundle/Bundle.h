#pragma once
#include "loomy/loomy_export.h"

#include <QByteArray>
#include <QtEndian>

// One binary message between two peers.
//
//   offset  size  field
//        0     4  bodySize     whole size less 16
//        4     4  messageType  0 is the handshake, the rest are bound by "load-module"
//        8     4  bundleId     the sender's running number, first bundle 1
//       12     4  ackBundleId  last bundleId dispatched from the peer, 0 before any
//       16     n  body         items, each starting on a multiple of 4 from offset 0
//
// All words are unsigned 32-bit little-endian. The header is stamped last, when the bundle is
// handed on; a producer builds the body behind 16 zero bytes.
//
// A Bundle is a value over one implicitly shared QByteArray: copying it copies a reference, and
// a later write through either copy detaches. Bundles cross threads only as unchanged values.
namespace Loomy {

class LOOMY_EXPORT Bundle
{
public:
    static constexpr unsigned headerSize = 16;

    Bundle() : m_data(int(headerSize), '\0') {}
    // Takes the bytes as they are, e.g. a bundle read from a connection; no check of the header.
    explicit Bundle(const QByteArray &data) : m_data(data) {}

    const QByteArray &data() const { return m_data; }
    QByteArray &data() { return m_data; }
    int size() const { return m_data.size(); }

    // Header words; a word that the array is too short to hold reads as 0.
    quint32 bodySize() const { return headerWord(m_data, 0); }
    quint32 messageType() const { return headerWord(m_data, 4); }
    quint32 bundleId() const { return headerWord(m_data, 8); }
    quint32 ackBundleId() const { return headerWord(m_data, 12); }

    // Writes the whole header, bodySize being the present size less 16. Detaches if shared.
    void stamp(quint32 messageType, quint32 bundleId, quint32 ackBundleId);

    static quint32 headerWord(const QByteArray &data, unsigned offset)
    {
        if (unsigned(data.size()) < offset + 4)
            return 0;
        return qFromLittleEndian<quint32>(data.constData() + offset);
    }

private:
    QByteArray m_data;
};

} // namespace Loomy
