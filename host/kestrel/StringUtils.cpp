#include "kestrel/StringUtils.h"

#include <charconv>
#include <cstdlib>
#include <cxxabi.h>
#include <sstream>

namespace Kestrel {
namespace StringUtils {

QString demangle(const char *mangledName)
{
    if (!mangledName)
        return QString();
    int status = 0;
    char *readable = abi::__cxa_demangle(mangledName, nullptr, nullptr, &status);
    if (status != 0 || !readable) {
        std::free(readable);
        return QString::fromUtf8(mangledName);
    }
    const QString out = QString::fromUtf8(readable);
    std::free(readable);
    return out;
}

namespace detail {

namespace {

// "name(a, b, c, d)" with four numbers; the text has to be exactly that apart from spaces.
bool parseFour(const QString &text, const QString &name, double out[4])
{
    const QString t = text.trimmed();
    if (!t.startsWith(name + QLatin1Char('(')) || !t.endsWith(QLatin1Char(')')))
        return false;
    const QStringList parts = t.mid(name.size() + 1, t.size() - name.size() - 2).split(QLatin1Char(','));
    if (parts.size() != 4)
        return false;
    for (int i = 0; i < 4; ++i) {
        bool ok = false;
        out[i] = parts[i].trimmed().toDouble(&ok);
        if (!ok)
            return false;
    }
    return true;
}

template <typename C>
QString colorText(const char *name, const C &c)
{
    return QStringLiteral("%1(%2, %3, %4, %5)")
        .arg(QLatin1String(name))
        .arg(c.red * 255.0)
        .arg(c.green * 255.0)
        .arg(c.blue * 255.0)
        .arg(double(c.alpha));
}

template <typename C>
bool parseColor(const char *name, const QString &text, C &c)
{
    double v[4];
    if (!parseFour(text, QLatin1String(name), v))
        return false;
    c = C(float(v[0] / 255.0), float(v[1] / 255.0), float(v[2] / 255.0), float(v[3]));
    return true;
}

// Parsing through QString's converters, which reject trailing junk and overflow.
template <typename T, typename Parse>
bool parseWith(const QString &text, T &value, Parse parse)
{
    bool ok = false;
    const T parsed = parse(text.trimmed(), &ok);
    if (ok)
        value = parsed;
    return ok;
}

// The shortest text that reads back to the same value of the type itself (so 0.1f gives "0.1",
// not the digits of its double widening).
template <typename T>
QString shortestText(T value)
{
    char buffer[64];
    const std::to_chars_result r = std::to_chars(buffer, buffer + sizeof buffer, value);
    return QString::fromLatin1(buffer, int(r.ptr - buffer));
}

} // namespace

QString TextForm<bool>::toString(const bool &value)
{
    return value ? QStringLiteral("true") : QStringLiteral("false");
}

bool TextForm<bool>::fromString(const QString &text, bool &value)
{
    const QString t = text.trimmed().toLower();
    if (t == QLatin1String("true") || t == QLatin1String("1")) {
        value = true;
        return true;
    }
    if (t == QLatin1String("false") || t == QLatin1String("0")) {
        value = false;
        return true;
    }
    return false;
}

QString TextForm<int>::toString(const int &value) { return QString::number(value); }
bool TextForm<int>::fromString(const QString &text, int &value)
{
    return parseWith(text, value, [](const QString &t, bool *ok) { return t.toInt(ok); });
}

QString TextForm<unsigned>::toString(const unsigned &value) { return QString::number(value); }
bool TextForm<unsigned>::fromString(const QString &text, unsigned &value)
{
    // A minus sign is never part of an unsigned text, whatever the converter makes of it.
    if (text.trimmed().startsWith(QLatin1Char('-')))
        return false;
    return parseWith(text, value, [](const QString &t, bool *ok) { return t.toUInt(ok); });
}

QString TextForm<long>::toString(const long &value) { return QString::number(value); }
bool TextForm<long>::fromString(const QString &text, long &value)
{
    return parseWith(text, value, [](const QString &t, bool *ok) { return long(t.toLongLong(ok)); });
}

QString TextForm<unsigned long>::toString(const unsigned long &value) { return QString::number(value); }
bool TextForm<unsigned long>::fromString(const QString &text, unsigned long &value)
{
    if (text.trimmed().startsWith(QLatin1Char('-')))
        return false;
    return parseWith(text, value,
                        [](const QString &t, bool *ok) { return static_cast<unsigned long>(t.toULongLong(ok)); });
}

QString TextForm<float>::toString(const float &value)
{
    return shortestText(value);
}
bool TextForm<float>::fromString(const QString &text, float &value)
{
    return parseWith(text, value, [](const QString &t, bool *ok) { return t.toFloat(ok); });
}

QString TextForm<double>::toString(const double &value)
{
    return shortestText(value);
}
bool TextForm<double>::fromString(const QString &text, double &value)
{
    return parseWith(text, value, [](const QString &t, bool *ok) { return t.toDouble(ok); });
}

QString TextForm<QString>::toString(const QString &value) { return value; }
bool TextForm<QString>::fromString(const QString &text, QString &value)
{
    value = text;
    return true;
}

QString TextForm<Color>::toString(const Color &value) { return colorText("rgba", value); }
bool TextForm<Color>::fromString(const QString &text, Color &value) { return parseColor("rgba", text, value); }

QString TextForm<ColorPMA>::toString(const ColorPMA &value) { return colorText("rgba_pma", value); }
bool TextForm<ColorPMA>::fromString(const QString &text, ColorPMA &value)
{
    return parseColor("rgba_pma", text, value);
}

QString TextForm<TimeStamp>::toString(const TimeStamp &value)
{
    std::ostringstream out;
    out << value;
    return QString::fromStdString(out.str());
}
bool TextForm<TimeStamp>::fromString(const QString &text, TimeStamp &value)
{
    std::istringstream in(text.trimmed().toStdString());
    TimeStamp parsed;
    if (!(in >> parsed) || in.peek() != std::char_traits<char>::eof())
        return false;
    value = parsed;
    return true;
}

} // namespace detail
} // namespace StringUtils
} // namespace Kestrel
