#include "tamarack/AttributeLocation2f.h"

namespace Tamarack {

AttributeLocation2f::AttributeLocation2f()
    : AttributeLocation2f(nullptr, QByteArray())
{
}

AttributeLocation2f::AttributeLocation2f(Node *host, const QByteArray &name, const Wisket::Vector2f &value)
    : AttributeTuple(host, name, value.x, value.y)
{
}

AttributeLocation2f::~AttributeLocation2f() = default;

void AttributeLocation2f::setWrapped(Wisket::Vector2f &value, int index, const AttributeT<float> &component) const
{
    (index == 0 ? value.x : value.y) = component.value();
}

float AttributeLocation2f::wrapped(const Wisket::Vector2f &value, int index) const
{
    return index == 0 ? value.x : value.y;
}

QByteArray AttributeLocation2f::type() const
{
    return QByteArrayLiteral("location2:float");
}

bool AttributeLocation2f::set(const Wisket::Vector2f &value, Layer layer, QList<ValueUnit>)
{
    setValue(value, layer);
    return true;
}

} // namespace Tamarack
