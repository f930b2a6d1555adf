#include "cli/ValueText.h"

#include "loomy/bundle/BundleReader.h"
#include "loomy/bundle/BundleWriter.h"
#include "loomy/types/TypeRegistry.h"
#include "loomy/types/ValueMetaTypes.h"

#include "tamarack/Attribute.h"

#include <QJsonArray>
#include <QJsonDocument>
#include <QStringList>
#include <QVector>

#include <charconv>
#include <cmath>
#include <cstring>
#include <limits>
#include <memory>
#include <stdexcept>
#include <vector>

namespace LoomyCli {

namespace {

// Fixed-size values are their components' memory; this is how many of which kind.
enum class Kind { Bool, I32, U32, I64, U64, F32, F64 };

struct Layout
{
    unsigned id;
    Kind kind;
    int count;
};

const Layout s_layouts[] = {
    {1, Kind::Bool, 1},  {2, Kind::F32, 4},   {3, Kind::F32, 1},   {4, Kind::F64, 1},
    {9, Kind::I32, 1},   {10, Kind::U32, 1},  {11, Kind::I64, 1},  {12, Kind::U64, 1},
    {13, Kind::I32, 4},  {14, Kind::F32, 4},  {15, Kind::F64, 4},  {16, Kind::I32, 2},
    {17, Kind::F32, 2},  {19, Kind::I32, 3},  {20, Kind::F32, 3},  {22, Kind::I32, 4},
    {23, Kind::F32, 4},  {26, Kind::F32, 4},  {29, Kind::F32, 9},  {32, Kind::F32, 16},
    {34, Kind::I64, 1},  {47, Kind::I32, 1},  {48, Kind::F32, 4},  {49, Kind::F32, 2},
    {50, Kind::F32, 2},  {52, Kind::I32, 2},
};

const Layout *layout(unsigned id)
{
    for (const Layout &l : s_layouts)
        if (l.id == id)
            return &l;
    return nullptr;
}

unsigned kindSize(Kind kind)
{
    switch (kind) {
    case Kind::Bool: return 1;
    case Kind::I32: case Kind::U32: case Kind::F32: return 4;
    default: return 8;
    }
}

template <typename T>
QString shortest(T value)
{
    char buffer[64];
    const auto result = std::to_chars(buffer, buffer + sizeof buffer, value);
    return QString::fromLatin1(buffer, int(result.ptr - buffer));
}

QString componentText(Kind kind, const char *p)
{
    switch (kind) {
    case Kind::Bool: return *p ? QStringLiteral("true") : QStringLiteral("false");
    case Kind::I32: { qint32 v; std::memcpy(&v, p, 4); return QString::number(v); }
    case Kind::U32: { quint32 v; std::memcpy(&v, p, 4); return QString::number(v); }
    case Kind::I64: { qint64 v; std::memcpy(&v, p, 8); return QString::number(v); }
    case Kind::U64: { quint64 v; std::memcpy(&v, p, 8); return QString::number(v); }
    case Kind::F32: { float v; std::memcpy(&v, p, 4); return shortest(v); }
    case Kind::F64: { double v; std::memcpy(&v, p, 8); return shortest(v); }
    }
    return QString();
}

bool parseComponent(Kind kind, const QString &text, char *p)
{
    bool ok = false;
    const QString t = text.trimmed();
    switch (kind) {
    case Kind::Bool:
        ok = t == "true" || t == "false" || t == "1" || t == "0";
        *p = (t == "true" || t == "1") ? 1 : 0;
        break;
    case Kind::I32: { const qint32 v = t.toInt(&ok); std::memcpy(p, &v, 4); break; }
    case Kind::U32: { const quint32 v = t.toUInt(&ok); std::memcpy(p, &v, 4); break; }
    case Kind::I64: { const qint64 v = t.toLongLong(&ok); std::memcpy(p, &v, 8); break; }
    case Kind::U64: { const quint64 v = t.toULongLong(&ok); std::memcpy(p, &v, 8); break; }
    case Kind::F32: { const float v = t.toFloat(&ok); std::memcpy(p, &v, 4); break; }
    case Kind::F64: { const double v = t.toDouble(&ok); std::memcpy(p, &v, 8); break; }
    }
    return ok;
}

QString jsonStrings(const QStringList &list)
{
    return QString::fromUtf8(QJsonDocument(QJsonArray::fromStringList(list)).toJson(QJsonDocument::Compact));
}

template <typename C>
QString jsonNumbers(const C &values)
{
    QStringList parts;
    for (const auto &v : values)
        parts << shortest(v);
    return '[' + parts.join(',') + ']';
}

template <typename C>
QString jsonPairs(const C &points)
{
    QStringList parts;
    for (const auto &p : points)
        parts << '[' + shortest(p.x) + ',' + shortest(p.y) + ']';
    return '[' + parts.join(',') + ']';
}

bool jsonArray(const QString &text, QJsonArray &out, QString *error)
{
    const QJsonDocument doc = QJsonDocument::fromJson(text.toUtf8());
    if (!doc.isArray()) {
        *error = QStringLiteral("expected a JSON array: %1").arg(text);
        return false;
    }
    out = doc.array();
    return true;
}

bool jsonStringList(const QString &text, QStringList &out, QString *error)
{
    QJsonArray array;
    if (!jsonArray(text, array, error))
        return false;
    for (const QJsonValue &v : array) {
        if (!v.isString()) {
            *error = QStringLiteral("expected an array of strings: %1").arg(text);
            return false;
        }
        out << v.toString();
    }
    return true;
}

// A JSON number that the floating-point type E holds without overflowing to infinity.
template <typename E>
bool fitsFloating(double d)
{
    return std::isfinite(d) && std::fabs(d) <= double(std::numeric_limits<E>::max());
}

// Numbers of a JSON array, each checked to fit E: exactly where E is an integer, without
// overflow where it is floating.
template <typename E>
bool jsonNumberList(const QString &text, std::vector<E> &out, QString *error)
{
    QJsonArray array;
    if (!jsonArray(text, array, error))
        return false;
    for (const QJsonValue &v : array) {
        const double d = v.toDouble(std::nan(""));
        const bool fits = std::is_floating_point<E>::value
                              ? fitsFloating<E>(d)
                              : d == std::floor(d) && d >= double(std::numeric_limits<E>::lowest())
                                    && d <= double(std::numeric_limits<E>::max());
        if (!v.isDouble() || !fits) {
            *error = QStringLiteral("expected an array of numbers of the element type: %1").arg(text);
            return false;
        }
        out.push_back(E(d));
    }
    return true;
}

template <typename C>
bool jsonPairList(const QString &text, C &out, QString *error)
{
    QJsonArray array;
    if (!jsonArray(text, array, error))
        return false;
    for (const QJsonValue &v : array) {
        const QJsonArray pair = v.toArray();
        if (pair.size() != 2 || !pair[0].isDouble() || !pair[1].isDouble() || !fitsFloating<float>(pair[0].toDouble())
            || !fitsFloating<float>(pair[1].toDouble())) {
            *error = QStringLiteral("expected an array of [x,y] pairs: %1").arg(text);
            return false;
        }
        out.push_back(Wisket::Vector2f(float(pair[0].toDouble()), float(pair[1].toDouble())));
    }
    return true;
}

QString gridText(const Kestrel::MemGrid8u &grid)
{
    const QByteArray cells(reinterpret_cast<const char *>(grid.data()), int(grid.cellCount()));
    return QString::number(grid.width()) + ':' + QString::fromLatin1(cells.toHex());
}

bool parseGrid(const QString &text, Kestrel::MemGrid8u &grid, QString *error)
{
    const int colon = text.indexOf(':');
    bool ok = colon > 0;
    const unsigned width = ok ? text.left(colon).toUInt(&ok) : 0;
    const QByteArray hex = text.mid(colon + 1).toLatin1();
    const QByteArray cells = QByteArray::fromHex(hex);
    if (!ok || cells.size() * 2 != hex.size() || (width == 0 ? !cells.isEmpty() : cells.size() % width != 0)) {
        *error = QStringLiteral("expected WIDTH:HEXBYTES with whole rows: %1").arg(text);
        return false;
    }
    grid.resize(width, width ? unsigned(cells.size()) / width : 0);
    if (!cells.isEmpty())
        std::memcpy(grid.data(), cells.constData(), size_t(cells.size()));
    return true;
}

// A dynamic value as a QVariant of the type the registry's variant functions take.
bool dynamicVariant(unsigned id, const QString &text, QVariant &out, QString *error)
{
    switch (id) {
    case 35: case 51:
        out = text;
        return true;
    case 36: case 44: {
        QStringList list;
        if (!jsonStringList(text, list, error))
            return false;
        out = id == 36 ? QVariant(list)
                       : QVariant::fromValue(std::vector<QString>(list.begin(), list.end()));
        return true;
    }
    case 40: { std::vector<float> v; if (!jsonNumberList(text, v, error)) return false; out = QVariant::fromValue(v); return true; }
    case 42: { std::vector<int> v; if (!jsonNumberList(text, v, error)) return false; out = QVariant::fromValue(v); return true; }
    case 43: { std::vector<unsigned int> v; if (!jsonNumberList(text, v, error)) return false; out = QVariant::fromValue(v); return true; }
    case 41: { std::vector<Wisket::Vector2f> v; if (!jsonPairList(text, v, error)) return false; out = QVariant::fromValue(v); return true; }
    case 46: { QVector<Wisket::Vector2f> v; if (!jsonPairList(text, v, error)) return false; out = QVariant::fromValue(v); return true; }
    case 45: { Kestrel::MemGrid8u g; if (!parseGrid(text, g, error)) return false; out = QVariant::fromValue(g); return true; }
    }
    *error = QStringLiteral("type %1 has no text form").arg(id);
    return false;
}

QString dynamicText(unsigned id, const QVariant &v)
{
    switch (id) {
    case 35: case 51: return v.toString();
    case 36: return jsonStrings(v.toStringList());
    case 44: { const auto s = v.value<std::vector<QString>>(); return jsonStrings(QStringList(s.begin(), s.end())); }
    case 40: return jsonNumbers(v.value<std::vector<float>>());
    case 42: return jsonNumbers(v.value<std::vector<int>>());
    case 43: return jsonNumbers(v.value<std::vector<unsigned int>>());
    case 41: return jsonPairs(v.value<std::vector<Wisket::Vector2f>>());
    case 46: return jsonPairs(v.value<QVector<Wisket::Vector2f>>());
    case 45: return gridText(v.value<Kestrel::MemGrid8u>());
    }
    throw std::invalid_argument("type " + std::to_string(id) + " has no text form");
}

} // namespace

ValueText::ValueText(const Loomy::TypeRegistry &types) : m_types(types)
{
    for (unsigned id = 1; id <= 64; ++id) {
        std::unique_ptr<Tamarack::Attribute> attribute(m_types.createAttribute(id));
        if (!attribute)
            continue;
        const QString name = QString::fromUtf8(attribute->type());
        const bool oneWord = !name.isEmpty() && !name.contains(QRegExp("[<>=\\[\\]]"));
        m_names[id] = oneWord ? name : QString::number(id);
        if (oneWord && !m_ids.contains(name))
            m_ids[name] = id;
    }
}

unsigned ValueText::typeId(const QString &text) const
{
    bool number = false;
    const unsigned id = text.toUInt(&number);
    if (number)
        return m_names.contains(id) ? id : 0;
    return m_ids.value(text, 0);
}

QString ValueText::typeName(unsigned typeId) const
{
    return m_names.value(typeId, QString::number(typeId));
}

bool ValueText::splitTyped(const QString &typed, unsigned &typeId, QString &value) const
{
    for (int colon = typed.lastIndexOf(':'); colon > 0; colon = typed.lastIndexOf(':', colon - 1)) {
        if (const unsigned id = this->typeId(typed.left(colon))) {
            typeId = id;
            value = typed.mid(colon + 1);
            return true;
        }
    }
    return false;
}

QString ValueText::read(unsigned typeId, Loomy::BundleReaderCore &reader) const
{
    if (const Layout *l = layout(typeId)) {
        const unsigned size = kindSize(l->kind);
        const char *p = reader.read(size * unsigned(l->count));
        QStringList parts;
        for (int i = 0; i < l->count; ++i)
            parts << componentText(l->kind, p + i * size);
        return parts.join(',');
    }
    const Loomy::VariantDeserializer deserializer = m_types.createVariantDeserializer(typeId);
    if (!deserializer)
        throw std::invalid_argument("type " + std::to_string(typeId) + " has no text form");
    return dynamicText(typeId, deserializer(reader));
}

bool ValueText::write(unsigned typeId, const QString &text, Loomy::BundleWriterCore &writer, QString *error) const
{
    if (const Layout *l = layout(typeId)) {
        const QStringList parts = text.split(',');
        const unsigned size = kindSize(l->kind);
        QByteArray bytes(int(size * unsigned(l->count)), '\0');
        bool ok = parts.size() == l->count;
        for (int i = 0; ok && i < l->count; ++i)
            ok = parseComponent(l->kind, parts[i], bytes.data() + i * size);
        if (!ok) {
            *error = QStringLiteral("'%1' is not a value of type %2 (%3 component%4)")
                         .arg(text, typeName(typeId)).arg(l->count).arg(l->count > 1 ? "s" : "");
            return false;
        }
        writer.writeData(bytes.constData(), unsigned(bytes.size()));
        return true;
    }
    QVariant variant;
    const Loomy::VariantSerializer serializer = m_types.createVariantSerializer(typeId);
    if (!serializer) {
        *error = QStringLiteral("unknown type %1").arg(typeId);
        return false;
    }
    if (!dynamicVariant(typeId, text, variant, error))
        return false;
    serializer(writer, variant);
    return true;
}

bool ValueText::describe(Tamarack::Attribute *attribute, unsigned &typeId, QString &text) const
{
    unsigned size = 0;
    const Loomy::Serializer serializer = m_types.createSerializer(attribute, typeId, size);
    if (!serializer)
        return false;
    QByteArray bytes;
    Loomy::BundleWriterCore writer(bytes);
    serializer(writer);
    Loomy::BundleReaderCore reader(bytes);
    try {
        text = read(typeId, reader);
    } catch (const std::exception &) {
        return false;
    }
    return true;
}

bool ValueText::assign(Tamarack::Attribute *attribute, unsigned typeId, const QString &text, QString *error) const
{
    QByteArray bytes;
    Loomy::BundleWriterCore writer(bytes);
    if (!write(typeId, text, writer, error))
        return false;
    const Loomy::Deserializer deserializer = m_types.createDeserializer(typeId, attribute);
    if (!deserializer) {
        *error = QStringLiteral("the attribute doesn't take values of type %1").arg(typeName(typeId));
        return false;
    }
    Loomy::BundleReaderCore reader(bytes);
    deserializer(reader);
    return true;
}

Tamarack::Attribute *ValueText::create(unsigned typeId, const QString &text, QString *error) const
{
    std::unique_ptr<Tamarack::Attribute> attribute(m_types.createAttribute(typeId));
    if (!attribute) {
        *error = QStringLiteral("unknown type %1").arg(typeId);
        return nullptr;
    }
    return assign(attribute.get(), typeId, text, error) ? attribute.release() : nullptr;
}

} // namespace LoomyCli
