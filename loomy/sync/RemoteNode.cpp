#include "loomy/sync/RemoteNode.h"

#include "loomy/sync/NodeSerialization.h"
#include "loomy/types/AliasDeserializer.h"

#include "kestrel/ReadWriteLocker.h"
#include "kestrel/Trace.h"
#include "tamarack/AttributeAlias.h"

#include <algorithm>

namespace Loomy {

namespace {

using Tamarack::Attribute;

const QByteArray s_sliceBegin = QByteArrayLiteral("event-slice-begin");
const QByteArray s_slice = QByteArrayLiteral("event-slice");
const QByteArray s_initialized = QByteArrayLiteral("initialized");
const QByteArray s_destroyed = QByteArrayLiteral("destroyed");

// Ids of sliced events, shared by every node of the process: any thread may slice.
std::atomic<int> s_sliceId{0};

// QRegExp keeps match state in the object: callers hold m_patternMutex, which guards the stored
// expressions, so no two matches share that state.
bool searches(const QRegExp &regExp, const QString &path)
{
    return regExp.indexIn(path) >= 0;
}

// The component C of an expression "(^|/)C$", C plain letters, digits and underscores, searched
// case-sensitively: exactly the paths whose last component is C match. Empty for any other.
QByteArray lastComponentOnly(const QRegExp &regExp)
{
    static const QString s_prefix = QStringLiteral("(^|/)");
    const QString pattern = regExp.pattern();
    if (regExp.caseSensitivity() != Qt::CaseSensitive
        || (regExp.patternSyntax() != QRegExp::RegExp && regExp.patternSyntax() != QRegExp::RegExp2)
        || !pattern.startsWith(s_prefix) || !pattern.endsWith(QLatin1Char('$'))
        || pattern.size() == s_prefix.size() + 1)
        return QByteArray();
    const QString component = pattern.mid(s_prefix.size(), pattern.size() - s_prefix.size() - 1);
    for (const QChar c : component)
        if (c.unicode() > 127 || !(c.isLetterOrNumber() || c == QLatin1Char('_')))
            return QByteArray();
    return component.toLatin1();
}

// An ASCII component matches the same in the UTF-8 bytes as in the converted text.
bool endsWithComponent(const QByteArray &path, const QByteArray &component)
{
    return path.endsWith(component)
        && (path.size() == component.size() || path.at(path.size() - component.size() - 1) == '/');
}

} // namespace

RemoteNode::RemoteNode(Tamarack::Node *host, const QByteArray &name)
    : Tamarack::Node(host, name)
{
    eventAddOut(s_initialized);
    eventAddOut(s_destroyed);
    // Every attribute named id, at any depth, keeps a value of its own on each side.
    setSyncFlags(QRegExp(QStringLiteral("(^|/)id$"), Qt::CaseSensitive, QRegExp::RegExp), SyncFlags::SYNC_NONE);
    m_watcher.reset(new NodeWatcher(m_symbols, m_cache));
    // The first listener has the lowest id: pattern and flag bookkeeping happen before any
    // session hears of the event.
    m_watcher->addListener([this](const NodeWatcher::Event &event) { handleAttributeChange(event); });
    m_watcher->startWatching(*this, true);
}

// Sessions drop the node on "destroyed", before any member goes; the watcher then goes before the
// cache and the registry it uses.
RemoteNode::~RemoteNode()
{
    eventSend(s_destroyed);
}

void RemoteNode::update()
{
    m_watcher->update();
    std::vector<unsigned int> order;
    std::set<unsigned int> changed;
    {
        Kestrel::MutexLocker locker(m_changedMutex);
        order.swap(m_changedOrder);
        changed.swap(m_changedSet);
    }
    // A change caused by a listener here is filed anew and served at the next update.
    for (unsigned int symbol : order)
        runListeners(symbol);
}

bool RemoteNode::addDeepAttribute(const QByteArray &fullName, Tamarack::Attribute *attribute)
{
    if (fullName.startsWith('/')) {
        Kestrel::Trace::error("RemoteNode::addDeepAttribute # full name shouldn't start with '/': %s", fullName.constData());
        return false;
    }
    if (!attribute) {
        Kestrel::Trace::error("RemoteNode::addDeepAttribute # got a null attribute. Ignoring");
        return false;
    }
    QList<QByteArray> parts = fullName.split('/');
    const QByteArray name = parts.takeLast();
    Tamarack::Node *current = this;
    for (const QByteArray &part : parts) {
        Attribute *child = current->attribute(part);
        if (!child) {
            current = new Tamarack::Node(current, part); // owned by the tree
            continue;
        }
        auto *node = Tamarack::toNode(followAliases(child));
        if (!node) {
            // Nodes made so far stay.
            Kestrel::Trace::error("RemoteNode::addDeepAttribute # Failed to add attribute. An attribute already exists on the path where a node is expected.");
            return false;
        }
        current = node;
    }
    return current->addAttribute(name, attribute);
}

bool RemoteNode::addNode(const QByteArray &fullName, Tamarack::Node *node)
{
    return addDeepAttribute(fullName, node);
}

void RemoteNode::onChangeImpl(const QRegExp &regExp, std::function<void(Tamarack::Attribute *)> listener)
{
    unsigned long id;
    m_hasPatternListeners.store(true, std::memory_order_release);
    {
        Kestrel::MutexLocker locker(m_patternMutex);
        id = m_pendingListeners.size();
        m_pendingListeners.push_back(PendingAttributeListener{regExp, listener});
    }
    // From here on later attributes are matched at their addition; now the existing ones.
    QRegExp search(regExp);
    std::vector<unsigned int> matches;
    walkAttributesWithPath(*this, [&](Tamarack::Attribute &, const QByteArray &path) {
        const unsigned int symbol = m_symbols.lookupOrDefine(path);
        if (search.indexIn(QString::fromUtf8(path)) >= 0)
            matches.push_back(symbol);
    });
    for (unsigned int symbol : matches) {
        {
            Kestrel::MutexLocker locker(m_patternMutex);
            m_attributeListeners[symbol].emplace(id, listener);
        }
        // Runs once for each existing match at the next update, with no change needed.
        enqueueChanged(symbol);
    }
}

long RemoteNode::addAttributeChangeListener(const std::function<void(const NodeWatcher::Event &)> &listener)
{
    return m_watcher->addListener(listener);
}

void RemoteNode::removeAttributeChangeListener(long id)
{
    m_watcher->removeListener(id);
}

long RemoteNode::addEventListener(const std::function<void(const Event &)> &listener)
{
    Kestrel::WriteLocker locker(&m_eventListenersLock);
    const long id = m_nextEventListenerId++;
    m_eventListeners.emplace(id, listener);
    return id;
}

void RemoteNode::removeEventLIstener(long id)
{
    Kestrel::WriteLocker locker(&m_eventListenersLock);
    m_eventListeners.erase(id);
}

void RemoteNode::ignoreOne(const NodeWatcher::Event &event)
{
    m_watcher->ignoreOne(event);
}

void RemoteNode::stopIgnoring(const NodeWatcher::Event &event)
{
    m_watcher->stopIgnoring(event);
}

void RemoteNode::processPendingAdditions()
{
    m_watcher->update();
}

void RemoteNode::setSyncFlags(const QRegExp &regExp, SyncFlags::Flag flag)
{
    updateSyncFlags(regExp, flag);
    Kestrel::MutexLocker locker(m_patternMutex);
    m_syncFlagSettings.push_back(SyncFlagSetting{regExp, flag, lastComponentOnly(regExp)});
}

// Nodes are never visited; an attribute reached through an alias counts under the alias's path.
void RemoteNode::updateSyncFlags(const QRegExp &regExp, SyncFlags::Flag flag)
{
    QRegExp search(regExp);
    walkAttributesWithPath(*this, [&](Tamarack::Attribute &, const QByteArray &path) {
        if (search.indexIn(QString::fromUtf8(path)) < 0)
            return;
        if (const unsigned int symbol = m_symbols.lookup(path))
            m_syncFlags.setFlags(symbol, flag);
    });
}

// Every rule is tried: the last match wins.
void RemoteNode::checkForSyncFlags(unsigned int symbol)
{
    const QByteArray name = m_symbols.name(symbol);
    QString path; // converted for the first rule that runs its expression
    bool converted = false;
    Kestrel::MutexLocker locker(m_patternMutex);
    for (const SyncFlagSetting &setting : m_syncFlagSettings) {
        bool matches;
        if (!setting.lastComponent.isEmpty()) {
            matches = endsWithComponent(name, setting.lastComponent);
        } else {
            if (!converted)
                path = QString::fromUtf8(name);
            converted = true;
            matches = searches(setting.regExp, path);
        }
        if (matches)
            m_syncFlags.setFlags(symbol, setting.flag);
    }
}

QRegExp RemoteNode::makeRegExp(const QString &pattern)
{
    QString regExp = QRegExp::escape(pattern);
    regExp.replace(QLatin1String("\\*\\*"), QLatin1String(".+"));
    regExp.replace(QLatin1String("\\*"), QLatin1String("[^/]+"));
    return QRegExp(QLatin1Char('^') + regExp + QLatin1Char('$'), Qt::CaseSensitive, QRegExp::RegExp);
}

// Addresses, not contents: an event that a listener sends in answer to a received one is another
// object and goes out, while the received one is never echoed.
void RemoteNode::eventProcess(const QByteArray &name, Kestrel::BinaryData &data)
{
    if (handlingRemoteEvent(name, data))
        Tamarack::Node::eventProcess(name, data);
    else
        insertEvent(name, data);
}

void RemoteNode::eventProcessSlice(const QByteArray &name, Kestrel::BinaryData &data, unsigned long sliceSize)
{
    if (sliceSize == 0) {
        Kestrel::Trace::error("RemoteNode::eventProcessSlice # Slice size must be positive");
        return;
    }
    const unsigned long total = data.total();
    const unsigned long remainder = total % sliceSize;
    const unsigned long count = total / sliceSize + (remainder ? 1 : 0);
    // Only an empty payload goes whole; the decision to slice belongs to the caller.
    if (remainder == 0 && total < sliceSize) {
        eventProcess(name, data);
        return;
    }
    const int id = s_sliceId.fetch_add(1);

    Kestrel::BinaryData begin;
    begin.writeInt32(id);
    begin.writeString(name.constData());
    begin.writeInt32(static_cast<int>(sliceSize));
    begin.writeInt64(static_cast<long>(total));
    eventProcess(s_sliceBegin, begin);

    // insertEvent copies each slice, so the buffer can be reused.
    Kestrel::BinaryData slice;
    for (unsigned long index = 0; index < count; ++index) {
        const unsigned long offset = index * sliceSize;
        slice.clear();
        slice.writeInt32(id);
        slice.writeInt32(static_cast<int>(index));
        slice.writeBlob(data.data() + offset, static_cast<int>(std::min(sliceSize, total - offset)));
        slice.setTotal(slice.pos());
        eventProcess(s_slice, slice);
    }
}

void RemoteNode::handleRemoteEvent(const QByteArray &name, Kestrel::BinaryData &data, long source)
{
    if (name == s_sliceBegin) {
        const int id = data.readInt32();
        QByteArray eventName;
        data.readString(eventName);
        const int sliceSize = data.readInt32();
        const int totalSize = data.readInt32();
        // Without a positive slice size the indices below would never reach the total.
        if (sliceSize <= 0 && totalSize > 0) {
            Kestrel::Trace::error("RemoteNode::handleSlicedEvent # Bad slice size %d", sliceSize);
            return;
        }
        const auto key = std::make_pair(source, id);
        // A begin for an id in progress is dropped; the earlier record stays.
        if (m_slicedEvents.count(key))
            return;
        // Nothing is allocated for the announced sizes: storage grows as slices arrive.
        m_slicedEvents.emplace(key, SlicedEvent{eventName, sliceSize, totalSize, QByteArray(), {}});
    } else if (name == s_slice) {
        handleSlice(source, data);
    } else if (name == s_initialized) {
        // A local event of this node: it does not pass eventProcess.
        eventSend(s_initialized);
    } else {
        dispatchRemoteEvent(name, data);
    }
}

// Saving the previous pair makes nested dispatches safe.
void RemoteNode::dispatchRemoteEvent(const QByteArray &name, Kestrel::BinaryData &data)
{
    struct Restore
    {
        RemoteNode &node;
        const QByteArray *name;
        const Kestrel::BinaryData *data;
        ~Restore()
        {
            node.m_handlingName.store(name);
            node.m_handlingData.store(data);
        }
    } restore{*this, m_handlingName.load(), m_handlingData.load()};
    m_handlingName.store(&name);
    m_handlingData.store(&data);
    eventProcess(name, data);
}

bool RemoteNode::handlingRemoteEvent(const QByteArray &name, const Kestrel::BinaryData &data) const
{
    return m_handlingName.load() == &name && m_handlingData.load() == &data;
}

void RemoteNode::handleSlice(long source, Kestrel::BinaryData &data)
{
    const int id = data.readInt32();
    const int index = data.readInt32();
    const auto key = std::make_pair(source, id);
    auto it = m_slicedEvents.find(key);
    if (it == m_slicedEvents.end()) {
        Kestrel::Trace::error("RemoteNode::handleSlicedEvent # Unknown event-slice %d", id);
        return;
    }
    SlicedEvent &sliced = it->second;
    const qint64 offset = qint64(index) * sliced.sliceSize;
    if (index < 0 || offset >= sliced.totalSize) {
        Kestrel::Trace::error("RemoteNode::handleSlicedEvent # Bad slice (idx %d)", index);
        return;
    }
    const int length = static_cast<int>(std::min<qint64>(sliced.sliceSize, sliced.totalSize - offset));
    // A slice whose bytes aren't all in the event can't be read: no room is made for it.
    if (qint64(length) > qint64(data.total()) - qint64(data.pos()))
        return;
    // From here on a slice that fails to read stays missing, and what was there stays as it was.
    const int inPlace = sliced.data.size() / sliced.sliceSize; // slices held in data
    if (index < inPlace) {
        data.readBlob(sliced.data.data() + offset, length); // a repeat overwrites its place
        return;
    }
    if (index > inPlace) {
        QByteArray bytes(length, Qt::Uninitialized);
        if (data.readBlob(bytes.data(), length))
            sliced.ahead[index] = bytes;
        return;
    }
    sliced.data.resize(int(offset) + length);
    if (!data.readBlob(sliced.data.data() + offset, length)) {
        sliced.data.resize(int(offset));
        return;
    }
    // The gap is closed: the slices kept behind it move into place, up to the next gap.
    for (auto next = sliced.ahead.begin();
         next != sliced.ahead.end() && next->first == sliced.data.size() / sliced.sliceSize;
         next = sliced.ahead.erase(next))
        sliced.data.append(next->second);
    if (sliced.data.size() < sliced.totalSize)
        return;

    // Out of the table before the dispatch, so that a listener that throws leaves nothing behind.
    const QByteArray name = sliced.name;
    QByteArray bytes = std::move(sliced.data);
    m_slicedEvents.erase(it);
    // Dispatched without a further copy: the listeners must not keep the data beyond the call.
    Kestrel::BinaryData whole;
    whole.linkTo(bytes.data(), bytes.size());
    whole.setTotal(bytes.size());
    dispatchRemoteEvent(name, whole);
}

void RemoteNode::insertEvent(const QByteArray &name, Kestrel::BinaryData &data)
{
    Event event{m_symbols.lookupOrDefine(name), Kestrel::BinaryData()};
    event.data.append(data);
    event.data.rewind();
    std::map<long, std::function<void(const Event &)>> listeners;
    {
        Kestrel::ReadLocker locker(&m_eventListenersLock);
        listeners = m_eventListeners;
    }
    // No connection, no listener: the event is lost.
    for (const auto &listener : listeners)
        listener.second(event);
}

// Runs on whichever thread raised the event.
void RemoteNode::handleAttributeChange(const NodeWatcher::Event &event)
{
    switch (event.type) {
    case NodeWatcher::ATTRIBUTE_ADDED: {
        bool listeners;
        bool flagRules;
        {
            Kestrel::MutexLocker locker(m_patternMutex);
            listeners = !m_pendingListeners.empty();
            flagRules = !m_syncFlagSettings.empty();
        }
        // Each does nothing without its rules; the test spares it the mutex.
        if (listeners)
            checkForPendingListeners(event.symbol);
        if (flagRules)
            checkForSyncFlags(event.symbol);
        if (m_hasPatternListeners.load(std::memory_order_acquire))
            enqueueChanged(event.symbol);
        break;
    }
    case NodeWatcher::ATTRIBUTE_CHANGED:
        if (m_hasPatternListeners.load(std::memory_order_acquire))
            enqueueChanged(event.symbol);
        break;
    case NodeWatcher::ATTRIBUTE_REMOVED: {
        // A removed attribute runs no pattern listener this frame.
        Kestrel::MutexLocker locker(m_changedMutex);
        if (m_changedSet.erase(event.symbol))
            m_changedOrder.erase(std::remove(m_changedOrder.begin(), m_changedOrder.end(), event.symbol),
                                 m_changedOrder.end());
        break;
    }
    case NodeWatcher::NODE_ADDED:
    case NodeWatcher::NODE_REMOVED:
        break;
    }
}

// Regular expressions run here, at additions only, never on a change.
void RemoteNode::checkForPendingListeners(unsigned int symbol)
{
    Kestrel::MutexLocker locker(m_patternMutex);
    if (m_pendingListeners.empty())
        return;
    const QString path = QString::fromUtf8(m_symbols.name(symbol));
    auto &listeners = m_attributeListeners[symbol];
    for (unsigned long id = 0; id < m_pendingListeners.size(); ++id) {
        if (listeners.count(id))
            continue;
        if (searches(m_pendingListeners[id].regExp, path))
            listeners.emplace(id, m_pendingListeners[id].listener);
    }
}

// Listeners run on a copy, with no lock: one may add pattern listeners or remove the attribute,
// so the attribute is looked up anew for each call and may be null.
void RemoteNode::runListeners(unsigned int symbol)
{
    std::map<unsigned long, std::function<void(Tamarack::Attribute *)>> listeners;
    {
        Kestrel::MutexLocker locker(m_patternMutex);
        auto it = m_attributeListeners.find(symbol);
        if (it == m_attributeListeners.end())
            return;
        listeners = it->second;
    }
    for (const auto &listener : listeners)
        listener.second(m_cache.find(symbol));
}

void RemoteNode::enqueueChanged(unsigned int symbol)
{
    Kestrel::MutexLocker locker(m_changedMutex);
    if (m_changedSet.insert(symbol).second)
        m_changedOrder.push_back(symbol);
}

Tamarack::Node *findOrCreateNode(QList<QByteArray> path, Tamarack::Node *node,
                                 QMap<QByteArray, Tamarack::Node *> *created, QByteArray prefix)
{
    if (path.isEmpty())
        return node;
    const QByteArray name = path.takeFirst();
    prefix = prefix.isEmpty() ? name : prefix + '/' + name;
    Tamarack::Node *next;
    Attribute *child = node->attribute(name); // aliases are not followed here
    if (!child) {
        next = new Tamarack::Node(node, name);
        if (created)
            (*created)[prefix] = next;
    } else if (auto *childNode = Tamarack::toNode(child)) {
        next = childNode;
    } else {
        Kestrel::Trace::error("findOrCreateNode # '%s'' is not a node!", name.constData());
        return nullptr;
    }
    return findOrCreateNode(path, next, created, prefix);
}

bool isNodeOrAbove(const Tamarack::Attribute *attribute, const Tamarack::Node &node)
{
    for (const Tamarack::Attribute *current = &node; current; current = current->host())
        if (current == attribute)
            return true;
    return false;
}

} // namespace Loomy
