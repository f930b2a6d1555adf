#pragma once

#include <type_traits>

// An axis-aligned rectangle given by its low and high corners. Memory order, which is also the
// wire order: low x, low y, high x, high y.
namespace Wisket {

template <typename T>
struct RectT
{
    T lowX{};
    T lowY{};
    T highX{};
    T highY{};

    constexpr RectT() = default;
    constexpr RectT(T lowX_, T lowY_, T highX_, T highY_)
        : lowX(lowX_), lowY(lowY_), highX(highX_), highY(highY_)
    {
    }

    constexpr T width() const { return highX - lowX; }
    constexpr T height() const { return highY - lowY; }

    constexpr bool operator==(const RectT &o) const
    {
        return lowX == o.lowX && lowY == o.lowY && highX == o.highX && highY == o.highY;
    }
    constexpr bool operator!=(const RectT &o) const { return !(*this == o); }
};

using Rectf = RectT<float>;
using Recti = RectT<int>;
using Rectd = RectT<double>;

static_assert(sizeof(Rectf) == 16 && sizeof(Recti) == 16 && sizeof(Rectd) == 32, "packed rect");
static_assert(std::is_standard_layout<Rectd>::value && std::is_trivially_copyable<Rectd>::value,
              "rects are copied as raw memory");

} // namespace Wisket
