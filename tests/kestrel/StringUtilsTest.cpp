#include "kestrel/StringUtils.h"

#include <gtest/gtest.h>

#include <limits>
#include <map>
#include <typeinfo>

namespace SU = Kestrel::StringUtils;
using namespace Wisket;

namespace {

template <typename T>
void parses(const char *text, T start, T expected)
{
    T value = start;
    EXPECT_TRUE(SU::fromString(QString::fromUtf8(text), value)) << text;
    EXPECT_EQ(value, expected) << text;
}

// A rejected text leaves the value as it was.
template <typename T>
void rejects(const char *text, T start)
{
    T value = start;
    EXPECT_FALSE(SU::fromString(QString::fromUtf8(text), value)) << text;
    EXPECT_EQ(value, start) << text;
}

} // namespace

TEST(StringUtils, DemangleAndToStringTexts)
{
    const std::pair<QString, const char *> cases[] = {
        {SU::demangle(typeid(Kestrel::Color).name()), "Kestrel::Color"},
        {SU::demangle(typeid(std::map<int, float>).name()).left(19), "std::map<int, float"},
        {SU::demangle("not a mangled name"), "not a mangled name"},
        {SU::demangle(nullptr), ""},
        {SU::toString(true), "true"},
        {SU::toString(false), "false"},
        {SU::toString(std::numeric_limits<unsigned long>::max()), "18446744073709551615"},
        {SU::toString(0.1f), "0.1"},
        {SU::toString(0.1), "0.1"},
        {SU::toString(Kestrel::TimeStamp(99)), "99"},
        // Colour channels scale to 255, alpha doesn't; six significant digits as QString::arg gives them.
        {SU::toString(Kestrel::Color(1.f, 0.5f, 0.f, 0.25f)), "rgba(255, 127.5, 0, 0.25)"},
        {SU::toString(Kestrel::ColorPMA(0.2f, 0.f, 1.f, 1.f)), "rgba_pma(51, 0, 255, 1)"},
        {SU::toString(Kestrel::Color(1.f / 3.f, 0.f, 0.f, 1.f / 3.f)), "rgba(85, 0, 0, 0.333333)"},
        {SU::toString(Vector3f(1.f, 2.5f, -3.f)), "1, 2.5, -3"},
        {SU::toString(Recti(1, 2, 3, 4)), "1, 2, 3, 4"},
        {SU::toString(SizeI(640, 480)), "640, 480"},
        {SU::toString(Matrix2f{1.f, 2.f, 3.f, 4.f}), "1, 2, 3, 4"},
        {SU::toString(Vector2d(0.1, 0.2)), "0.1, 0.2"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.first, QString::fromUtf8(c.second));
}

TEST(StringUtils, FromStringTakesWholeTextsOnlyAndReadsToStringBackExactly)
{
    for (double v : {0.1, 1.0 / 3.0, -2.5e-300, 6.02214076e23}) {
        parses(qPrintable(SU::toString(v)), 0.0, v);
        parses(qPrintable(SU::toString(float(v))), 0.f, float(v));
    }
    parses(qPrintable(SU::toString(Matrix3f::identity())), Matrix3f(), Matrix3f::identity());
    parses(qPrintable(SU::toString(Rectd(-1.5, 0.1, 2, 1e10))), Rectd(), Rectd(-1.5, 0.1, 2, 1e10));
    for (const char *text : {"true", "TRUE", "1"})
        parses(text, false, true);
    for (const char *text : {"false", "False", "0"})
        parses(text, true, false);
    rejects("yes", true);
    for (const char *text : {"12x", "", "99999999999"})
        rejects(text, 5);
    rejects("-1", 6u);
    rejects("-1", 7ul);
    rejects("8 seconds", Kestrel::TimeStamp(8));
    parses("rgba(255, 127.5, 0, 0.25)", Kestrel::Color(), Kestrel::Color(1.f, 0.5f, 0.f, 0.25f));
    parses(" rgba_pma(0,0,255,1) ", Kestrel::ColorPMA(), Kestrel::ColorPMA(0.f, 0.f, 1.f, 1.f));
    for (const char *text : {"rgba(255, 0, 0, 1)", "rgba_pma(1, 2, 3)"})   // wrong name, too few channels
        rejects(text, Kestrel::ColorPMA(0.5f, 0.5f, 0.5f, 1.f));
    parses("1,2 ,  3", Vector3i(7, 8, 9), Vector3i(1, 2, 3));
    for (const char *text : {"1, 2", "1, 2, 3, 4", "1, x, 3"})
        rejects(text, Vector3i(7, 8, 9));
}
