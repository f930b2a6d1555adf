#pragma once
#include "common/TraceCapture.h"
#include "loomy/bundle/BundleDispatcher.h"
#include "loomy/bundle/BundleReader.h"
#include "loomy/bundle/BundleSender.h"
#include "loomy/sync/AttributeStorage.h"
#include "loomy/sync/NodeChangeSender.h"
#include "loomy/sync/RemoteNode.h"
#include "loomy/types/TypeRegistry.h"
#include "kestrel/SymbolRegistry.h"
#include "tamarack/AttributeT.h"

#include <QByteArray>

#include <gtest/gtest.h>

#include <memory>
#include <ostream>
#include <string>
#include <vector>

namespace {

// Table rows print as their name. In the unnamed namespace, where the test files keep their
// tables, so that gtest's printer finds it by argument-dependent lookup.
template <typename Case>
auto operator<<(std::ostream &os, const Case &row) -> decltype(std::string(row.name), os)
{
    return os << row.name;
}

} // namespace

inline void PrintTo(const QString &text, std::ostream *os)
{
    *os << '"' << text.toStdString() << '"';
}

namespace {
// The stale value rule: with dropStaleChanges, a value whose bundle acknowledges less than this
// side's last send of the attribute is dropped. Plain unsigned comparison.
struct StaleCase
{
    const char *name;
    bool dropStaleChanges;
    quint32 lastSentId;
    quint32 ackBundleId;
    bool applied;
};

const StaleCase s_staleCases[] = {
    {"AckBehindLastSendIsDropped", true, 7, 6, false},
    {"AckOfLastSendIsApplied", true, 7, 7, true},
    {"AckAheadIsApplied", true, 7, 8, true},
    {"NothingSentIsApplied", true, 0, 0, true},
    {"RuleOffAppliesEverything", false, 7, 6, true},
};
} // namespace

// The outgoing message types of a session whose only sender is the node change sender: the
// symbol message type comes first, then the sender's four in registration order.
enum : quint32 { SymbolType = 1, NewType = 2, UpdateType = 3, RemoveType = 4, EventType = 5 };

// A bundle body built word by word, as a peer would write it.
class Body
{
public:
    Body &word(quint32 value)
    {
        m_bytes.append(reinterpret_cast<const char *>(&value), 4);
        return *this;
    }
    Body &f32(float value)
    {
        m_bytes.append(reinterpret_cast<const char *>(&value), 4);
        return *this;
    }
    // Length word, bytes, zero padding to 4: a string value, an event payload.
    Body &block(const QByteArray &bytes)
    {
        word(quint32(bytes.size()));
        m_bytes.append(bytes);
        m_bytes.append(QByteArray((4 - bytes.size() % 4) % 4, '\0'));
        return *this;
    }
    const QByteArray &bytes() const { return m_bytes; }

private:
    QByteArray m_bytes;
};

inline Loomy::Bundle makeBundle(const Body &body, quint32 messageType, quint32 bundleId, quint32 ackBundleId = 0)
{
    Loomy::Bundle bundle;
    bundle.data().append(body.bytes());
    bundle.stamp(messageType, bundleId, ackBundleId);
    return bundle;
}

inline int countOfType(const std::vector<Loomy::Bundle> &bundles, quint32 messageType)
{
    int count = 0;
    for (const Loomy::Bundle &bundle : bundles)
        count += bundle.messageType() == messageType ? 1 : 0;
    return count;
}

// The words of the body of the first bundle of that type; empty without one.
inline std::vector<quint32> bodyWords(const std::vector<Loomy::Bundle> &bundles, quint32 messageType)
{
    for (const Loomy::Bundle &bundle : bundles) {
        if (bundle.messageType() != messageType)
            continue;
        std::vector<quint32> words;
        Loomy::BundleReader reader(bundle);
        while (reader.position() < unsigned(bundle.size()))
            words.push_back(reader.read<quint32>());
        return words;
    }
    return {};
}

// One side of a session without a peer: a watched node with its storage, type registry and
// change sender registered on a dispatcher, and the peer's symbols. What the sender would put on
// the wire is taken with collect().
class ReceiverFixture : public ::testing::Test
{
protected:
    using FloatAttr = Tamarack::AttributeT<float>;
    using TextAttr = Tamarack::AttributeT<QString>;

    ReceiverFixture()
    {
        dispatcher.registerSender(sender);
        node.addAttributeChangeListener([this](const Loomy::NodeWatcher::Event &event) { heard.push_back(event); });
    }

    // The peer names its number.
    void peerSymbol(quint32 symbol, const QByteArray &name) { recvSymbols.define(name, name, symbol); }

    // Everything the sender has to say now, the handshake bundle left out.
    std::vector<Loomy::Bundle> collect()
    {
        node.update();
        std::vector<Loomy::Bundle> out;
        for (const Loomy::Bundle &bundle : dispatcher.collectUpdates())
            if (bundle.messageType() != 0)
                out.push_back(bundle);
        return out;
    }

    // Announces the tree as it stands, so that local attributes have their serialisers.
    void announceLocalTree()
    {
        node.update();
        sender->sendInitialValues();
        collect();
        heard.clear();
    }

    int heardCount(Loomy::NodeWatcher::EventType type, unsigned symbol) const
    {
        int count = 0;
        for (const auto &event : heard)
            count += event.type == type && event.symbol == symbol ? 1 : 0;
        return count;
    }

    unsigned localSymbol(const QByteArray &path) { return node.symbols().lookup(path); }

    // Every event of the tree, as any listener other than the sender hears it. Ahead of the tree,
    // whose deletion still reports removals.
    std::vector<Loomy::NodeWatcher::Event> heard;
    TraceCapture trace;
    Tamarack::Node app;
    Loomy::RemoteNode &node = *new Loomy::RemoteNode(&app, "remote");
    Loomy::AttributeStorage storage{node};
    Kestrel::SymbolRegistry recvSymbols;
    Loomy::TypeRegistry types;
    Loomy::BundleDispatcher dispatcher;
    std::shared_ptr<Loomy::NodeChangeSender> sender = std::make_shared<Loomy::NodeChangeSender>(node, storage, types);
};
