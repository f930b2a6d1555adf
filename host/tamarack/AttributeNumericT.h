#pragma once
#include "tamarack/AttributeBaseT.h"
#include "tamarack/tamarack_export.h"

namespace Tamarack {

// A numeric value on layers, with float, int and text views. Conversions are plain casts.
template <typename T>
class TAMARACK_EXPORT AttributeNumericT : public AttributeBaseT<T>
{
public:
    using Layer = Attribute::Layer;
    using ValueUnit = Attribute::ValueUnit;
    using AttributeBaseT<T>::AttributeBaseT;

    float asFloat(bool *ok = nullptr, Layer layer = Attribute::LAYER_CURRENT_VALUE) const override
    {
        if (ok)
            *ok = true;
        return static_cast<float>(this->value(layer));
    }
    int asInt(bool *ok = nullptr, Layer layer = Attribute::LAYER_CURRENT_VALUE) const override
    {
        if (ok)
            *ok = true;
        return static_cast<int>(this->value(layer));
    }

    using AttributeBaseT<T>::set;
    // PERCENTAGE_UNIT is stored as the plain number: this host has no expressions.
    bool set(float value, Layer layer = Attribute::LAYER_USER, ValueUnit = Attribute::UNKNOWN_UNIT) override
    {
        this->setValue(static_cast<T>(value), layer);
        return true;
    }
    bool set(int value, Layer layer = Attribute::LAYER_USER, ValueUnit = Attribute::UNKNOWN_UNIT) override
    {
        this->setValue(static_cast<T>(value), layer);
        return true;
    }
};

} // namespace Tamarack
