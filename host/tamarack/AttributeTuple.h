#pragma once
#include "tamarack/Attribute.h"
#include "tamarack/ValueTraits.h"
#include "tamarack/tamarack_export.h"

#include <atomic>
#include <memory>
#include <mutex>

namespace Tamarack {

// A composite value T kept in two component attributes of class A (e.g. AttributeT<float>). The
// components are owned by the tuple, belong to no node, and carry the layers; the tuple hears
// their changes and emits its own.
//
// An assignment through the tuple (setValue, clearValue, copyValueFromLayer, setAsDefaults) sets
// component 0 and then 1 while only noting their changes, and emits at most ONE change at the end.
// A component changed directly (component(i).setValue) emits a tuple change at once.
//
// Threads: as for any attribute. Assignments through the tuple are serialised by a recursive
// mutex that is held while the components' own listeners run.
template <typename T, typename A>
class TAMARACK_EXPORT AttributeTuple : public Attribute
{
public:
    using ValueType = T;
    using ComponentValue = typename A::ValueType;

    AttributeTuple(Node *host, const QByteArray &name, const ComponentValue &first = ComponentValue(),
                   const ComponentValue &second = ComponentValue())
        : Attribute(host, name)
    {
        const ComponentValue defaults[2] = {first, second};
        for (int i = 0; i < 2; ++i) {
            m_components[i].reset(new A(nullptr, QByteArray(), defaults[i]));
            m_components[i]->setOwnerShorthand(this);
            m_components[i]->addListener([this] { componentChanged(); }, CHANGE_ROLE);
        }
    }
    AttributeTuple() : AttributeTuple(nullptr, QByteArray()) {}
    // Leaves the host while the components still exist; they go with the members.
    ~AttributeTuple() override { beginDestruction(); }

    A &component(int index) { return *m_components[index & 1]; }
    const A &component(int index) const { return *m_components[index & 1]; }

    // Puts the component's current value into slot index (0 or 1) of value.
    virtual void setWrapped(T &value, int index, const A &component) const = 0;
    // Slot index (0 or 1) of value.
    virtual ComponentValue wrapped(const T &value, int index) const = 0;

    T value() const
    {
        T out{};
        setWrapped(out, 0, *m_components[0]);
        setWrapped(out, 1, *m_components[1]);
        return out;
    }

    virtual void setValue(const T &value, Layer layer = LAYER_USER)
    {
        assign([&](A &c, int i) { c.setValue(wrapped(value, i), layer); });
    }

    QByteArray type() const override { return detail::ValueTraits<T>::schema(); }
    void eventProcess(const QByteArray &, Kestrel::BinaryData &data) override
    {
        T read = value();
        if (detail::ValueTraits<T>::read(data, read))
            setValue(read, LAYER_USER);
    }
    QString asString(bool *ok = nullptr, Layer layer = LAYER_CURRENT_VALUE) const override
    {
        if (ok)
            *ok = true;
        T out{};
        A first(nullptr, QByteArray(), m_components[0]->value(layer));
        A second(nullptr, QByteArray(), m_components[1]->value(layer));
        setWrapped(out, 0, first);
        setWrapped(out, 1, second);
        return detail::TextTraits<T>::toString(out);
    }
    using Attribute::set;
    bool set(const QString &text, Layer layer = LAYER_USER, ValueUnit = UNKNOWN_UNIT) override
    {
        T parsed = value();
        if (!detail::TextTraits<T>::fromString(text, parsed))
            return false;
        setValue(parsed, layer);
        return true;
    }

    void copyValueFromLayer(Layer from, Layer to) override
    {
        assign([&](A &c, int) { c.copyValueFromLayer(from, to); });
    }
    bool isChanged() const override { return m_components[0]->isChanged() || m_components[1]->isChanged(); }
    void clearValue(Layer layer) override
    {
        assign([&](A &c, int) { c.clearValue(layer); });
    }
    bool isValueDefinedOnLayer(Layer layer) const override
    {
        return m_components[0]->isValueDefinedOnLayer(layer) || m_components[1]->isValueDefinedOnLayer(layer);
    }
    void setAsDefaults() override
    {
        assign([&](A &c, int) { c.setAsDefaults(); });
    }

protected:
    // Runs f on component 0 then 1 with their changes only noted; emits once if any changed.
    template <typename F>
    void assign(F f)
    {
        bool changed = false;
        {
            std::lock_guard<std::recursive_mutex> lock(m_assignMutex);
            ++m_assigning;
            f(*m_components[0], 0);
            f(*m_components[1], 1);
            if (--m_assigning == 0)
                changed = m_noted.exchange(false);
        }
        if (changed)
            emitChange();
    }

private:
    // Runs on the thread that changed the component.
    void componentChanged()
    {
        if (m_assigning.load() > 0)
            m_noted.store(true);
        else
            emitChange();
    }

    std::unique_ptr<A> m_components[2];
    std::recursive_mutex m_assignMutex;
    std::atomic<int> m_assigning{0}; // nesting of assign(); changed only under m_assignMutex
    std::atomic<bool> m_noted{false}; // a component changed during assign()
};

} // namespace Tamarack
