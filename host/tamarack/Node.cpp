#include "tamarack/Node.h"

#include "kestrel/BinaryData.h"
#include "kestrel/OpenIndex.h"
#include "kestrel/Trace.h"

#include <QHash>

#include <algorithm>
#include <exception>
#include <map>
#include <mutex>
#include <vector>

namespace Tamarack {

namespace {

// Functions queued by invokeAfterUpdate. Never destroyed: threads may still queue during exit.
struct FrameQueue
{
    std::mutex mutex;
    std::vector<std::function<void()>> pending; // guarded by mutex
};

FrameQueue &frameQueue()
{
    static FrameQueue *s_queue = new FrameQueue;
    return *s_queue;
}

// Removed entries leave a hole (null attribute) so that positions and the index stay valid; the
// list is compacted when holes make up more than half of it.
constexpr int s_minHolesToCompact = 16;

} // namespace

class Node::D
{
public:
    struct Child
    {
        QByteArray name;
        Attribute *attribute; // null once removed
    };
    struct EventListener
    {
        QByteArray id;
        std::function<void()> func; // set for the plain form
        QByteArray to;              // the object form: obj->eventProcess(to, data)
        Node *obj = nullptr;
        std::unique_ptr<Kestrel::BinaryData> defaults;
        std::atomic<bool> active{true};
    };

    int find(Attribute *attribute) const; // under childMutex
    void compact();                       // under childMutex
    // All under childMutex.
    std::size_t probe(const QByteArray &name, unsigned hash) const; // its place, or the free one ending the run
    int position(const QByteArray &name) const;                      // -1 if absent
    void indexInsert(const QByteArray &name, int position);
    void indexErase(const QByteArray &name);

    // Lock order: childMutex and eventMutex are leaves; neither is held while calling out.
    mutable std::mutex childMutex;
    std::vector<Child> children;           // guarded by childMutex; addition order
    // Guarded by childMutex: name -> 1 + position in children, 8 bytes a place and no node per
    // child. The names are the children's own.
    Kestrel::OpenIndex index;
    int holes = 0;                         // guarded by childMutex
    bool clearing = false;                 // guarded by childMutex; set in ~Node, stops compaction

    mutable std::mutex eventMutex;
    std::map<long, std::shared_ptr<EventListener>> eventListeners; // guarded by eventMutex
    long nextEventListenerId = 1;          // guarded by eventMutex
    QList<QByteArray> eventsIn;            // guarded by eventMutex
    QList<QByteArray> eventsOut;           // guarded by eventMutex
};

std::size_t Node::D::probe(const QByteArray &name, unsigned hash) const
{
    return index.probe(hash, [&](unsigned position) { return children[position - 1].name == name; });
}

int Node::D::position(const QByteArray &name) const
{
    if (index.empty())
        return -1;
    return int(index.valueAt(probe(name, qHash(name)))) - 1;
}

void Node::D::indexInsert(const QByteArray &name, int position)
{
    index.insert(qHash(name), unsigned(position) + 1);
}

void Node::D::indexErase(const QByteArray &name)
{
    if (index.empty())
        return;
    const std::size_t place = probe(name, qHash(name));
    if (index.valueAt(place) != 0)
        index.erase(place);
}

int Node::D::find(Attribute *attribute) const
{
    const int pos = position(attribute->name());
    if (pos >= 0 && children[pos].attribute == attribute)
        return pos;
    // Renamed after it was added: the index still has the old name.
    for (std::size_t i = 0; i < children.size(); ++i)
        if (children[i].attribute == attribute)
            return static_cast<int>(i);
    return -1;
}

void Node::D::compact()
{
    if (clearing || holes < s_minHolesToCompact || holes * 2 < static_cast<int>(children.size()))
        return;
    std::vector<Child> kept;
    kept.reserve(children.size() - holes);
    for (auto &child : children)
        if (child.attribute)
            kept.push_back(std::move(child));
    children.swap(kept);
    holes = 0;
    // The probes compare the names at the new positions, so the index is rebuilt after the move.
    index.clear();
    for (std::size_t i = 0; i < children.size(); ++i)
        indexInsert(children[i].name, int(i));
}

Node::Node()
    : m_d(new D)
{
}

// The base joins the host before D exists: the host's added listeners may only use this node's
// address and name.
Node::Node(Node *host, const QByteArray &name)
    : Attribute(host, name)
    , m_d(new D)
{
}

Node::~Node()
{
    // Leave the host while this is still a Node, then DELETE_ROLE listeners, children intact.
    beginDestruction();
    {
        std::lock_guard<std::mutex> lock(m_d->childMutex);
        m_d->clearing = true;
    }
    // Positions are stable while clearing; a child added meanwhile is appended and deleted too.
    for (std::size_t i = 0;; ++i) {
        Attribute *child;
        {
            std::lock_guard<std::mutex> lock(m_d->childMutex);
            if (i >= m_d->children.size())
                break;
            child = m_d->children[i].attribute;
        }
        if (child)
            delete child; // leaves this node through removeAttribute on its way
    }
}

QList<QPair<QByteArray, Attribute *>> Node::attributes() const
{
    std::lock_guard<std::mutex> lock(m_d->childMutex);
    QList<QPair<QByteArray, Attribute *>> out;
    out.reserve(static_cast<int>(m_d->children.size()) - m_d->holes);
    for (const auto &child : m_d->children)
        if (child.attribute)
            out.append(qMakePair(child.name, child.attribute));
    return out;
}

std::vector<std::pair<QByteArray, Attribute *>> Node::children() const
{
    std::lock_guard<std::mutex> lock(m_d->childMutex);
    std::vector<std::pair<QByteArray, Attribute *>> out;
    out.reserve(m_d->children.size() - std::size_t(m_d->holes));
    for (const auto &child : m_d->children)
        if (child.attribute)
            out.emplace_back(child.name, child.attribute);
    return out;
}

Attribute *Node::attribute(const QByteArray &name) const
{
    std::lock_guard<std::mutex> lock(m_d->childMutex);
    const int pos = m_d->position(name);
    return pos < 0 ? nullptr : m_d->children[pos].attribute;
}

bool Node::addAttribute(const QByteArray &name, Attribute *attribute)
{
    if (!attribute || attribute == this)
        return false;
    {
        std::lock_guard<std::mutex> lock(m_d->childMutex);
        if (m_d->position(name) >= 0)
            return false;
        Node *none = nullptr;
        if (!attribute->m_host.compare_exchange_strong(none, this, std::memory_order_acq_rel))
            return false;
        if (attribute->m_name != name)
            attribute->m_name = name;
        // Pushed first: the probe compares the names of the children it passes.
        m_d->children.push_back(D::Child{name, attribute});
        m_d->indexInsert(name, static_cast<int>(m_d->children.size()) - 1);
    }
    attributeAdded(attribute);
    eventAttributeAdded.raise(attribute);
    return true;
}

bool Node::removeAttribute(Attribute *attribute)
{
    if (!attribute)
        return false;
    {
        std::lock_guard<std::mutex> lock(m_d->childMutex);
        const int pos = m_d->find(attribute);
        if (pos < 0)
            return false;
        D::Child &child = m_d->children[pos];
        m_d->indexErase(child.name);
        child.attribute = nullptr;
        child.name.clear();
        ++m_d->holes;
        attribute->m_host.store(nullptr, std::memory_order_release);
        m_d->compact();
    }
    attributeRemoved(attribute);
    eventAttributeRemoved.raise(attribute);
    return true;
}

QByteArray Node::type() const
{
    return QByteArrayLiteral("node");
}

bool Node::isChanged() const
{
    for (const auto &child : attributes())
        if (child.second && child.second->isChanged())
            return true;
    return false;
}

void Node::setAsDefaults()
{
    for (const auto &child : attributes())
        if (child.second)
            child.second->setAsDefaults();
}

void Node::eventAddOut(const QByteArray &id)
{
    std::lock_guard<std::mutex> lock(m_d->eventMutex);
    if (!m_d->eventsOut.contains(id))
        m_d->eventsOut.append(id);
}

void Node::eventAddIn(const QByteArray &id)
{
    std::lock_guard<std::mutex> lock(m_d->eventMutex);
    if (!m_d->eventsIn.contains(id))
        m_d->eventsIn.append(id);
}

QList<QByteArray> Node::eventsOut() const
{
    std::lock_guard<std::mutex> lock(m_d->eventMutex);
    return m_d->eventsOut;
}

QList<QByteArray> Node::eventsIn() const
{
    std::lock_guard<std::mutex> lock(m_d->eventMutex);
    return m_d->eventsIn;
}

long Node::eventAddListener(const QByteArray &id, std::function<void()> listener, ListenerType)
{
    auto entry = std::make_shared<D::EventListener>();
    entry->id = id;
    entry->func = std::move(listener);
    std::lock_guard<std::mutex> lock(m_d->eventMutex);
    const long listenerId = m_d->nextEventListenerId++;
    m_d->eventListeners.emplace(listenerId, std::move(entry));
    return listenerId;
}

long Node::eventAddListener(const QByteArray &from, const QByteArray &to, Node *obj, ListenerType,
                            const Kestrel::BinaryData *defaults)
{
    auto entry = std::make_shared<D::EventListener>();
    entry->id = from;
    entry->to = to;
    entry->obj = obj;
    if (defaults)
        entry->defaults.reset(new Kestrel::BinaryData(*defaults));
    std::lock_guard<std::mutex> lock(m_d->eventMutex);
    const long listenerId = m_d->nextEventListenerId++;
    m_d->eventListeners.emplace(listenerId, std::move(entry));
    return listenerId;
}

void Node::eventRemoveListener(long id)
{
    std::shared_ptr<D::EventListener> removed;
    {
        std::lock_guard<std::mutex> lock(m_d->eventMutex);
        auto it = m_d->eventListeners.find(id);
        if (it == m_d->eventListeners.end())
            return;
        removed = std::move(it->second);
        m_d->eventListeners.erase(it);
    }
    removed->active.store(false, std::memory_order_release);
}

void Node::eventSend(const QByteArray &id)
{
    Kestrel::BinaryData empty;
    eventSend(id, empty);
}

void Node::eventSend(const QByteArray &id, Kestrel::BinaryData &data)
{
    std::vector<std::shared_ptr<D::EventListener>> calls;
    {
        std::lock_guard<std::mutex> lock(m_d->eventMutex);
        for (const auto &entry : m_d->eventListeners)
            if (entry.second->id == id)
                calls.push_back(entry.second);
    }
    // No lock held: a listener may send, add or remove listeners, or delete objects it owns.
    for (const auto &entry : calls) {
        if (!entry->active.load(std::memory_order_acquire))
            continue;
        if (entry->func) {
            entry->func();
        } else if (entry->obj) {
            if (data.total() == 0 && entry->defaults) {
                Kestrel::BinaryData copy(*entry->defaults);
                copy.rewind();
                entry->obj->eventProcess(entry->to, copy);
            } else {
                data.rewind();
                entry->obj->eventProcess(entry->to, data);
            }
        }
    }
}

void Node::eventProcess(const QByteArray &id, Kestrel::BinaryData &data)
{
    if (Attribute *child = attribute(id))
        child->eventProcess(id, data);
}

void Node::invokeAfterUpdate(std::function<void()> func)
{
    if (!func)
        return;
    FrameQueue &queue = frameQueue();
    std::lock_guard<std::mutex> lock(queue.mutex);
    queue.pending.push_back(std::move(func));
}

void Node::runHostUpdate()
{
    FrameQueue &queue = frameQueue();
    std::vector<std::function<void()>> batch;
    {
        std::lock_guard<std::mutex> lock(queue.mutex);
        batch.swap(queue.pending);
    }
    for (auto &func : batch) {
        try {
            func();
        } catch (const std::exception &e) {
            Kestrel::Trace::error("Node::runHostUpdate # a queued function threw: %s", e.what());
        } catch (...) {
            Kestrel::Trace::error("Node::runHostUpdate # a queued function threw");
        }
    }
}

void Node::attributeAdded(Attribute *) {}

void Node::attributeRemoved(Attribute *) {}

} // namespace Tamarack
