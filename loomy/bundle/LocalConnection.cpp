#include "loomy/bundle/LocalConnection.h"

#include "loomy/bundle/Bundle.h"

namespace Loomy {

void LocalConnection::setReceiver(const std::shared_ptr<BundleController> &receiver)
{
    Kestrel::MutexLocker lock(m_mutex);
    m_receiver = receiver;
}

void LocalConnection::setObserver(std::function<void(const std::vector<Bundle> &)> observer)
{
    Kestrel::MutexLocker lock(m_mutex);
    m_observer = std::move(observer);
}

void LocalConnection::send(const std::vector<Bundle> &bundles)
{
    // A core hands over a batch at every pass, also an empty one; only real traffic crosses.
    if (bundles.empty())
        return;
    unsigned long bytes = 0;
    for (const Bundle &bundle : bundles)
        bytes += unsigned(bundle.size());
    m_batches.fetch_add(1);
    m_bundles.fetch_add(bundles.size());
    m_bytes.fetch_add(bytes);

    std::shared_ptr<BundleController> receiver;
    std::function<void(const std::vector<Bundle> &)> observer;
    {
        Kestrel::MutexLocker lock(m_mutex);
        receiver = m_receiver.lock();
        observer = m_observer;
    }
    // No lock held: the observer may take its own, and scheduleProcess takes the controllers'.
    if (observer)
        observer(bundles);
    if (receiver)
        receiver->scheduleProcess(bundles);
}

LocalSessionPair connectLocally(RemoteNode &a, BundleControllerParams paramsA, RemoteNode &b,
                                BundleControllerParams paramsB)
{
    LocalSessionPair pair;
    pair.toSecond = std::make_shared<LocalConnection>();
    pair.toFirst = std::make_shared<LocalConnection>();
    paramsA.connection = pair.toSecond;
    paramsB.connection = pair.toFirst;
    pair.first = BundleController::create(a, paramsA);
    pair.second = BundleController::create(b, paramsB);
    pair.toSecond->setReceiver(pair.second);
    pair.toFirst->setReceiver(pair.first);
    return pair;
}

} // namespace Loomy
