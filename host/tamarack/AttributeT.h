#pragma once
#include "tamarack/AttributeBaseT.h"
#include "tamarack/AttributeNumericT.h"
#include "tamarack/AttributeTuple.h"
#include "tamarack/tamarack_export.h"

#include "kestrel/Color.h"
#include "kestrel/TimeStamp.h"
#include "wisket/Matrix.h"
#include "wisket/Rect.h"
#include "wisket/Size.h"
#include "wisket/Vector.h"

#include <QString>
#include <QStringList>

#include <type_traits>

namespace Tamarack {

// The concrete value attribute. Numeric T (bool and the arithmetic types) get the numeric views;
// the size types are tuples of two component attributes; every other T is a plain layered value.
// Supported T: bool, float, double, int, unsigned int, long, unsigned long, Kestrel::Color,
// Kestrel::ColorPMA, Kestrel::TimeStamp, QString, QStringList, Wisket RectT<int/float/double>,
// Vector2T/3T/4T<int/float>, Matrix2T/3T/4T<float>, SizeT<float/int>.
template <typename T, typename Enable = void>
class TAMARACK_EXPORT AttributeT : public AttributeBaseT<T>
{
public:
    using AttributeBaseT<T>::AttributeBaseT;
};

template <typename T>
class TAMARACK_EXPORT AttributeT<T, std::enable_if_t<std::is_arithmetic<T>::value>> : public AttributeNumericT<T>
{
public:
    using AttributeNumericT<T>::AttributeNumericT;
};

// A size as a tuple of two components, width (0) and height (1).
template <typename T>
class TAMARACK_EXPORT AttributeT<Wisket::SizeT<T>, void> : public AttributeTuple<Wisket::SizeT<T>, AttributeT<T>>
{
    using Base = AttributeTuple<Wisket::SizeT<T>, AttributeT<T>>;

public:
    AttributeT() = default;
    AttributeT(Node *host, const QByteArray &name, const Wisket::SizeT<T> &value = Wisket::SizeT<T>())
        : Base(host, name, value.width, value.height)
    {
    }

    void setWrapped(Wisket::SizeT<T> &value, int index, const AttributeT<T> &component) const override
    {
        (index == 0 ? value.width : value.height) = component.value();
    }
    T wrapped(const Wisket::SizeT<T> &value, int index) const override
    {
        return index == 0 ? value.width : value.height;
    }
};

} // namespace Tamarack
