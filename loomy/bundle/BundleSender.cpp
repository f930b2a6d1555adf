#include "loomy/bundle/BundleSender.h"

#include "loomy/bundle/BundleDispatcher.h"

namespace Loomy {

BundleReceiver::BundleReceiver(const QByteArray &moduleName)
    : m_moduleName(moduleName)
{}

BundleReceiver::~BundleReceiver() = default;

void BundleReceiver::initialize(const QMap<QString, QString> &)
{}

BundleOutput::BundleOutput(std::vector<Bundle> &bundles, unsigned &nextBundleId, unsigned ackBundleId)
    : m_bundles(bundles)
    , m_nextBundleId(nextBundleId)
    , m_ackBundleId(ackBundleId)
{}

void BundleOutput::addBundle(const Bundle &bundle)
{
    m_bundles.push_back(bundle);
    ++m_nextBundleId;
}

const QByteArray BundleSender::symbolMessageName("Orchardlines.Loomy.SymbolRegistry");

BundleSender::BundleSender() = default;

BundleSender::~BundleSender() = default;

void BundleSender::update()
{}

void BundleSender::initialize(BundleDispatcher &)
{}

void BundleSender::initSender(BundleDispatcher &dispatcher)
{
    m_symbolMessageType = dispatcher.lookupOrRegisterMessageType(symbolMessageName);
    initialize(dispatcher);
}

} // namespace Loomy
