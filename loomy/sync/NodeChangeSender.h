#pragma once
#include "loomy/bundle/BundleSender.h"
#include "loomy/loomy_export.h"
#include "loomy/sync/NodeWatcher.h"

#include <memory>

// The outgoing half of the attribute synchronisation of one session. Bodies, all words u32
// little-endian, one record after the other up to the bundle's end, no count:
//
//   "Orchardlines.Loomy.AttributeNew"     symbol, typeId, size (0: dynamic), flags (0 or 1),
//                                         then the value if flags bit 0 is set
//   "Orchardlines.Loomy.AttributeUpdate"  symbol, value (its length follows from the type)
//   "Orchardlines.Loomy.AttributeRemove"  symbol
//   "Orchardlines.Loomy.OneWayEvent"      symbol of the event name, length, payload, padding
//   symbol bundle                         symbol, length, name bytes (no terminator), padding
//
// Symbols are the local ones (write symbols). In one update the peer gets at most one symbol
// bundle, with every symbol it hasn't seen yet (changes first, then events), then the additions,
// changes and removals in compressed order, one bundle per run of one kind, then at most one
// event bundle. The first update's events start with "initialized".
namespace Loomy {

class AttributeStorage;
class BundleDispatcher;
class BundleOutput;
class RemoteNode;
class TypeRegistry;

// Threads: the tree's change and event listeners run on whichever thread changes the tree or
// raises the event; they only queue, under one mutex per queue. Everything else, including
// ignoreOne/stopIgnoring by the receivers, runs on the frame thread.
// Lock order: the pending-changes mutex, then the storage's lock, then the node's symbol registry.
class LOOMY_EXPORT NodeChangeSender : public BundleSender
{
public:
    // All three must outlive the sender, except the node, whose deletion the sender notices.
    // Registers on the node: change listener, event listener, deletion listener, in this order.
    NodeChangeSender(RemoteNode &node, AttributeStorage &storage, TypeRegistry &types);
    ~NodeChangeSender() override;

    // Collapses the queued changes and writes the symbol, change and event bundles of this update.
    void writeUpdates(BundleOutput &output) override;
    // Registers the four message types, in the order new, update, remove, event.
    void initialize(BundleDispatcher &dispatcher) override;

    // Queues the whole present tree as additions, except attributes whose addition is queued
    // already. Called once, when the session is set up.
    void sendInitialValues();

    // The echo guard for receivers: a change applied between ignoreOne(e) and stopIgnoring(e)
    // that raises e is not sent. One entry per event at most; a second ignoreOne is reported.
    void ignoreOne(const NodeWatcher::Event &event);
    // True exactly if an entry was erased.
    bool stopIgnoring(const NodeWatcher::Event &event);

    // Queues a change of the attribute with this local symbol as if the tree had raised it, so
    // that its present value goes in the next update. Frame thread.
    void queueChange(unsigned int symbol);

    // The bracket as a scope: ignoreOne at construction, stopIgnoring at destruction, so that a
    // deserialiser that throws between the two leaves no entry behind to swallow a later change.
    class IgnoreGuard
    {
    public:
        IgnoreGuard(NodeChangeSender &sender, const NodeWatcher::Event &event) : m_sender(sender), m_event(event)
        {
            m_sender.ignoreOne(m_event);
        }
        ~IgnoreGuard() { m_sender.stopIgnoring(m_event); }
        IgnoreGuard(const IgnoreGuard &) = delete;
        IgnoreGuard &operator=(const IgnoreGuard &) = delete;

    private:
        NodeChangeSender &m_sender;
        const NodeWatcher::Event m_event;
    };

private:
    class D;
    std::unique_ptr<D> m_d;
};

} // namespace Loomy
