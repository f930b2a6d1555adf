#pragma once
#include "tamarack/Attribute.h"
#include "tamarack/SpinLock.h"
#include "tamarack/tamarack_export.h"

#include "kestrel/StringUtils.h"

#include <QByteArray>

#include <mutex>
#include <typeinfo>
#include <utility>

namespace Tamarack {

// A standard container as one value, without layers: every assignment replaces the content and
// emits a change, also when the content is equal.
// Threads: value() and the setters may run on any thread at once.
template <typename C>
class TAMARACK_EXPORT AttributeContainerT : public Attribute
{
public:
    using ValueType = C;

    AttributeContainerT() = default;
    AttributeContainerT(Node *host, const QByteArray &name)
        : Attribute(host, name)
    {
    }

    C value() const
    {
        std::lock_guard<SpinLock> lock(m_lock);
        return m_value;
    }
    using Attribute::set;
    void set(const C &value) { setValue(value); }
    void setValue(C value)
    {
        {
            std::lock_guard<SpinLock> lock(m_lock);
            m_value.swap(value);
        }
        emitChange(); // the old content goes with `value`, outside the lock
    }

    // The demangled class name, unless setType gave one.
    QByteArray type() const override
    {
        {
            std::lock_guard<SpinLock> lock(m_lock);
            if (!m_type.isNull())
                return m_type;
        }
        return Kestrel::StringUtils::demangle(typeid(*this).name()).toUtf8();
    }
    void setType(const QByteArray &type)
    {
        std::lock_guard<SpinLock> lock(m_lock);
        m_type = type;
    }

private:
    C m_value;           // guarded by m_lock
    QByteArray m_type;   // guarded by m_lock
    mutable SpinLock m_lock;
};

template <typename C>
class TAMARACK_EXPORT AttributeContainer : public AttributeContainerT<C>
{
public:
    using AttributeContainerT<C>::AttributeContainerT;
};

} // namespace Tamarack
