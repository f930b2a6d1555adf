#pragma once

#include <type_traits>

// Colours as four floats in memory (and wire) order red, green, blue, alpha; 16 bytes each.
// A default-constructed colour is all zero (transparent black).
namespace Kestrel {

struct Color
{
    float red = 0.f;
    float green = 0.f;
    float blue = 0.f;
    float alpha = 0.f;

    constexpr Color() = default;
    constexpr Color(float r, float g, float b, float a = 1.f) : red(r), green(g), blue(b), alpha(a) {}

    constexpr bool operator==(const Color &o) const
    {
        return red == o.red && green == o.green && blue == o.blue && alpha == o.alpha;
    }
    constexpr bool operator!=(const Color &o) const { return !(*this == o); }
};

// Same layout as Color, but red, green and blue are already multiplied by alpha.
struct ColorPMA
{
    float red = 0.f;
    float green = 0.f;
    float blue = 0.f;
    float alpha = 0.f;

    constexpr ColorPMA() = default;
    constexpr ColorPMA(float r, float g, float b, float a = 1.f) : red(r), green(g), blue(b), alpha(a) {}

    constexpr bool operator==(const ColorPMA &o) const
    {
        return red == o.red && green == o.green && blue == o.blue && alpha == o.alpha;
    }
    constexpr bool operator!=(const ColorPMA &o) const { return !(*this == o); }
};

static_assert(sizeof(Color) == 16 && sizeof(ColorPMA) == 16, "colours are four packed floats");
static_assert(std::is_standard_layout<Color>::value && std::is_trivially_copyable<Color>::value &&
                  std::is_standard_layout<ColorPMA>::value && std::is_trivially_copyable<ColorPMA>::value,
              "colours are copied as raw memory");

} // namespace Kestrel
