#include "wisket/Matrix.h"
#include "wisket/Rect.h"
#include "wisket/Size.h"
#include "wisket/Vector.h"

#include <gtest/gtest.h>

#include <cstddef>
#include <cstring>

// The encoders copy these types as raw memory, so field offsets are part of the wire format.
TEST(WisketLayout, FieldOffsets)
{
    struct Case { const char *field; std::size_t offset; std::size_t expected; };
    const Case cases[] = {
        {"Vector2f.y", offsetof(Wisket::Vector2f, y), 4},
        {"Vector2d.y", offsetof(Wisket::Vector2d, y), 8},
        {"Vector3i.z", offsetof(Wisket::Vector3i, z), 8},
        {"Vector4f.w", offsetof(Wisket::Vector4f, w), 12},
        {"Recti.lowY", offsetof(Wisket::Recti, lowY), 4},
        {"Recti.highX", offsetof(Wisket::Recti, highX), 8},
        {"Rectd.highY", offsetof(Wisket::Rectd, highY), 24},
        {"SizeF.height", offsetof(Wisket::SizeF, height), 4},
        {"Matrix4f.m", offsetof(Wisket::Matrix4f, m), 0},
    };
    for (const Case &c : cases)
        EXPECT_EQ(c.offset, c.expected) << c.field;
}

TEST(WisketLayout, RectMemoryIsLowThenHigh)
{
    const Wisket::Rectf r(1.f, 2.f, 3.f, 4.f);
    float raw[4];
    std::memcpy(raw, &r, sizeof raw);
    EXPECT_EQ(raw[0], 1.f);
    EXPECT_EQ(raw[1], 2.f);
    EXPECT_EQ(raw[2], 3.f);
    EXPECT_EQ(raw[3], 4.f);
    EXPECT_EQ(r.width(), 2.f);
    EXPECT_EQ(r.height(), 2.f);
}

TEST(WisketLayout, MatrixIsRowMajor)
{
    Wisket::Matrix3f m;
    m(0, 2) = 5.f;   // row 0, column 2
    m(2, 0) = 7.f;
    EXPECT_EQ(m.m[2], 5.f);
    EXPECT_EQ(m.m[6], 7.f);
    const Wisket::Matrix2f listed{1.f, 2.f, 3.f, 4.f};
    EXPECT_EQ(listed(0, 1), 2.f);
    EXPECT_EQ(listed(1, 0), 3.f);
}

TEST(Wisket, DefaultsAreZero)
{
    EXPECT_EQ(Wisket::Vector4i(), Wisket::Vector4i(0, 0, 0, 0));
    EXPECT_EQ(Wisket::Rectd(), Wisket::Rectd(0, 0, 0, 0));
    EXPECT_EQ(Wisket::SizeI(), Wisket::SizeI(0, 0));
    const Wisket::Matrix4f zero;
    for (float v : zero.m)
        EXPECT_EQ(v, 0.f);
}

TEST(Wisket, IdentityHasOnesOnTheDiagonalOnly)
{
    const auto id = Wisket::Matrix4f::identity();
    for (std::size_t r = 0; r < 4; ++r)
        for (std::size_t c = 0; c < 4; ++c)
            EXPECT_EQ(id(r, c), r == c ? 1.f : 0.f) << r << "," << c;
}

TEST(Wisket, EqualityLooksAtEveryComponent)
{
    const Wisket::Vector4f base(1.f, 2.f, 3.f, 4.f);
    for (int i = 0; i < 4; ++i) {
        float raw[4];
        std::memcpy(raw, &base, sizeof raw);
        raw[i] += 1.f;
        Wisket::Vector4f other;
        std::memcpy(&other, raw, sizeof raw);
        EXPECT_NE(other, base) << i;
        EXPECT_FALSE(other == base) << i;
    }
    const Wisket::Rectf rect(1.f, 2.f, 3.f, 4.f);
    EXPECT_NE(rect, Wisket::Rectf(1.f, 2.f, 3.f, 5.f));
    EXPECT_NE(Wisket::SizeI(1, 2), Wisket::SizeI(2, 1));
    Wisket::Matrix3f m = Wisket::Matrix3f::identity();
    m(2, 1) = 0.5f;
    EXPECT_NE(m, Wisket::Matrix3f::identity());
    EXPECT_EQ(m, m);
}
