#include "loomy/bundle/BundleDispatcher.h"

#include "loomy/bundle/BundleReader.h"
#include "loomy/bundle/BundleSender.h"
#include "loomy/bundle/HandshakeReceiver.h"
#include "loomy/bundle/HandshakeSender.h"
#include "kestrel/Trace.h"

#include <algorithm>
#include <exception>
#include <map>

namespace Loomy {

namespace {
const QString s_loadModule = QStringLiteral("load-module");
}

// All members: the dispatcher's thread only.
class BundleDispatcher::D
{
public:
    std::vector<std::shared_ptr<BundleReceiver>> preloaded;         // not yet bound, in offer order
    // By incoming messageType. A null entry marks a number already warned about as unknown.
    std::map<unsigned, std::shared_ptr<BundleReceiver>> receivers;
    std::vector<std::shared_ptr<BundleSender>> senders;             // handshake sender first
    unsigned nextBundleId = 1;
    unsigned lastReceivedBundleId = 0;
    std::shared_ptr<HandshakeSender> handshakeSender;
    std::shared_ptr<HandshakeReceiver> handshakeReceiver;
    std::map<QByteArray, unsigned> outgoing;                         // messageType by module name

    // Answers a "load-module" request on the handshake.
    void reply(bool ok, const QString &module, const QString &description)
    {
        if (ok)
            handshakeSender->sendOk(s_loadModule, module, description);
        else
            handshakeSender->sendError(s_loadModule, module, description);
    }

    // Runs initialize and answers `success`, or the exception's text when either throws.
    void initializeAndReply(BundleReceiver &receiver, const QString &module,
                            const QMap<QString, QString> &config, const QString &success)
    {
        try {
            receiver.initialize(config);
            reply(true, module, success);
        } catch (const std::exception &e) {
            reply(false, module, QString::fromUtf8(e.what()));
        }
    }
};

BundleDispatcher::BundleDispatcher()
    : m_d(std::make_unique<D>())
{
    m_d->handshakeSender = std::make_shared<HandshakeSender>();
    m_d->handshakeReceiver = std::make_shared<HandshakeReceiver>(*this);
    m_d->outgoing[m_d->handshakeReceiver->moduleName()] = 0;
    m_d->receivers[0] = m_d->handshakeReceiver;
    // Not through registerSender: the handshake has no symbol message type of its own.
    m_d->senders.push_back(m_d->handshakeSender);
}

BundleDispatcher::~BundleDispatcher() = default;

void BundleDispatcher::preloadReceiver(std::shared_ptr<BundleReceiver> receiver)
{
    m_d->preloaded.push_back(std::move(receiver));
}

void BundleDispatcher::registerSender(std::shared_ptr<BundleSender> sender)
{
    m_d->senders.push_back(sender);
    sender->initSender(*this);
}

unsigned BundleDispatcher::lookupOrRegisterMessageType(const QByteArray &name)
{
    const auto it = m_d->outgoing.find(name);
    if (it != m_d->outgoing.end())
        return it->second;
    const unsigned messageType = m_d->handshakeSender->registerMessageType(name);
    m_d->outgoing.emplace(name, messageType);
    return messageType;
}

void BundleDispatcher::dispatchBundle(BundleReader &reader)
{
    const unsigned messageType = reader.messageType();
    const auto it = m_d->receivers.find(messageType);
    if (it == m_d->receivers.end()) {
        Kestrel::Trace::warning("BundleDispatcher::dispatchBundle # Unknown bundle type %u", messageType);
        m_d->receivers.emplace(messageType, nullptr);
    } else if (it->second) {
        // A copy: the receiver may bind further modules, which changes the map under `it`.
        const std::shared_ptr<BundleReceiver> receiver = it->second;
        receiver->handleBundle(reader);
    }
    // Only reached when the receiver did not throw: a failed bundle is never acknowledged.
    m_d->lastReceivedBundleId = reader.bundleId();
}

void BundleDispatcher::loadModule(unsigned messageType, const QString &module, QMap<QString, QString> config)
{
    const QByteArray name = module.toUtf8();
    for (const auto &entry : m_d->receivers) {
        if (!entry.second || entry.second->moduleName() != name)
            continue;
        if (entry.first != messageType) {
            m_d->reply(false, module, QStringLiteral("Tried to reload module with different message type"));
            return;
        }
        const std::shared_ptr<BundleReceiver> receiver = entry.second;
        m_d->initializeAndReply(*receiver, module, config, QStringLiteral("Module reloaded successfully"));
        return;
    }
    // Number 0 with the handshake's own name was a reload above; any other name can't take it.
    if (messageType == 0) {
        m_d->reply(false, module, QStringLiteral("Not implemented"));
        return;
    }
    const auto bound = m_d->receivers.find(messageType);
    if (bound != m_d->receivers.end() && bound->second) {
        m_d->reply(false, module, QStringLiteral("Message type already in use"));
        return;
    }
    auto &preloaded = m_d->preloaded;
    const auto found = std::find_if(preloaded.begin(), preloaded.end(),
                                    [&](const std::shared_ptr<BundleReceiver> &r) { return r->moduleName() == name; });
    if (found == preloaded.end()) {
        m_d->reply(false, module, QStringLiteral("Module not found"));
        return;
    }
    // Bound and out of the preloaded list before initialize runs, so that both hold whatever
    // it does; a module whose initialize fails stays bound.
    const std::shared_ptr<BundleReceiver> receiver = *found;
    preloaded.erase(found);
    m_d->receivers[messageType] = receiver;
    m_d->initializeAndReply(*receiver, module, config, QStringLiteral("Module loaded successfully"));
}

std::vector<Bundle> BundleDispatcher::collectUpdates()
{
    // By index: a sender may register another one while it runs.
    for (std::size_t i = 0; i < m_d->senders.size(); ++i)
        m_d->senders[i]->update();
    std::vector<Bundle> bundles;
    BundleOutput output(bundles, m_d->nextBundleId, m_d->lastReceivedBundleId);
    for (std::size_t i = 0; i < m_d->senders.size(); ++i)
        m_d->senders[i]->writeUpdates(output);
    return bundles;
}

unsigned BundleDispatcher::lastReceivedBundleId() const
{
    return m_d->lastReceivedBundleId;
}

unsigned BundleDispatcher::nextBundleId() const
{
    return m_d->nextBundleId;
}

} // namespace Loomy
