#include "cli/Tap.h"
#include "cli/ValueText.h"

#include "loomy/types/TypeRegistry.h"

#include <QStringList>

#include <gtest/gtest.h>

#include <ostream>

// Readable failures: lists of lines print as lines.
inline void PrintTo(const QStringList &lines, std::ostream *os) { *os << "\n" << lines.join('\n').toStdString(); }

using LoomyCli::TapDecoder;

namespace {

QByteArray word(quint32 v) { return QByteArray(reinterpret_cast<const char *>(&v), 4); }
QByteArray text(const QByteArray &s) { return word(quint32(s.size())) + s + QByteArray((4 - s.size() % 4) % 4, '\0'); }
QByteArray bundle(quint32 type, quint32 id, quint32 ack, const QByteArray &body)
{
    return word(quint32(body.size())) + word(type) + word(id) + word(ack) + body;
}
QByteArray loadModule(quint32 number, const QByteArray &name)
{
    const QByteArray content = text("load-module") + word(number) + text(name) + word(0);
    return word(quint32(content.size())) + content;
}
QByteArray counting(int n)
{
    QByteArray b;
    for (int i = 0; i < n; ++i)
        b += char(i);
    return b;
}

// The text lines of a stream fed whole, and the same fed one byte at a time.
std::pair<QStringList, QStringList> decode(TapDecoder::Role role, const QByteArray &stream)
{
    Loomy::TypeRegistry types;
    const LoomyCli::ValueText values(types);
    QStringList whole, bytewise;
    TapDecoder a(role, values, [&](const QString &line, const QJsonObject &) { whole << line; });
    a.feed(stream);
    TapDecoder b(role, values, [&](const QString &line, const QJsonObject &) { bytewise << line; });
    for (char c : stream)
        b.feed(QByteArray(1, c));
    return {whole, bytewise};
}

} // namespace

// Login, module binding, symbols, a value decoded by its type id, a record cut short (shown as
// hex with the reason, and the next line still read), a type nobody bound.
TEST(TapDecoder, ServerSideDecodesBatchesAndKeepsGoingPastBadBytes)
{
    const QByteArray handshake = loadModule(2, "Orchardlines.Loomy.AttributeNew") + loadModule(1, "Orchardlines.Loomy.SymbolRegistry");
    const float gain = 1.5f;
    const QByteArray record = word(7) + word(3) + word(4) + word(1) + QByteArray(reinterpret_cast<const char *>(&gain), 4);
    const QByteArray stream = "Lanternwick 2.14.4\n" + counting(64) + "ok\n" + "loomy2 4\n"
                              + bundle(0, 1, 0, handshake) + bundle(1, 2, 0, word(7) + text("a/b"))
                              + bundle(2, 3, 1, record + word(7) + word(20)) + bundle(9, 4, 1, word(0))
                              + "\r\n\nping after\n";
    const auto lines = decode(TapDecoder::FromServer, stream);
    const QStringList expected = {
        "login banner Lanternwick 2.14.4",
        "login challenge " + QString::fromLatin1(counting(64).toHex()),
        "login reply ok",
        "loomy2 batch of 4 bundles",
        QStringLiteral("bundle #1 ack 0 type 0 (Orchardlines.Loomy.Handshake) %1 bytes").arg(handshake.size()),
        "  load-module 2=Orchardlines.Loomy.AttributeNew",
        "  load-module 1=Orchardlines.Loomy.SymbolRegistry",
        "bundle #2 ack 0 type 1 (Orchardlines.Loomy.SymbolRegistry) 12 bytes",
        "  symbol 7=a/b",
        "bundle #3 ack 1 type 2 (Orchardlines.Loomy.AttributeNew) 28 bytes",
        "  + a/b float 1.5",
        "undecodable 8 bytes (BundleReader::read # tried to read past the end): 0700000014000000",
        "bundle #4 ack 1 type 9 (unbound) 4 bytes",
        "  <4 bytes of a type not bound by the handshake>",
        "ping after",
    };
    EXPECT_EQ(lines.first, expected);
    EXPECT_EQ(lines.second, expected);
}

// A size no bundle can have: the rest of the stream is shown raw, never waited for.
TEST(TapDecoder, HostileBundleSizeShowsTheRestAsHex)
{
    const QByteArray stream = "Lanternwick 2.14.4\n" + counting(64) + "ok\n" + "loomy2 1\n" + word(0xffffffffu) + word(0)
                              + word(1) + word(0) + "more";
    const QStringList lines = decode(TapDecoder::FromServer, stream).first;
    ASSERT_EQ(lines.size(), 6);
    EXPECT_EQ(lines[4], "undecodable 16 bytes (body size 4294967295 is too large): ffffffff000000000100000000000000");
    EXPECT_EQ(lines[5], "undecodable 4 bytes (stream lost): 6d6f7265");
}

// Both client logins, file lines with the part payload skipped by its size.
TEST(TapDecoder, ClientSideWithAndWithoutBannerAndFileParts)
{
    const QByteArray after = counting(16) + "filepart \"/a b\" 3 1\n" + "xyz" + "sendparts \"/a b\"\n";
    const QStringList files = {"login digest " + QString::fromLatin1(counting(16).toHex()),
                               "file filepart \"/a b\" (3 bytes of part 1)", "file sendparts \"/a b\""};
    auto lines = decode(TapDecoder::FromClient, "Lanternwick 2.14.4-x\ntolly\n" + after);
    EXPECT_EQ(lines.first, QStringList({"login banner Lanternwick 2.14.4-x", "login user tolly"}) + files);
    EXPECT_EQ(lines.second, lines.first);
    lines = decode(TapDecoder::FromClient, "tolly\n" + after);
    EXPECT_EQ(lines.first, QStringList{"login user tolly"} + files);
}
