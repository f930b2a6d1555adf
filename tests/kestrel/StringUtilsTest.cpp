#include "kestrel/StringUtils.h"

#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <typeinfo>
#include <vector>

namespace SU = Kestrel::StringUtils;

TEST(StringUtils, DemangleGivesTheReadableName)
{
    EXPECT_EQ(SU::demangle(typeid(int).name()), "int");
    EXPECT_EQ(SU::demangle(typeid(Kestrel::Color).name()), "Kestrel::Color");
    EXPECT_EQ(SU::demangle(typeid(std::map<int, float>).name()).left(19), "std::map<int, float");
}

TEST(StringUtils, DemangleKeepsWhatIsNotMangled)
{
    EXPECT_EQ(SU::demangle("not a mangled name"), "not a mangled name");
    EXPECT_EQ(SU::demangle(nullptr), QString());
}

TEST(StringUtils, ColourTextsScaleTheChannelsButNotAlpha)
{
    EXPECT_EQ(SU::toString(Kestrel::Color(1.f, 0.5f, 0.f, 0.25f)), "rgba(255, 127.5, 0, 0.25)");
    EXPECT_EQ(SU::toString(Kestrel::ColorPMA(0.2f, 0.f, 1.f, 1.f)), "rgba_pma(51, 0, 255, 1)");
    // Six significant digits, as QString::arg(double) gives them.
    EXPECT_EQ(SU::toString(Kestrel::Color(1.f / 3.f, 0.f, 0.f, 1.f / 3.f)), "rgba(85, 0, 0, 0.333333)");
}

TEST(StringUtils, ColourTextsReadBack)
{
    Kestrel::Color c;
    ASSERT_TRUE(SU::fromString(QStringLiteral("rgba(255, 127.5, 0, 0.25)"), c));
    EXPECT_EQ(c, Kestrel::Color(1.f, 0.5f, 0.f, 0.25f));
    Kestrel::ColorPMA p;
    EXPECT_FALSE(SU::fromString(QStringLiteral("rgba(255, 0, 0, 1)"), p)) << "wrong function name";
    EXPECT_FALSE(SU::fromString(QStringLiteral("rgba_pma(1, 2, 3)"), p));
    ASSERT_TRUE(SU::fromString(QStringLiteral(" rgba_pma(0,0,255,1) "), p));
    EXPECT_EQ(p, Kestrel::ColorPMA(0.f, 0.f, 1.f, 1.f));
}

TEST(StringUtils, ScalarTexts)
{
    EXPECT_EQ(SU::toString(true), "true");
    EXPECT_EQ(SU::toString(false), "false");
    EXPECT_EQ(SU::toString(-12), "-12");
    EXPECT_EQ(SU::toString(std::numeric_limits<unsigned long>::max()), "18446744073709551615");
    EXPECT_EQ(SU::toString(0.1f), "0.1");
    EXPECT_EQ(SU::toString(0.1), "0.1");
    EXPECT_EQ(SU::toString(Kestrel::TimeStamp(99)), "99");
    EXPECT_EQ(SU::toString(QStringLiteral("as is")), "as is");
}

TEST(StringUtils, FloatTextsReadBackToTheSameBits)
{
    for (double v : {0.1, 1.0 / 3.0, -2.5e-300, 6.02214076e23}) {
        double back = 0;
        ASSERT_TRUE(SU::fromString(SU::toString(v), back));
        EXPECT_EQ(back, v);
        float f = float(v), fb = 0;
        ASSERT_TRUE(SU::fromString(SU::toString(f), fb));
        EXPECT_EQ(fb, f);
    }
}

TEST(StringUtils, RejectedTextsLeaveTheValue)
{
    int i = 5;
    EXPECT_FALSE(SU::fromString(QStringLiteral("12x"), i));
    EXPECT_FALSE(SU::fromString(QStringLiteral(""), i));
    EXPECT_FALSE(SU::fromString(QStringLiteral("99999999999"), i));
    EXPECT_EQ(i, 5);
    unsigned u = 6;
    EXPECT_FALSE(SU::fromString(QStringLiteral("-1"), u));
    EXPECT_EQ(u, 6u);
    unsigned long ul = 7;
    EXPECT_FALSE(SU::fromString(QStringLiteral("-1"), ul));
    EXPECT_EQ(ul, 7u);
    bool b = true;
    EXPECT_FALSE(SU::fromString(QStringLiteral("yes"), b));
    EXPECT_TRUE(b);
    Kestrel::TimeStamp t(8);
    EXPECT_FALSE(SU::fromString(QStringLiteral("8 seconds"), t));
    EXPECT_EQ(t.raw(), 8);
}

TEST(StringUtils, BoolReadsWordsAndDigits)
{
    const std::vector<std::pair<const char *, bool>> cases = {{"true", true}, {"TRUE", true}, {"1", true},
                                                              {"false", false}, {"False", false}, {"0", false}};
    for (const auto &c : cases) {
        bool value = !c.second;
        ASSERT_TRUE(SU::fromString(QString::fromLatin1(c.first), value)) << c.first;
        EXPECT_EQ(value, c.second) << c.first;
    }
}

TEST(StringUtils, WisketTextsListComponentsInMemoryOrder)
{
    EXPECT_EQ(SU::toString(Wisket::Vector3f(1.f, 2.5f, -3.f)), "1, 2.5, -3");
    EXPECT_EQ(SU::toString(Wisket::Recti(1, 2, 3, 4)), "1, 2, 3, 4");
    EXPECT_EQ(SU::toString(Wisket::SizeI(640, 480)), "640, 480");
    EXPECT_EQ(SU::toString(Wisket::Matrix2f{1.f, 2.f, 3.f, 4.f}), "1, 2, 3, 4");
    EXPECT_EQ(SU::toString(Wisket::Vector2d(0.1, 0.2)), "0.1, 0.2");
}

TEST(StringUtils, WisketTextsReadBackWholeOrNotAtAll)
{
    Wisket::Matrix3f m;
    ASSERT_TRUE(SU::fromString(SU::toString(Wisket::Matrix3f::identity()), m));
    EXPECT_EQ(m, Wisket::Matrix3f::identity());

    Wisket::Vector3i v(7, 8, 9);
    EXPECT_FALSE(SU::fromString(QStringLiteral("1, 2"), v));
    EXPECT_FALSE(SU::fromString(QStringLiteral("1, 2, 3, 4"), v));
    EXPECT_FALSE(SU::fromString(QStringLiteral("1, x, 3"), v));
    EXPECT_EQ(v, Wisket::Vector3i(7, 8, 9));
    ASSERT_TRUE(SU::fromString(QStringLiteral("1,2 ,  3"), v));
    EXPECT_EQ(v, Wisket::Vector3i(1, 2, 3));

    Wisket::Rectd r;
    ASSERT_TRUE(SU::fromString(SU::toString(Wisket::Rectd(-1.5, 0.1, 2, 1e10)), r));
    EXPECT_EQ(r, Wisket::Rectd(-1.5, 0.1, 2, 1e10));
}
