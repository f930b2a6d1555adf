#pragma once

#include <type_traits>

// A two-dimensional extent; memory order width, height.
namespace Wisket {

template <typename T>
struct SizeT
{
    T width{};
    T height{};

    constexpr SizeT() = default;
    constexpr SizeT(T width_, T height_) : width(width_), height(height_) {}

    constexpr bool operator==(const SizeT &o) const { return width == o.width && height == o.height; }
    constexpr bool operator!=(const SizeT &o) const { return !(*this == o); }
};

using SizeF = SizeT<float>;
using SizeI = SizeT<int>;

static_assert(sizeof(SizeF) == 8 && sizeof(SizeI) == 8, "packed size");
static_assert(std::is_standard_layout<SizeF>::value && std::is_trivially_copyable<SizeF>::value,
              "sizes are copied as raw memory");

} // namespace Wisket
