#pragma once
#include "loomy/bundle/BundleController.h"
#include "loomy/loomy_export.h"
#include "kestrel/Mutex.h"

#include <atomic>
#include <functional>
#include <memory>
#include <vector>

// Two sessions of one process joined back to back, without a socket: what one core sends is
// scheduled on the other core as if a connection thread had read it. For examples, tests and
// benchmarks; the bundles cross by reference, so no byte is copied on the way.
namespace Loomy {

class RemoteNode;

// One direction: send() hands each non-empty batch to the receiving controller's
// scheduleProcess(), where it waits for that core's next update pass. Holds the receiver by a
// weak reference, so a pair of sessions that point at each other keeps neither alive; batches
// for a receiver that is gone are counted and dropped.
//
// Threads: send() runs on the sending core's frame thread; setReceiver(), setObserver() and the
// counters may be used from any thread.
class LOOMY_EXPORT LocalConnection : public Connection
{
public:
    LocalConnection() = default;

    void setReceiver(const std::shared_ptr<BundleController> &receiver);
    // Sees every non-empty batch before it is scheduled, on the sending thread. Must not call
    // back into this connection.
    void setObserver(std::function<void(const std::vector<Bundle> &)> observer);

    void send(const std::vector<Bundle> &bundles) override;

    // Totals over every non-empty batch so far.
    unsigned long batchesSent() const { return m_batches.load(); }
    unsigned long bundlesSent() const { return m_bundles.load(); }
    unsigned long bytesSent() const { return m_bytes.load(); }

private:
    Kestrel::Mutex m_mutex;                   // guards the next two; a leaf
    std::weak_ptr<BundleController> m_receiver;
    std::function<void(const std::vector<Bundle> &)> m_observer;
    std::atomic<unsigned long> m_batches{0};
    std::atomic<unsigned long> m_bundles{0};
    std::atomic<unsigned long> m_bytes{0};
};

// Two sessions, first on `a` and second on `b`, each sending to the other.
struct LocalSessionPair
{
    std::shared_ptr<LocalConnection> toSecond;    // carries what `first` sends
    std::shared_ptr<LocalConnection> toFirst;     // carries what `second` sends
    std::shared_ptr<BundleController> first;
    std::shared_ptr<BundleController> second;
};

// Makes both controllers, with the given parameters except their connections, and joins them.
// The usual lifetime rules of BundleController apply to each side.
LOOMY_EXPORT LocalSessionPair connectLocally(RemoteNode &a, BundleControllerParams paramsA, RemoteNode &b,
                                             BundleControllerParams paramsB);

} // namespace Loomy
