#pragma once

#include <cstddef>
#include <initializer_list>
#include <type_traits>

// Square matrices stored row-major in one array: element (row, column) is m[row * N + column].
// The array is the whole object, so the memory (and wire) form is the N*N elements in that order.
namespace Wisket {

// Shared body of Matrix2T, Matrix3T and Matrix4T; Derived is the concrete matrix type, so that
// comparisons and identity() work on it and the three stay distinct class templates.
template <typename T, std::size_t N, typename Derived>
struct MatrixBase
{
    static constexpr std::size_t Dimension = N;
    static constexpr std::size_t Count = N * N;

    T m[N * N]{};

    constexpr MatrixBase() = default;

    // Elements in row-major order; missing trailing elements stay zero, extra ones are ignored.
    constexpr MatrixBase(std::initializer_list<T> rowMajor)
    {
        std::size_t i = 0;
        for (T v : rowMajor) {
            if (i == Count)
                break;
            m[i++] = v;
        }
    }

    static constexpr Derived identity()
    {
        Derived r;
        for (std::size_t i = 0; i < N; ++i)
            r.m[i * N + i] = T(1);
        return r;
    }

    constexpr T &operator()(std::size_t row, std::size_t column) { return m[row * N + column]; }
    constexpr const T &operator()(std::size_t row, std::size_t column) const { return m[row * N + column]; }
    constexpr T *data() { return m; }
    constexpr const T *data() const { return m; }

    constexpr bool operator==(const Derived &o) const
    {
        for (std::size_t i = 0; i < Count; ++i)
            if (!(m[i] == o.m[i]))
                return false;
        return true;
    }
    constexpr bool operator!=(const Derived &o) const { return !(*this == o); }
};

template <typename T>
struct Matrix2T : MatrixBase<T, 2, Matrix2T<T>>
{
    using MatrixBase<T, 2, Matrix2T<T>>::MatrixBase;
};

template <typename T>
struct Matrix3T : MatrixBase<T, 3, Matrix3T<T>>
{
    using MatrixBase<T, 3, Matrix3T<T>>::MatrixBase;
};

template <typename T>
struct Matrix4T : MatrixBase<T, 4, Matrix4T<T>>
{
    using MatrixBase<T, 4, Matrix4T<T>>::MatrixBase;
};

using Matrix2f = Matrix2T<float>;
using Matrix3f = Matrix3T<float>;
using Matrix4f = Matrix4T<float>;

static_assert(sizeof(Matrix2f) == 16 && sizeof(Matrix3f) == 36 && sizeof(Matrix4f) == 64, "packed matrix");
static_assert(std::is_standard_layout<Matrix4f>::value && std::is_trivially_copyable<Matrix4f>::value,
              "matrices are copied as raw memory");

} // namespace Wisket
