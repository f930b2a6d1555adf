#include "tamarack/Attribute.h"
#include "tamarack/Node.h"
#include "tamarack/SpinLock.h"

#include "kestrel/Trace.h"

#include <QVarLengthArray>

#include <algorithm>
#include <memory>
#include <mutex>

namespace Tamarack {

// Registered listeners of one attribute. Emission copies the entries of a role under the lock
// and calls them with no lock held; removal clears an entry's flag so that an emission running
// on a copy skips it if its turn has not come yet.
struct Attribute::Listeners
{
    struct Entry
    {
        Entry(std::function<void()> f, int r, long i) : func(std::move(f)), id(i), role(r) {}
        std::function<void()> func;
        long id;
        int role;
        std::atomic<bool> active{true};
    };

    // Short sections only, never held while a listener runs; a watched attribute has one or two
    // listeners, so both usually fit in the state's own allocation.
    SpinLock lock;
    QVarLengthArray<std::shared_ptr<Entry>, 2> entries; // guarded by lock; ascending ids
    long nextId = 1;                                    // guarded by lock
};

Attribute::Attribute() = default;

Attribute::Attribute(Node *host, const QByteArray &name)
    : m_name(name)
{
    if (host && !host->addAttribute(name, this))
        Kestrel::Trace::warning("Attribute::Attribute # could not add '%s' to its host", name.constData());
}

Attribute::~Attribute()
{
    beginDestruction();
    delete m_listeners.load(std::memory_order_acquire);
}

Attribute::Listeners *Attribute::listeners()
{
    Listeners *current = m_listeners.load(std::memory_order_acquire);
    if (current)
        return current;
    auto *made = new Listeners;
    // Two racing first listeners agree on one state: the loser frees its own.
    if (m_listeners.compare_exchange_strong(current, made, std::memory_order_acq_rel))
        return made;
    delete made;
    return current;
}

long Attribute::addListener(std::function<void()> listener, int role)
{
    Listeners *state = listeners();
    auto entry = std::make_shared<Listeners::Entry>(std::move(listener), role, 0);
    std::lock_guard<SpinLock> lock(state->lock);
    const long id = state->nextId++;
    entry->id = id;
    // Ids only grow, so appending keeps the entries in id order.
    state->entries.push_back(std::move(entry));
    return id;
}

void Attribute::removeListener(long id)
{
    Listeners *state = m_listeners.load(std::memory_order_acquire);
    if (!state)
        return;
    std::shared_ptr<Listeners::Entry> removed; // released after the unlock
    {
        std::lock_guard<SpinLock> lock(state->lock);
        auto &entries = state->entries;
        auto it = std::lower_bound(entries.begin(), entries.end(), id,
                                   [](const std::shared_ptr<Listeners::Entry> &entry, long key) { return entry->id < key; });
        if (it == entries.end() || (*it)->id != id)
            return;
        removed = std::move(*it);
        entries.erase(it);
    }
    removed->active.store(false, std::memory_order_release);
}

bool Attribute::attachObserver(ChangeObserver *observer, unsigned cookie)
{
    if (m_listeners.load(std::memory_order_acquire) || m_observer.load(std::memory_order_acquire))
        return false;
    m_observerCookie.store(cookie, std::memory_order_relaxed);
    ChangeObserver *expected = nullptr;
    return m_observer.compare_exchange_strong(expected, observer, std::memory_order_acq_rel);
}

bool Attribute::replaceObserver(ChangeObserver *from, unsigned cookie, ChangeObserver *to)
{
    if (m_observer.load(std::memory_order_acquire) != from || m_observerCookie.load(std::memory_order_relaxed) != cookie)
        return false;
    return m_observer.compare_exchange_strong(from, to, std::memory_order_acq_rel);
}

bool Attribute::detachObserver(ChangeObserver *observer)
{
    return m_observer.compare_exchange_strong(observer, nullptr, std::memory_order_acq_rel);
}

void Attribute::emitRole(int role)
{
    Listeners *state = m_listeners.load(std::memory_order_acquire);
    // Most attributes have a listener or two: keep the copy off the heap on that path.
    QVarLengthArray<std::shared_ptr<Listeners::Entry>, 4> calls;
    if (state) {
        std::lock_guard<SpinLock> lock(state->lock);
        for (const auto &entry : state->entries)
            if (entry->role == role)
                calls.push_back(entry);
    }
    // The observer ranks before every listener: it was attached before the first of them.
    if (role == CHANGE_ROLE)
        if (ChangeObserver *observer = m_observer.load(std::memory_order_acquire))
            observer->attributeChanged(m_observerCookie.load(std::memory_order_relaxed));
    // The copies keep each function alive even if a listener removes itself while it runs.
    for (const auto &entry : calls)
        if (entry->active.load(std::memory_order_acquire))
            entry->func();
}

void Attribute::emitChange()
{
    emitRole(CHANGE_ROLE);
}

void Attribute::emitDelete()
{
    emitRole(DELETE_ROLE);
}

void Attribute::beginDestruction()
{
    if (m_destroying.exchange(true))
        return;
    if (Node *owner = host())
        owner->removeAttribute(this);
    emitDelete();
}

void Attribute::eventProcess(const QByteArray &, Kestrel::BinaryData &) {}

float Attribute::asFloat(bool *ok, Layer) const
{
    if (ok)
        *ok = false;
    return 0.0f;
}

int Attribute::asInt(bool *ok, Layer) const
{
    if (ok)
        *ok = false;
    return 0;
}

QString Attribute::asString(bool *ok, Layer) const
{
    if (ok)
        *ok = false;
    return QString();
}

bool Attribute::set(float, Layer, ValueUnit)
{
    return false;
}

bool Attribute::set(int, Layer, ValueUnit)
{
    return false;
}

bool Attribute::set(const QString &, Layer, ValueUnit)
{
    return false;
}

bool Attribute::set(const Wisket::Vector2T<float> &, Layer, QList<ValueUnit>)
{
    return false;
}

bool Attribute::set(const Wisket::Vector3T<float> &, Layer, QList<ValueUnit>)
{
    return false;
}

bool Attribute::set(const Wisket::Vector4T<float> &, Layer, QList<ValueUnit>)
{
    return false;
}

QByteArray Attribute::type() const
{
    return QByteArray();
}

void Attribute::copyValueFromLayer(Layer, Layer) {}

bool Attribute::isChanged() const
{
    return false;
}

void Attribute::clearValue(Layer) {}

bool Attribute::isValueDefinedOnLayer(Layer layer) const
{
    return layer > LAYER_4;
}

Attribute *Attribute::attribute(const QByteArray &) const
{
    return nullptr;
}

void Attribute::setAsDefaults() {}

bool Attribute::layerForSerialization(SerializationOptions options, Layer &layer) const
{
    static const struct { SerializationOption bit; Layer layer; } s_order[] = {
        {SERIALIZE_LAYER_3, LAYER_3},
        {SERIALIZE_LAYER_USER, LAYER_USER},
        {SERIALIZE_LAYER_1, LAYER_1},
        {SERIALIZE_LAYER_DEFAULT, LAYER_DEFAULT},
    };
    for (const auto &step : s_order) {
        if ((options & step.bit) && isValueDefinedOnLayer(step.layer)) {
            layer = step.layer;
            return true;
        }
    }
    return false;
}

} // namespace Tamarack
