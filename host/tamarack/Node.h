#pragma once
#include "tamarack/Attribute.h"
#include "tamarack/Event.h"
#include "tamarack/tamarack_export.h"

#include <QByteArray>
#include <QList>
#include <QPair>

#include <functional>
#include <memory>
#include <utility>
#include <vector>

namespace Kestrel { class BinaryData; }

namespace Tamarack {

// An attribute that holds attributes under unique names, and sends named events.
//
// Ownership: a node owns its children and deletes them when it is deleted. The order then is: the
// node leaves its own host (that host's eventAttributeRemoved, this still a Node with all its
// children), its DELETE_ROLE listeners run (children still present), then the children are deleted
// one by one in stored order, each raising this node's eventAttributeRemoved.
//
// Threads: children may be added, looked up and removed from several threads at once; the
// events run on the thread that caused them, with no lock of the node held.
class TAMARACK_EXPORT Node : public Attribute
{
public:
    enum ListenerType { DIRECT = 1 }; // the listener runs inside eventSend, on the sender's thread

    Node();
    Node(Node *host, const QByteArray &name);
    ~Node() override;

    // The (name, attribute) pairs in addition order. Entries are never null today, but callers
    // should skip a null attribute.
    QList<QPair<QByteArray, Attribute *>> attributes() const;
    // The same pairs as attributes(), in one allocation for the whole list rather than one per
    // entry: for walks over large trees.
    std::vector<std::pair<QByteArray, Attribute *>> children() const;
    // The direct child of that name or null. Constant time.
    Attribute *attribute(const QByteArray &name) const override;

    // Adds the attribute under the name (which it takes as its own) and raises eventAttributeAdded
    // on the calling thread before returning. False, with nothing changed, for a null attribute, a
    // name already taken, an attribute that already has a host, or the node itself.
    bool addAttribute(const QByteArray &name, Attribute *attribute);
    // Takes a child out without deleting it, then raises eventAttributeRemoved. The caller owns
    // the attribute afterwards. False if it isn't a child of this node.
    bool removeAttribute(Attribute *attribute);

    // Raised after an addition and after a removal, with the attribute. At an addition the
    // attribute may still be under construction (only its address and name are usable); at a
    // removal it may be under destruction (its dynamic type may be reduced).
    Event<Attribute *> eventAttributeAdded;
    Event<Attribute *> eventAttributeRemoved;

    QByteArray type() const override;
    Node *asNode() override { return this; }
    bool isChanged() const override;        // true if any child is changed
    void setAsDefaults() override;          // on every child

    // Declarations of event names this node sends or accepts; bookkeeping only.
    void eventAddOut(const QByteArray &id);
    void eventAddIn(const QByteArray &id);
    QList<QByteArray> eventsOut() const;
    QList<QByteArray> eventsIn() const;

    // Runs listener at each eventSend(id) of this node. Returns an id that only grows.
    long eventAddListener(const QByteArray &id, std::function<void()> listener, ListenerType type = DIRECT);
    // At each eventSend(from) of this node calls obj->eventProcess(to, data), with the data
    // rewound. When the data sent is empty and defaults is given, a copy of defaults is delivered
    // instead. obj must outlive the listener, or the listener be removed first.
    long eventAddListener(const QByteArray &from, const QByteArray &to, Node *obj, ListenerType type,
                          const Kestrel::BinaryData *defaults);
    void eventRemoveListener(long id);

    // Runs the listeners of the event in id order on the calling thread; nothing without listeners.
    void eventSend(const QByteArray &id);
    void eventSend(const QByteArray &id, Kestrel::BinaryData &data);

    // The node's own delivery of a named event: the child named id, if any, processes the data
    // (a value child reads one value of its type and sets it on LAYER_USER). Otherwise nothing.
    void eventProcess(const QByteArray &id, Kestrel::BinaryData &data) override;

    // Queues func to run once at the next runHostUpdate, on the thread that runs it. Any thread.
    static void invokeAfterUpdate(std::function<void()> func);
    // The application's host update, called once per frame by its frame loop: runs, in queue order
    // and on the calling thread, every function queued before this call. Functions queued while it
    // runs wait for the next call. A function that throws is logged and the rest still run.
    static void runHostUpdate();

protected:
    // Called at each addition and removal, before the matching event, with no lock held.
    virtual void attributeAdded(Attribute *attribute);
    virtual void attributeRemoved(Attribute *attribute);

private:
    class D;
    std::unique_ptr<D> m_d;
};

} // namespace Tamarack
