#include "wisket/Matrix.h"
#include "wisket/Rect.h"
#include "wisket/Size.h"
#include "wisket/Vector.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

using namespace Wisket;

// The encoders copy these types as raw memory, so field offsets are part of the wire format.
TEST(WisketLayout, FieldOffsets)
{
    const std::tuple<const char *, std::size_t, std::size_t> cases[] = {
        {"Vector2f.y", offsetof(Vector2f, y), 4},   {"Vector2d.y", offsetof(Vector2d, y), 8},
        {"Vector3i.z", offsetof(Vector3i, z), 8},   {"Vector4f.w", offsetof(Vector4f, w), 12},
        {"Recti.lowY", offsetof(Recti, lowY), 4},   {"Recti.highX", offsetof(Recti, highX), 8},
        {"Rectd.highY", offsetof(Rectd, highY), 24}, {"SizeF.height", offsetof(SizeF, height), 4},
        {"Matrix4f.m", offsetof(Matrix4f, m), 0},
    };
    for (const auto &[field, offset, expected] : cases)
        EXPECT_EQ(offset, expected) << field;
}

TEST(WisketLayout, RectIsLowThenHighAndMatrixIsRowMajor)
{
    const Rectf r(1.f, 2.f, 4.f, 7.f);
    const float raw[4] = {1.f, 2.f, 4.f, 7.f};
    EXPECT_EQ(std::memcmp(&r, raw, sizeof raw), 0);
    EXPECT_EQ(r.width(), 3.f);
    EXPECT_EQ(r.height(), 5.f);
    Matrix3f m;
    m(0, 2) = 5.f;   // row 0, column 2
    m(2, 0) = 7.f;
    EXPECT_EQ(m.m[2], 5.f);
    EXPECT_EQ(m.m[6], 7.f);
    const Matrix2f listed{1.f, 2.f, 3.f, 4.f};
    EXPECT_EQ(listed(0, 1), 2.f);
}

TEST(Wisket, DefaultsAreZeroAndIdentityHasOnesOnTheDiagonalOnly)
{
    EXPECT_EQ(Vector4i(), Vector4i(0, 0, 0, 0));
    EXPECT_EQ(Rectd(), Rectd(0, 0, 0, 0));
    EXPECT_EQ(SizeI(), SizeI(0, 0));
    const Matrix4f zero, id = Matrix4f::identity();
    for (std::size_t i = 0; i < 16; ++i) {
        EXPECT_EQ(zero.m[i], 0.f) << i;
        EXPECT_EQ(id.m[i], i % 5 == 0 ? 1.f : 0.f) << i;
    }
}

TEST(Wisket, EqualityLooksAtEveryComponent)
{
    const Vector4f base(1.f, 2.f, 3.f, 4.f);
    for (float Vector4f::*component : {&Vector4f::x, &Vector4f::y, &Vector4f::z, &Vector4f::w}) {
        Vector4f other = base;
        other.*component += 1.f;
        EXPECT_FALSE(other == base);
    }
    EXPECT_NE(Rectf(1.f, 2.f, 3.f, 4.f), Rectf(1.f, 2.f, 3.f, 5.f));
    EXPECT_NE(SizeI(1, 2), SizeI(2, 1));
    Matrix3f m = Matrix3f::identity();
    m(2, 1) = 0.5f;
    EXPECT_NE(m, Matrix3f::identity());
}
