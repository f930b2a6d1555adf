#include "loomy/bundle/Bundle.h"

namespace Loomy {

void Bundle::stamp(quint32 messageType, quint32 bundleId, quint32 ackBundleId)
{
    if (m_data.size() < int(headerSize))
        m_data.resize(int(headerSize));
    char *header = m_data.data();
    qToLittleEndian<quint32>(quint32(m_data.size()) - headerSize, header);
    qToLittleEndian<quint32>(messageType, header + 4);
    qToLittleEndian<quint32>(bundleId, header + 8);
    qToLittleEndian<quint32>(ackBundleId, header + 12);
}

} // namespace Loomy
