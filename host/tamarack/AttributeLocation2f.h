#pragma once
#include "tamarack/AttributeT.h"
#include "tamarack/tamarack_export.h"

namespace Tamarack {

// A 2D location as a tuple of two float components, x (0) and y (1).
class TAMARACK_EXPORT AttributeLocation2f : public AttributeTuple<Wisket::Vector2f, AttributeT<float>>
{
public:
    AttributeLocation2f();
    AttributeLocation2f(Node *host, const QByteArray &name, const Wisket::Vector2f &value = Wisket::Vector2f());
    ~AttributeLocation2f() override;

    void setWrapped(Wisket::Vector2f &value, int index, const AttributeT<float> &component) const override;
    float wrapped(const Wisket::Vector2f &value, int index) const override;

    QByteArray type() const override; // "location2:float"
    using AttributeTuple::set;
    bool set(const Wisket::Vector2f &value, Layer layer = LAYER_USER,
             QList<ValueUnit> units = QList<ValueUnit>()) override;
};

} // namespace Tamarack
