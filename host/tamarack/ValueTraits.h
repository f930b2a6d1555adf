#pragma once
#include "kestrel/BinaryData.h"
#include "kestrel/Color.h"
#include "kestrel/StringUtils.h"
#include "kestrel/TimeStamp.h"
#include "wisket/Matrix.h"
#include "wisket/Rect.h"
#include "wisket/Size.h"
#include "wisket/Vector.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

// Per value type: the schema text that an attribute's type() returns, how one value is read from
// a Kestrel::BinaryData (eventProcess), and the text form (asString / set(QString)).
//
// Reading uses the BinaryData item of the value's shape: integers and bool an int32 (int64 for
// the 64-bit types), floats float32/float64, vectors, rects of int/float, sizes and colours the
// vector item of their width, time stamps the time item, strings a string item, a string list one
// string item in its text form (one element per line), and rects of double and matrices a blob of exactly
// their size. A read that fails leaves the output untouched and returns false.
namespace Tamarack {
namespace detail {

template <typename T>
struct TextTraits
{
    static QString toString(const T &value) { return Kestrel::StringUtils::toString(value); }
    static bool fromString(const QString &text, T &value) { return Kestrel::StringUtils::fromString(text, value); }
};

// One element per line; an empty text is the empty list.
template <>
struct TextTraits<QStringList>
{
    static QString toString(const QStringList &value) { return value.join(QLatin1Char('\n')); }
    static bool fromString(const QString &text, QStringList &value)
    {
        value = text.isEmpty() ? QStringList() : text.split(QLatin1Char('\n'));
        return true;
    }
};

template <typename T>
struct ValueTraits;

// Reads one item with the given reader and converts it; `ok` is the reader's flag.
template <typename T, typename Item>
bool readItem(Kestrel::BinaryData &data, T &value, Item (Kestrel::BinaryData::*reader)(bool *),
              T (*convert)(const Item &))
{
    bool ok = true;
    const Item item = (data.*reader)(&ok);
    if (ok)
        value = convert(item);
    return ok;
}

template <typename T>
bool readRaw(Kestrel::BinaryData &data, T &value)
{
    T read;
    if (!data.readBlob(&read, int(sizeof(T))))
        return false;
    value = read;
    return true;
}

#define TAMARACK_VALUE_TRAITS(TYPE, SCHEMA, ITEM, READER, CONVERT)                               \
    template <>                                                                                 \
    struct ValueTraits<TYPE>                                                                    \
    {                                                                                           \
        static QByteArray schema() { return QByteArrayLiteral(SCHEMA); }                        \
        static bool read(Kestrel::BinaryData &data, TYPE &value)                                \
        {                                                                                       \
            return readItem<TYPE, ITEM>(data, value, &Kestrel::BinaryData::READER,              \
                                        [](const ITEM &i) -> TYPE { return CONVERT; });         \
        }                                                                                       \
    };

TAMARACK_VALUE_TRAITS(bool, "bool", int, readInt32, i != 0)
TAMARACK_VALUE_TRAITS(float, "float", float, readFloat32, i)
TAMARACK_VALUE_TRAITS(double, "double", double, readFloat64, i)
TAMARACK_VALUE_TRAITS(int, "int", int, readInt32, i)
TAMARACK_VALUE_TRAITS(unsigned int, "unsigned int", int, readInt32, static_cast<unsigned int>(i))
TAMARACK_VALUE_TRAITS(long, "long", long, readInt64, i)
TAMARACK_VALUE_TRAITS(unsigned long, "unsigned long", long, readInt64, static_cast<unsigned long>(i))
TAMARACK_VALUE_TRAITS(Kestrel::TimeStamp, "timestamp", Kestrel::TimeStamp, readTimeStamp, i)
TAMARACK_VALUE_TRAITS(Kestrel::Color, "Kestrel::Color", Wisket::Vector4f, readVector4Float32,
                      (Kestrel::Color(i.x, i.y, i.z, i.w)))
TAMARACK_VALUE_TRAITS(Kestrel::ColorPMA, "color", Wisket::Vector4f, readVector4Float32,
                      (Kestrel::ColorPMA(i.x, i.y, i.z, i.w)))
TAMARACK_VALUE_TRAITS(Wisket::Vector2i, "vector2:int", Wisket::Vector2i, readVector2Int32, i)
TAMARACK_VALUE_TRAITS(Wisket::Vector2f, "vector2:float", Wisket::Vector2f, readVector2Float32, i)
TAMARACK_VALUE_TRAITS(Wisket::Vector3i, "vector3:int", Wisket::Vector3i, readVector3Int32, i)
TAMARACK_VALUE_TRAITS(Wisket::Vector3f, "vector3:float", Wisket::Vector3f, readVector3Float32, i)
TAMARACK_VALUE_TRAITS(Wisket::Vector4i, "vector4:int", Wisket::Vector4i, readVector4Int32, i)
TAMARACK_VALUE_TRAITS(Wisket::Vector4f, "vector4:float", Wisket::Vector4f, readVector4Float32, i)
TAMARACK_VALUE_TRAITS(Wisket::Recti, "rect:int", Wisket::Vector4i, readVector4Int32,
                      (Wisket::Recti(i.x, i.y, i.z, i.w)))
TAMARACK_VALUE_TRAITS(Wisket::Rectf, "rect:float", Wisket::Vector4f, readVector4Float32,
                      (Wisket::Rectf(i.x, i.y, i.z, i.w)))
TAMARACK_VALUE_TRAITS(Wisket::SizeF, "size2:float", Wisket::Vector2f, readVector2Float32,
                      (Wisket::SizeF(i.x, i.y)))
TAMARACK_VALUE_TRAITS(Wisket::SizeI, "size2:int", Wisket::Vector2i, readVector2Int32,
                      (Wisket::SizeI(i.x, i.y)))

#undef TAMARACK_VALUE_TRAITS

#define TAMARACK_RAW_VALUE_TRAITS(TYPE, SCHEMA)                                                 \
    template <>                                                                                 \
    struct ValueTraits<TYPE>                                                                    \
    {                                                                                           \
        static QByteArray schema() { return QByteArrayLiteral(SCHEMA); }                        \
        static bool read(Kestrel::BinaryData &data, TYPE &value) { return readRaw(data, value); } \
    };

TAMARACK_RAW_VALUE_TRAITS(Wisket::Rectd, "rect:double")
TAMARACK_RAW_VALUE_TRAITS(Wisket::Matrix2f, "matrix2x2:float")
TAMARACK_RAW_VALUE_TRAITS(Wisket::Matrix3f, "matrix3x3:float")
TAMARACK_RAW_VALUE_TRAITS(Wisket::Matrix4f, "matrix4x4:float")

#undef TAMARACK_RAW_VALUE_TRAITS

template <>
struct ValueTraits<QString>
{
    static QByteArray schema() { return QByteArrayLiteral("string"); }
    static bool read(Kestrel::BinaryData &data, QString &value) { return data.readString(value); }
};

template <>
struct ValueTraits<QStringList>
{
    static QByteArray schema() { return QByteArrayLiteral("stringlist"); }
    static bool read(Kestrel::BinaryData &data, QStringList &value)
    {
        QString text;
        if (!data.readString(text))
            return false;
        return TextTraits<QStringList>::fromString(text, value);
    }
};

} // namespace detail
} // namespace Tamarack
