#include "loomy/bundle/Loomy1Support.h"

#include "loomy/bundle/Bundle.h"
#include "loomy/net/ConnectionThread.h"

#include "kestrel/Trace.h"

#include <QList>

#include <limits>
#include <new>

namespace Loomy {

namespace {

// The largest bundle one QByteArray can hold: its size is an int, less the array's own header.
const quint32 s_maxBundleSize = quint32(std::numeric_limits<int>::max()) - 64;

} // namespace

Loomy1Connection::Loomy1Connection(std::weak_ptr<ConnectionThread> connection)
    : m_connection(std::move(connection))
{
}

void Loomy1Connection::send(const std::vector<Bundle> &bundles)
{
    if (bundles.empty())
        return;
    const std::shared_ptr<ConnectionThread> connection = m_connection.lock();
    if (!connection)
        return;
    // Only a connection that stands knows its peer's version.
    if (connection->isConnected() && !connection->isLoomy15Supported())
        return;
    QList<QByteArray> blocks;
    blocks.reserve(int(bundles.size()) + 1);
    blocks.append(QStringLiteral("loomy2 %1\n").arg(bundles.size()).toUtf8());
    for (const Bundle &bundle : bundles)
        blocks.append(bundle.data());
    connection->writeBuffer(blocks, "loomy2");
}

bool processLoomy2(std::shared_ptr<BundleController> controller, ConnectionThread &connection, const QString &line)
{
    if (!line.startsWith(QLatin1String("loomy2 "), Qt::CaseSensitive))
        return false;
    bool ok = false;
    const int count = line.midRef(7).toInt(&ok);
    if (!ok)
        return false;
    // A negative count becomes a size no vector can have: std::length_error, let through.
    if (count < 0)
        (void)std::vector<Bundle>(static_cast<std::size_t>(count));
    // Grown as headers arrive, so that a count alone makes no allocation.
    std::vector<Bundle> bundles;
    bundles.reserve(std::size_t(qMin(count, 1024)));
    for (int i = 0; i < count; ++i) {
        bundles.emplace_back();
        Bundle &bundle = bundles.back();
        if (!connection.readData(reinterpret_cast<unsigned char *>(bundle.data().data()), int(Bundle::headerSize))) {
            Kestrel::Trace::warning("processLoomy2 # Failed to read Bundle header");
            return true;
        }
        const quint32 bodySize = bundle.bodySize();
        if (!connection.withinLimit("processLoomy2", bodySize + (long long)Bundle::headerSize,
                                    connection.maxBundleSize()))
            return true;
        bool fits = bodySize <= s_maxBundleSize - Bundle::headerSize;
        if (fits) {
            try {
                bundle.data().resize(int(bodySize + Bundle::headerSize));
            } catch (const std::bad_alloc &) {
                fits = false;
            }
        }
        if (!fits) {
            Kestrel::Trace::warning("processLoomy2 # Failed to read Bundle");
            connection.abortRead();
            return true;
        }
        if (!connection.readData(reinterpret_cast<unsigned char *>(bundle.data().data()) + Bundle::headerSize,
                                 int(bodySize))) {
            Kestrel::Trace::warning("processLoomy2 # Failed to read Bundle");
            return true;
        }
    }
    if (controller)
        controller->scheduleProcess(bundles);
    return true;
}

} // namespace Loomy
