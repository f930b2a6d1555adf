#pragma once
#include "kestrel/Color.h"
#include "kestrel/TimeStamp.h"
#include "kestrel/kestrel_export.h"
#include "wisket/Matrix.h"
#include "wisket/Rect.h"
#include "wisket/Size.h"
#include "wisket/Vector.h"

#include <QString>
#include <QStringList>

#include <cstddef>

// Text forms of the value types, for log lines, debug dumps and attributes' string views.
//
//   bool             "true" / "false"            (reads also "1" / "0", any case)
//   integers         decimal
//   float, double    shortest text that reads back to the same value
//   QString          itself
//   Color            "rgba(R, G, B, A)"     R, G, B scaled by 255, A as is, each QString::arg(double)
//   ColorPMA         "rgba_pma(R, G, B, A)" likewise
//   TimeStamp        the raw tick count
//   Wisket types     components in memory order joined by ", " (e.g. "1, 2.5, -3")
//
// fromString returns false and leaves the value untouched when the whole text isn't one value
// of the type. Colour texts read back through the same six-digit precision they were written with.
namespace Kestrel {
namespace StringUtils {

// The readable form of a mangled type name (e.g. from typeid(T).name()); the input itself when it
// can't be demangled.
KESTREL_EXPORT QString demangle(const char *mangledName);

namespace detail {

// One specialisation per supported type; the primary template is left undefined so that an
// unsupported type fails to compile.
template <typename T, typename Enable = void>
struct TextForm;

#define KESTREL_DECLARE_TEXT_FORM(TYPE)                                  \
    template <>                                                          \
    struct KESTREL_EXPORT TextForm<TYPE>                                 \
    {                                                                    \
        static QString toString(const TYPE &value);                      \
        static bool fromString(const QString &text, TYPE &value);        \
    }

KESTREL_DECLARE_TEXT_FORM(bool);
KESTREL_DECLARE_TEXT_FORM(int);
KESTREL_DECLARE_TEXT_FORM(unsigned);
KESTREL_DECLARE_TEXT_FORM(long);
KESTREL_DECLARE_TEXT_FORM(unsigned long);
KESTREL_DECLARE_TEXT_FORM(float);
KESTREL_DECLARE_TEXT_FORM(double);
KESTREL_DECLARE_TEXT_FORM(QString);
KESTREL_DECLARE_TEXT_FORM(Color);
KESTREL_DECLARE_TEXT_FORM(ColorPMA);
KESTREL_DECLARE_TEXT_FORM(TimeStamp);

#undef KESTREL_DECLARE_TEXT_FORM

// Components of a Wisket value, written in memory order and read back with the scalar forms.
template <typename T>
QString joinComponents(const T *components, std::size_t count)
{
    QStringList parts;
    for (std::size_t i = 0; i < count; ++i)
        parts << TextForm<T>::toString(components[i]);
    return parts.join(QStringLiteral(", "));
}

template <typename T>
bool splitComponents(const QString &text, T *components, std::size_t count)
{
    const QStringList parts = text.split(QLatin1Char(','));
    if (std::size_t(parts.size()) != count)
        return false;
    T parsed[16];   // the largest Wisket type, a 4 x 4 matrix; all or nothing is assigned
    if (count > 16)
        return false;
    for (std::size_t i = 0; i < count; ++i)
        if (!TextForm<T>::fromString(parts[int(i)].trimmed(), parsed[i]))
            return false;
    for (std::size_t i = 0; i < count; ++i)
        components[i] = parsed[i];
    return true;
}

// Wisket types are arrays of one scalar type in memory; their forms go component by component.
template <typename V, typename T, std::size_t N>
struct ComponentTextForm
{
    static_assert(sizeof(V) == N * sizeof(T), "no padding between components");
    static QString toString(const V &value)
    {
        return joinComponents(reinterpret_cast<const T *>(&value), N);
    }
    static bool fromString(const QString &text, V &value)
    {
        return splitComponents(text, reinterpret_cast<T *>(&value), N);
    }
};

template <typename T> struct TextForm<Wisket::Vector2T<T>> : ComponentTextForm<Wisket::Vector2T<T>, T, 2> {};
template <typename T> struct TextForm<Wisket::Vector3T<T>> : ComponentTextForm<Wisket::Vector3T<T>, T, 3> {};
template <typename T> struct TextForm<Wisket::Vector4T<T>> : ComponentTextForm<Wisket::Vector4T<T>, T, 4> {};
template <typename T> struct TextForm<Wisket::RectT<T>> : ComponentTextForm<Wisket::RectT<T>, T, 4> {};
template <typename T> struct TextForm<Wisket::SizeT<T>> : ComponentTextForm<Wisket::SizeT<T>, T, 2> {};
template <typename T> struct TextForm<Wisket::Matrix2T<T>> : ComponentTextForm<Wisket::Matrix2T<T>, T, 4> {};
template <typename T> struct TextForm<Wisket::Matrix3T<T>> : ComponentTextForm<Wisket::Matrix3T<T>, T, 9> {};
template <typename T> struct TextForm<Wisket::Matrix4T<T>> : ComponentTextForm<Wisket::Matrix4T<T>, T, 16> {};

} // namespace detail

template <typename T>
QString toString(const T &value)
{
    return detail::TextForm<T>::toString(value);
}

template <typename T>
bool fromString(const QString &text, T &value)
{
    return detail::TextForm<T>::fromString(text, value);
}

} // namespace StringUtils
} // namespace Kestrel
