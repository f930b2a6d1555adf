#pragma once
#include "loomy/bundle/Bundle.h"
#include "loomy/bundle/BundleDispatcher.h"
#include "loomy/bundle/BundleReader.h"
#include "loomy/bundle/BundleSender.h"
#include "loomy/bundle/BundleWriter.h"

#include <QStringList>

#include <gtest/gtest.h>

#include <functional>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

// Plain values of the sizes that take the short, the padded and the unpadded long path.
struct Plain3 { char c[3]; };
struct Plain12 { quint32 x, y, z; };
struct Plain16 { quint32 a, b, c, d; };

// Spaced hex, so that a failed comparison shows where two wire images differ.
inline std::string hex(const QByteArray &bytes) { return bytes.toHex(' ').toStdString(); }
inline QByteArray unhex(const char *text) { return QByteArray::fromHex(text); }
inline Loomy::Bundle withBody(const QByteArray &body) { return Loomy::Bundle(QByteArray(16, '\0') + body); }
inline void PrintTo(const QString &text, std::ostream *os) { *os << '"' << text.toStdString() << '"'; }

// What `f` threw, as "kind: text", so that type and text are checked in one comparison.
template <typename F> std::string thrown(F &&f)
{
    try {
        f();
    } catch (const std::exception &e) {
        const char *kind = dynamic_cast<const std::invalid_argument *>(&e) ? "invalid_argument: "
                           : dynamic_cast<const std::out_of_range *>(&e)   ? "out_of_range: "
                                                                           : "other: ";
        return kind + std::string(e.what());
    }
    return "nothing thrown";
}
inline const std::string s_readPastEnd = "out_of_range: BundleReader::read # tried to read past the end";
inline const std::string s_writePastEnd = "out_of_range: BundleWriterCore::writeDataAt # tried to write past the end";
inline const QString s_info = QStringLiteral("info application=Loomy version=2.14.4");
inline const QString s_loaded = QStringLiteral(" description=Module loaded successfully");

// The records of a handshake bundle as "command [number] fields... key=value..."; checks their sizes.
inline QStringList handshakeRecords(const Loomy::Bundle &bundle)
{
    QStringList records;
    Loomy::BundleReader reader(bundle);
    while (reader.position() < unsigned(bundle.size())) {
        const quint32 size = reader.read<quint32>();
        const unsigned start = reader.position();
        QStringList fields{Loomy::readString(reader)};
        if (fields[0] == "load-module")
            fields << QString::number(reader.read<quint32>());
        if (fields[0] != "info")
            fields << Loomy::readString(reader);
        if (fields[0] == "ok" || fields[0] == "error")
            fields << Loomy::readString(reader);
        const QMap<QString, QString> map = Loomy::readMap(reader);
        for (auto it = map.cbegin(); it != map.cend(); ++it)
            fields << it.key() + "=" + it.value();
        EXPECT_EQ(reader.position() - start, size) << fields.join(' ').toStdString();
        records << fields.join(' ');
    }
    return records;
}

// "type id ack: " and then the handshake records or the first word, one line per bundle.
inline QStringList describe(const std::vector<Loomy::Bundle> &bundles)
{
    QStringList lines;
    for (const Loomy::Bundle &b : bundles) {
        Loomy::BundleReader reader(b);
        lines << QStringLiteral("%1 %2 %3: %4").arg(b.messageType()).arg(b.bundleId()).arg(b.ackBundleId())
                     .arg(b.messageType() ? QString::number(reader.read<quint32>()) : handshakeRecords(b).join(" | "));
    }
    return lines;
}

const quint32 s_badWord = 0xbad;

// One bundle of its module per queued word. Frame thread only.
struct WordSender : Loomy::BundleSender
{
    explicit WordSender(const QByteArray &module = "Test.Words") : module(module) {}
    void initialize(Loomy::BundleDispatcher &d) override { type = d.lookupOrRegisterMessageType(module); }
    void writeUpdates(Loomy::BundleOutput &output) override
    {
        for (quint32 word : std::exchange(queued, {})) {
            Loomy::Bundle bundle;
            Loomy::BundleWriter(bundle).write(word);
            bundle.stamp(type, output.nextBundleId(), output.ackBundleId());
            output.addBundle(bundle);
        }
    }
    QByteArray module;
    unsigned type = 0;
    std::vector<quint32> queued;
};

// Keeps the first word of each bundle and each config; throws after reading s_badWord.
struct WordReceiver : Loomy::BundleReceiver
{
    explicit WordReceiver(const QByteArray &name = "Test.Words", bool failInit = false)
        : BundleReceiver(name), failInit(failInit) {}
    void handleBundle(Loomy::BundleReader &reader) override
    {
        words.push_back(reader.read<quint32>());
        if (words.back() == s_badWord)
            throw std::invalid_argument("bad word");
    }
    void initialize(const QMap<QString, QString> &config) override
    {
        configs.push_back(config);
        if (failInit)
            throw std::runtime_error("init failed");
    }
    bool failInit;
    std::vector<quint32> words;
    std::vector<QMap<QString, QString>> configs;
};
