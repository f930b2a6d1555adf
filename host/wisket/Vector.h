#pragma once

#include <type_traits>

// Small fixed vectors. Their memory is their wire form: the components in declaration order,
// with no padding, so a Vector3T<float> is exactly 12 bytes. Keep them standard-layout and
// trivially copyable; encoders copy them with memcpy.
namespace Wisket {

template <typename T>
struct Vector2T
{
    T x{};
    T y{};

    constexpr Vector2T() = default;
    constexpr Vector2T(T x_, T y_) : x(x_), y(y_) {}

    constexpr bool operator==(const Vector2T &o) const { return x == o.x && y == o.y; }
    constexpr bool operator!=(const Vector2T &o) const { return !(*this == o); }
};

template <typename T>
struct Vector3T
{
    T x{};
    T y{};
    T z{};

    constexpr Vector3T() = default;
    constexpr Vector3T(T x_, T y_, T z_) : x(x_), y(y_), z(z_) {}

    constexpr bool operator==(const Vector3T &o) const { return x == o.x && y == o.y && z == o.z; }
    constexpr bool operator!=(const Vector3T &o) const { return !(*this == o); }
};

template <typename T>
struct Vector4T
{
    T x{};
    T y{};
    T z{};
    T w{};

    constexpr Vector4T() = default;
    constexpr Vector4T(T x_, T y_, T z_, T w_) : x(x_), y(y_), z(z_), w(w_) {}

    constexpr bool operator==(const Vector4T &o) const
    {
        return x == o.x && y == o.y && z == o.z && w == o.w;
    }
    constexpr bool operator!=(const Vector4T &o) const { return !(*this == o); }
};

using Vector2f = Vector2T<float>;
using Vector2i = Vector2T<int>;
using Vector2d = Vector2T<double>;
using Vector3f = Vector3T<float>;
using Vector3i = Vector3T<int>;
using Vector4f = Vector4T<float>;
using Vector4i = Vector4T<int>;

static_assert(sizeof(Vector2f) == 8 && sizeof(Vector2i) == 8 && sizeof(Vector2d) == 16, "packed vector2");
static_assert(sizeof(Vector3f) == 12 && sizeof(Vector3i) == 12, "packed vector3");
static_assert(sizeof(Vector4f) == 16 && sizeof(Vector4i) == 16, "packed vector4");
static_assert(std::is_standard_layout<Vector4f>::value && std::is_trivially_copyable<Vector4f>::value,
              "vectors are copied as raw memory");

} // namespace Wisket
