#pragma once
#include "loomy/bundle/Bundle.h"
#include "loomy/loomy_export.h"

#include <QByteArray>
#include <QMap>
#include <QString>

#include <vector>

// The two ends of a message type: a BundleSender produces bundles once per update, a
// BundleReceiver (a "module") consumes the bundles of the number it is bound to. Both are owned
// by a BundleDispatcher through shared pointers and run on its thread only.
namespace Loomy {

class BundleDispatcher;
class BundleReader;

class LOOMY_EXPORT BundleReceiver
{
public:
    // `moduleName` is what a peer's "load-module" names to bind this receiver to a number.
    explicit BundleReceiver(const QByteArray &moduleName);
    virtual ~BundleReceiver();
    BundleReceiver(const BundleReceiver &) = delete;
    BundleReceiver &operator=(const BundleReceiver &) = delete;

    // Decode faults are thrown (std::out_of_range, std::invalid_argument) and caught by the
    // caller of BundleDispatcher::dispatchBundle, once per bundle.
    virtual void handleBundle(BundleReader &reader) = 0;
    // Called with the peer's map when the module is bound, and again on each reload.
    virtual void initialize(const QMap<QString, QString> &config);

    const QByteArray &moduleName() const { return m_moduleName; }

private:
    QByteArray m_moduleName;
};

// The collector of one BundleDispatcher::collectUpdates. Lives for that call only.
class LOOMY_EXPORT BundleOutput
{
public:
    BundleOutput(std::vector<Bundle> &bundles, unsigned &nextBundleId, unsigned ackBundleId);

    // The caller stamps bundleId = nextBundleId() and ackBundleId() into the bundle first; this
    // appends a shared copy and moves the id on, so ids rise by one across all senders.
    void addBundle(const Bundle &bundle);

    unsigned nextBundleId() const { return m_nextBundleId; }
    unsigned ackBundleId() const { return m_ackBundleId; }

private:
    std::vector<Bundle> &m_bundles;
    unsigned &m_nextBundleId;  // the dispatcher's counter
    unsigned m_ackBundleId;
};

class LOOMY_EXPORT BundleSender
{
public:
    // The module under which every sender gets its symbol message type.
    static const QByteArray symbolMessageName;

    BundleSender();
    virtual ~BundleSender();
    BundleSender(const BundleSender &) = delete;
    BundleSender &operator=(const BundleSender &) = delete;

    // Runs for every sender before the first writeUpdates of a collection.
    virtual void update();
    // Adds the finished bundles, if any; a bundle with an empty body must not be added.
    virtual void writeUpdates(BundleOutput &output) = 0;
    // Registers further message types; called once, by initSender.
    virtual void initialize(BundleDispatcher &dispatcher);

    // Called by BundleDispatcher::registerSender: looks up the symbol message type, then
    // calls initialize.
    void initSender(BundleDispatcher &dispatcher);
    unsigned symbolMessageType() const { return m_symbolMessageType; }

private:
    unsigned m_symbolMessageType = 0;
};

} // namespace Loomy
