// Feeds a session bundles from a peer, interleaved with local changes and frames. Besides what the
// sanitizers catch, the oracle: once the input is done, this side changes every attribute of its
// tree once more, and the bundles it then sends carry a change of each attribute it still
// synchronises. Nothing the peer sent may swallow a local change.
#include "ReceiveSession.h"

#include "loomy/bundle/BundleController.h"
#include "loomy/bundle/BundleDispatcher.h"
#include "loomy/bundle/BundleReader.h"
#include "loomy/bundle/Core.h"
#include "loomy/sync/AttributeStorage.h"
#include "loomy/sync/NodeSerialization.h"
#include "loomy/sync/RemoteNode.h"
#include "kestrel/Trace.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <set>
#include <vector>

namespace {

class Capture : public Loomy::Connection
{
public:
    void send(const std::vector<Loomy::Bundle> &bundles) override { sent.insert(sent.end(), bundles.begin(), bundles.end()); }
    std::vector<Loomy::Bundle> sent;
};

// The local symbols whose values the bundles carry: every AttributeUpdate record, and every
// AttributeNew record with a value.
std::set<unsigned> carried(const std::vector<Loomy::Bundle> &bundles, const Loomy::AttributeStorage &storage,
                           unsigned newType, unsigned updateType)
{
    std::set<unsigned> symbols;
    for (const Loomy::Bundle &bundle : bundles) {
        if (bundle.messageType() != newType && bundle.messageType() != updateType)
            continue;
        Loomy::BundleReader reader(bundle);
        while (reader.position() < unsigned(bundle.size())) {
            const quint32 symbol = reader.read<quint32>();
            unsigned size = 0;
            bool value = true;
            if (bundle.messageType() == newType) {
                reader.read<quint32>();
                size = reader.read<quint32>();
                value = reader.read<quint32>() & 1u;
            } else if (const Loomy::LoomySessionAttribute *record = storage.findByWriteSymbol(symbol)) {
                size = record->writeSize;
            } else {
                std::fprintf(stderr, "sent an update of symbol %u without a record\n", symbol);
                std::abort();
            }
            if (value) {
                Loomy::LoomySessionAttribute::createDummyDeserializer(size)(reader);
                symbols.insert(symbol);
            }
        }
    }
    return symbols;
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    Kestrel::Trace::setHook([](Kestrel::Trace::Level, const QString &) {});
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    if (size == 0)
        return 0;
    Tamarack::Node app;
    auto *node = new Loomy::RemoteNode(&app, "remote");
    ReceiveFuzz::makeTree(*node);
    auto capture = std::make_shared<Capture>();
    Loomy::BundleControllerParams params;
    params.connection = capture;
    params.useGlobalUpdate = false;
    params.createMissingAttributes = data[0] & ReceiveFuzz::CreateMissing;
    params.dropStaleChanges = data[0] & ReceiveFuzz::DropStale;
    auto controller = Loomy::BundleController::create(*node, params);
    controller->update();

    int counter = 0;
    for (size_t at = 1; at < size;) {
        switch (data[at++] % 3) {
        case ReceiveFuzz::PeerBundle: {
            size_t length = at + 2 <= size ? size_t(data[at] | data[at + 1] << 8) : 0;
            at = at + 2 <= size ? at + 2 : size;
            length = length < size - at ? length : size - at;
            const Loomy::Bundle bundle(QByteArray(reinterpret_cast<const char *>(data + at), int(length)));
            at += length;
            controller->process({bundle});
            break;
        }
        case ReceiveFuzz::LocalChange: {
            std::vector<Tamarack::Attribute *> attributes;
            Loomy::walkAttributesWithPath(*node, [&](Tamarack::Attribute &a, const QByteArray &) { attributes.push_back(&a); });
            if (at < size && !attributes.empty())
                ReceiveFuzz::change(*attributes[data[at] % attributes.size()], ++counter);
            ++at;
            break;
        }
        default:
            controller->update();
            break;
        }
    }

    // Settle, then learn the session's state and its message types.
    for (int i = 0; i < 3; ++i)
        controller->update();
    Loomy::AttributeStorage *storage = nullptr;
    unsigned newType = 0, updateType = 0;
    controller->addTask([&](Loomy::Core &core) {
        storage = core.attributeStorage();
        newType = core.dispatcher().lookupOrRegisterMessageType("Orchardlines.Loomy.AttributeNew");
        updateType = core.dispatcher().lookupOrRegisterMessageType("Orchardlines.Loomy.AttributeUpdate");
    });
    controller->update();
    capture->sent.clear();

    // What the sender must send for a change: an attribute with its sync flag, found at its symbol,
    // with a record that the peer hasn't taken away and that has a serialiser.
    std::vector<std::pair<Tamarack::Attribute *, QByteArray>> attributes;
    Loomy::walkAttributesWithPath(*node, [&](Tamarack::Attribute &a, const QByteArray &path) { attributes.emplace_back(&a, path); });
    std::vector<std::pair<unsigned, QByteArray>> expected;
    for (const auto &entry : attributes) {
        const unsigned symbol = node->symbols().lookup(entry.second);
        const Loomy::LoomySessionAttribute *record = storage ? storage->findByWriteSymbol(symbol) : nullptr;
        if (symbol && (node->syncFlags().getFlags(symbol) & Loomy::SyncFlags::SYNC_DEFAULT) &&
            node->cache().find(symbol) == entry.first && record && !record->removedByPeer && record->serializer)
            expected.emplace_back(symbol, entry.second);
    }
    for (const auto &entry : attributes)
        entry.first->emitChange();
    controller->update();
    const std::set<unsigned> sent = storage ? carried(capture->sent, *storage, newType, updateType) : std::set<unsigned>();
    for (const auto &entry : expected) {
        if (!sent.count(entry.first)) {
            std::fprintf(stderr, "the local change of '%s' was not sent\n", entry.second.constData());
            std::abort();
        }
    }
    controller.reset();
    return 0;
}
