#pragma once
#include "loomy/bundle/Bundle.h"
#include "loomy/loomy_export.h"

#include <QByteArray>
#include <QMap>
#include <QString>

#include <memory>
#include <vector>

// The routing table of one session.
//
// Message type numbers are not constants of the protocol: a side picks a number when one of its
// senders first needs a module, and announces "number N is module M" by a "load-module" record
// on the handshake (type 0, the one fixed number). The peer binds a preloaded receiver of that
// module name to N. So numbers are per direction, and a side accepts whatever its peer assigns.
//
// Threads: none of its own and no lock. Everything, including the senders' and receivers'
// callbacks, runs on the thread that drives the session.
namespace Loomy {

class BundleReader;
class BundleReceiver;
class BundleSender;

class LOOMY_EXPORT BundleDispatcher
{
public:
    // Sets up the handshake: its sender first in the sender list, its receiver bound to 0.
    // The first collection therefore starts with a bundle carrying the "info" record.
    BundleDispatcher();
    ~BundleDispatcher();
    BundleDispatcher(const BundleDispatcher &) = delete;
    BundleDispatcher &operator=(const BundleDispatcher &) = delete;

    // Offers a receiver for binding by a later "load-module"; no check of doubles.
    void preloadReceiver(std::shared_ptr<BundleReceiver> receiver);
    // Appends the sender and runs its initSender, which registers its message types.
    void registerSender(std::shared_ptr<BundleSender> sender);
    // The outgoing number of a module; a new name is announced by a "load-module" record that
    // leaves with the next collection, ahead of any bundle of that number.
    unsigned lookupOrRegisterMessageType(const QByteArray &name);

    // Hands the bundle to the receiver bound to its messageType. An unknown type is warned about
    // once per number and dropped. Exceptions of the receiver pass through, and the bundle is
    // then not acknowledged; otherwise its bundleId becomes the acknowledged id.
    void dispatchBundle(BundleReader &reader);

    // Binds or reloads a module at the peer's request, and answers "ok" or "error" on the
    // handshake. Never throws for a failed load; only std::exception is caught.
    void loadModule(unsigned messageType, const QString &module, QMap<QString, QString> config);

    // Runs update() and then writeUpdates() on every sender, in registration order. An empty
    // result leaves the next bundle id alone.
    std::vector<Bundle> collectUpdates();

    unsigned lastReceivedBundleId() const;
    unsigned nextBundleId() const;

private:
    class D;
    std::unique_ptr<D> m_d;
};

} // namespace Loomy
