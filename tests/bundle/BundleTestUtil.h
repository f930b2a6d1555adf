#pragma once
#include "loomy/bundle/Bundle.h"
#include "loomy/bundle/BundleReader.h"

#include <QByteArray>
#include <QString>
#include <QStringList>

#include <gtest/gtest.h>

#include <ostream>
#include <stdexcept>
#include <string>

// Plain values of the sizes that take the short, the padded and the unpadded long path.
struct Plain3 { char c[3]; };
struct Plain12 { quint32 x, y, z; };
struct Plain16 { quint32 a, b, c, d; };

// Bytes as spaced hex, so that a failed comparison shows where two wire images differ.
inline std::string hex(const QByteArray &bytes)
{
    return bytes.toHex(' ').toStdString();
}

// The reverse; spaces in `text` are only for reading.
inline QByteArray unhex(const char *text)
{
    return QByteArray::fromHex(text);
}

// A bundle with a zero header in front of `body`.
inline Loomy::Bundle withBody(const QByteArray &body)
{
    return Loomy::Bundle(QByteArray(16, '\0') + body);
}

// What `f` threw, as "kind: text", so that type and text are checked in one comparison.
template <typename F>
std::string thrown(F &&f)
{
    try {
        f();
    } catch (const std::invalid_argument &e) {
        return std::string("invalid_argument: ") + e.what();
    } catch (const std::out_of_range &e) {
        return std::string("out_of_range: ") + e.what();
    } catch (const std::exception &e) {
        return std::string("other: ") + e.what();
    }
    return "nothing thrown";
}

inline const std::string s_readPastEnd = "out_of_range: BundleReader::read # tried to read past the end";
inline const std::string s_writePastEnd = "out_of_range: BundleWriterCore::writeDataAt # tried to write past the end";

// Table rows print as their name, also in the names of the registered test cases.
template <typename Case>
auto operator<<(std::ostream &os, const Case &row) -> decltype(std::string(row.name), os)
{
    return os << row.name;
}

inline void PrintTo(const QString &text, std::ostream *os)
{
    *os << '"' << text.toStdString() << '"';
}

// The records of a handshake bundle, one line each, as "command [number] fields... key=value...",
// e.g. "ok load-module Test.A description=Module loaded successfully". Checks each record's size.
inline QStringList handshakeRecords(const Loomy::Bundle &bundle)
{
    QStringList records;
    Loomy::BundleReader reader(bundle);
    while (reader.position() < unsigned(bundle.size())) {
        const quint32 size = reader.read<quint32>();
        const unsigned start = reader.position();
        const QString command = Loomy::readString(reader);
        QStringList fields{command};
        if (command == "load-module")
            fields << QString::number(reader.read<quint32>());
        if (command != "info")
            fields << Loomy::readString(reader);
        if (command == "ok" || command == "error")
            fields << Loomy::readString(reader);
        const QMap<QString, QString> map = Loomy::readMap(reader);
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            fields << it.key() + "=" + it.value();
        EXPECT_EQ(reader.position() - start, size) << fields.join(' ').toStdString();
        records << fields.join(' ');
    }
    return records;
}

inline void PrintTo(const QStringList &list, std::ostream *os)
{
    *os << '[' << list.join(" | ").toStdString() << ']';
}
