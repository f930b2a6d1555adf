#pragma once
#include "tamarack/Attribute.h"
#include "tamarack/SpinLock.h"
#include "tamarack/ValueTraits.h"
#include "tamarack/tamarack_export.h"

#include <mutex>
#include <type_traits>

namespace Tamarack {
template <typename T> class TransitionManagerT;

// A value of type T on the five stored layers. The current layer is the highest defined one and
// the current value is its value; LAYER_DEFAULT is always defined.
//
// Threads: values may be set and read from any thread. The value fields are guarded by a spin
// lock that is never held while listeners run; a change is emitted on the thread that made it,
// after the lock is released, so two racing sets may emit in either order.
template <typename T>
class TAMARACK_EXPORT AttributeBaseT : public Attribute
{
public:
    using ValueType = T;

    AttributeBaseT() = default;
    // value goes on LAYER_DEFAULT. The host's added listeners run before it is stored.
    AttributeBaseT(Node *host, const QByteArray &name, const T &value = T())
        : Attribute(host, name)
    {
        m_value = value;
        m_values[LAYER_DEFAULT] = value;
    }

    // Stores the value on the layer (above LAYER_4: the current layer). Below the current layer it
    // is only stored; otherwise the layer becomes current, and a value that differs from the
    // current value becomes it and is emitted as a change.
    virtual void setValue(const T &value, Layer layer = LAYER_USER)
    {
        {
            std::lock_guard<SpinLock> lock(m_lock);
            const int l = resolve(layer);
            m_values[l] = value;
            m_defined[l] = true;
            if (l < m_currentLayer)
                return;
            m_currentLayer = l;
            if (m_value == value)
                return;
            m_value = value;
        }
        emitChange();
    }

    T value() const
    {
        std::lock_guard<SpinLock> lock(m_lock);
        return m_value;
    }
    // LAYER_CURRENT gives the current layer's stored value, LAYER_CURRENT_VALUE the current value;
    // an undefined stored layer gives whatever it held last (T() if never set).
    T value(Layer layer) const
    {
        std::lock_guard<SpinLock> lock(m_lock);
        return valueLocked(layer);
    }
    Layer currentLayer() const
    {
        std::lock_guard<SpinLock> lock(m_lock);
        return Layer(m_currentLayer);
    }

    QByteArray type() const override { return detail::ValueTraits<T>::schema(); }

    // Reads one value of T; on success sets it on LAYER_USER, otherwise changes nothing.
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
        return detail::TextTraits<T>::toString(value(layer));
    }
    using Attribute::set;
    bool set(const QString &text, Layer layer = LAYER_USER, ValueUnit = UNKNOWN_UNIT) override
    {
        T parsed = value(layer);
        if (!detail::TextTraits<T>::fromString(text, parsed))
            return false;
        setValue(parsed, layer);
        return true;
    }
    bool set(const Wisket::Vector2f &v, Layer layer = LAYER_USER, QList<ValueUnit> = QList<ValueUnit>()) override
    {
        return setIfSame(v, layer);
    }
    bool set(const Wisket::Vector3f &v, Layer layer = LAYER_USER, QList<ValueUnit> = QList<ValueUnit>()) override
    {
        return setIfSame(v, layer);
    }
    bool set(const Wisket::Vector4f &v, Layer layer = LAYER_USER, QList<ValueUnit> = QList<ValueUnit>()) override
    {
        return setIfSame(v, layer);
    }

    // from may be LAYER_CURRENT or LAYER_CURRENT_VALUE; an undefined stored layer copies nothing.
    void copyValueFromLayer(Layer from, Layer to) override
    {
        if (from <= LAYER_4 && !isValueDefinedOnLayer(from))
            return;
        setValue(value(from), to);
    }

    bool isChanged() const override
    {
        std::lock_guard<SpinLock> lock(m_lock);
        return m_currentLayer > LAYER_DEFAULT && !(m_values[LAYER_DEFAULT] == m_value);
    }

    // Clears the layer's flag (LAYER_DEFAULT stays defined). If it was the current layer, the
    // highest defined layer below becomes current, and its value is emitted if it differs.
    void clearValue(Layer layer) override
    {
        {
            std::lock_guard<SpinLock> lock(m_lock);
            const int l = resolve(layer);
            if (l == LAYER_DEFAULT)
                return;
            m_defined[l] = false;
            if (l != m_currentLayer)
                return;
            int below = l - 1;
            while (!m_defined[below]) // ends at LAYER_DEFAULT, which is always defined
                --below;
            m_currentLayer = below;
            if (m_values[below] == m_value)
                return;
            m_value = m_values[below];
        }
        emitChange();
    }

    bool isValueDefinedOnLayer(Layer layer) const override
    {
        if (layer > LAYER_4)
            return true;
        if (layer < LAYER_DEFAULT)
            return false;
        std::lock_guard<SpinLock> lock(m_lock);
        return m_defined[layer];
    }

    // Moves a LAYER_USER value to LAYER_DEFAULT and clears LAYER_USER.
    void setAsDefaults() override
    {
        if (!isValueDefinedOnLayer(LAYER_USER))
            return;
        setValue(value(LAYER_USER), LAYER_DEFAULT);
        clearValue(LAYER_USER);
    }

protected:
    // Under m_lock.
    T valueLocked(Layer layer) const
    {
        if (layer == LAYER_CURRENT_VALUE)
            return m_value;
        return m_values[resolve(layer)];
    }
    // A stored layer, with anything above LAYER_4 (or below 0) meaning the current one. Under m_lock.
    int resolve(Layer layer) const
    {
        return (layer < LAYER_DEFAULT || layer > LAYER_4) ? m_currentLayer : int(layer);
    }

private:
    template <typename V>
    bool setIfSame(const V &v, Layer layer)
    {
        if constexpr (std::is_same<V, T>::value) {
            setValue(v, layer);
            return true;
        } else {
            (void)v;
            (void)layer;
            return false;
        }
    }

    // Guarded by m_lock, in this order.
    TransitionManagerT<T> *m_transition = nullptr; // no transitions in this host: always null
    T m_value{};
    int m_currentLayer = LAYER_DEFAULT;
    T m_values[LAYER_COUNT]{};
    bool m_defined[LAYER_COUNT] = {true, false, false, false, false};
    mutable SpinLock m_lock;
};

} // namespace Tamarack
