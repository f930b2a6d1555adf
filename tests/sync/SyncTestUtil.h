#pragma once
// Shared by the tests of this folder: bundle bodies as a peer writes them, one side of a session.
#include "common/TraceCapture.h"
#include "loomy/bundle/BundleDispatcher.h"
#include "loomy/bundle/BundleReader.h"
#include "loomy/sync/AttributeStorage.h"
#include "loomy/sync/NodeChangeSender.h"
#include "loomy/sync/RemoteNode.h"
#include "loomy/types/TypeRegistry.h"
#include "kestrel/BinaryData.h"
#include "kestrel/SymbolRegistry.h"
#include "tamarack/AttributeT.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <memory>
#include <string>
#include <vector>

inline void PrintTo(const QString &text, std::ostream *os) { *os << '"' << text.toStdString() << '"'; }

namespace {

// With dropStaleChanges a value is dropped when its bundle acknowledges less than this side's last
// send of the attribute (plain unsigned comparison).
struct StaleCase { const char *name; bool dropStaleChanges; quint32 lastSentId, ackBundleId; bool applied; };
const StaleCase s_staleCases[] = {
    {"AckBehindLastSendIsDropped", true, 7, 6, false}, {"AckOfLastSendIsApplied", true, 7, 7, true},
    {"AckAheadIsApplied", true, 7, 8, true},           {"NothingSentIsApplied", true, 0, 0, true},
    {"RuleOffAppliesEverything", false, 7, 6, true},
};

// Message types as a session numbers them: symbols first, then the change sender's four.
enum : quint32 { SymbolType = 1, NewType = 2, UpdateType = 3, RemoveType = 4, EventType = 5 };
using Types = std::vector<quint32>;

// Little-endian words and padded blocks.
class Body
{
public:
    template <typename T>
    Body &operator<<(T word) { static_assert(sizeof(T) == 4, "one word"); return raw(QByteArray(reinterpret_cast<const char *>(&word), 4)); }
    // Length word, bytes, zero padding to 4: a string value, an event payload.
    Body &block(const QByteArray &bytes) { return (*this << quint32(bytes.size())).raw(bytes + QByteArray((4 - bytes.size() % 4) % 4, '\0')); }
    Body &entry(quint32 symbol, const QByteArray &bytes) { return (*this << symbol).block(bytes); } // a symbol or event record
    Body &raw(const QByteArray &bytes) { m_bytes += bytes; return *this; }
    const QByteArray &bytes() const { return m_bytes; }
    // The whole bundle in hex: size, message type, id, acknowledged id, body.
    std::string bundle(quint32 type, quint32 id, quint32 ack = 0) const
    {
        return ((Body() << quint32(m_bytes.size()) << type << id << ack).m_bytes + m_bytes).toHex(' ').toStdString();
    }

private:
    QByteArray m_bytes;
};

inline std::string hex(const QByteArray &bytes) { return bytes.toHex(' ').toStdString(); }
inline std::string hex(const Loomy::Bundle &bundle) { return hex(bundle.data()); }
inline QByteArray hexOf(const Kestrel::BinaryData &data) { return QByteArray(data.data(), int(data.total())).toHex(); }

// A begin ('B': id, name, slice size, total) or a slice ('S': id, index, bytes) of a sliced event, from a source.
struct Step { char kind; long source; int id, n; QByteArray text; long total = 0; };
inline Kestrel::BinaryData build(const Step &s)
{
    Kestrel::BinaryData d;
    d.writeInt32(s.id);
    if (s.kind == 'B') {
        d.writeString(s.text.constData());
        d.writeInt32(s.n);
        d.writeInt64(s.total);
    } else {
        d.writeInt32(s.n);
        d.writeBlob(s.text.constData(), s.text.size());
    }
    d.rewind();
    return d;
}

// Hands a body to a receiver as one bundle, which must be read to its end (or to stopAt).
template <typename Receiver>
void feed(Receiver &receiver, const Body &body, quint32 type, quint32 id = 9, quint32 ack = 0, int stopAt = -1)
{
    Loomy::Bundle bundle;
    bundle.data().append(body.bytes());
    bundle.stamp(type, id, ack);
    Loomy::BundleReader reader(bundle);
    receiver.handleBundle(reader);
    EXPECT_EQ(int(reader.position()), stopAt < 0 ? bundle.size() : stopAt);
}

inline Types typesOf(const std::vector<Loomy::Bundle> &bundles)
{
    Types out(bundles.size());
    std::transform(bundles.begin(), bundles.end(), out.begin(), [](const Loomy::Bundle &b) { return b.messageType(); });
    return out;
}

inline Tamarack::Attribute *at(Tamarack::Attribute &node, const QByteArray &path)
{
    Tamarack::Attribute *current = &node;
    for (const QByteArray &name : path.split('/'))
        current = current ? current->attribute(name) : nullptr;
    return current;
}

// Where a record's deserialiser leaves a cursor on bytes.
inline unsigned skipped(const Loomy::LoomySessionAttribute &record, const QByteArray &bytes)
{
    Loomy::BundleReaderCore reader(bytes);
    record.deserializer(reader);
    return reader.position();
}

// One side of a session without a peer: a watched node, its storage, types, a change sender on a
// dispatcher, and the peer's symbols.
class SessionSide : public ::testing::Test
{
protected:
    using FloatAttr = Tamarack::AttributeT<float>;
    using TextAttr = Tamarack::AttributeT<QString>;

    SessionSide()
    {
        dispatcher.registerSender(sender);
        node.addAttributeChangeListener([this](const Loomy::NodeWatcher::Event &event) { heard.push_back(event); });
    }
    template <typename T>
    Tamarack::AttributeT<T> *add(const QByteArray &path, const T &value)
    {
        auto *a = new Tamarack::AttributeT<T>(nullptr, "", value);
        EXPECT_TRUE(node.addDeepAttribute(path, a));
        return a;
    }
    void peerSymbol(quint32 symbol, const QByteArray &name) { recvSymbols.define(name, name, symbol); }
    unsigned sym(const QByteArray &path) { return node.symbols().lookup(path); }
    // One frame: queued additions are raised, then what the sender says (the handshake, type 0, left out).
    std::vector<Loomy::Bundle> collect()
    {
        node.update();
        std::vector<Loomy::Bundle> out = dispatcher.collectUpdates();
        out.erase(std::remove_if(out.begin(), out.end(), [](const Loomy::Bundle &b) { return b.messageType() == 0; }), out.end());
        return out;
    }
    // As Core starts a session: attributes still queued reach the sender from the queue and again
    // from the walk of sendInitialValues. started() also takes the first update away.
    void start() { node.update(); sender->sendInitialValues(); }
    void started() { start(); collect(); heard.clear(); trace.clear(); }

    std::vector<Loomy::NodeWatcher::Event> heard; // by a listener other than the sender; outlives the tree
    TraceCapture trace;
    Tamarack::Node app;
    Loomy::RemoteNode &node = *new Loomy::RemoteNode(&app, "remote");
    Loomy::AttributeStorage storage{node};
    Kestrel::SymbolRegistry recvSymbols;
    Loomy::TypeRegistry types;
    Loomy::BundleDispatcher dispatcher;
    std::shared_ptr<Loomy::NodeChangeSender> sender = std::make_shared<Loomy::NodeChangeSender>(node, storage, types);
};

} // namespace
