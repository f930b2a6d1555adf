#include "loomy/bundle/BundleReader.h"

#include "BundleTestUtil.h"

#include <gtest/gtest.h>

#include <functional>

using namespace Loomy;

// ---- read(size) ----

TEST(BundleReaderCore, ReadReturnsPointerIntoArrayAndStepsRoundedUpToFour)
{
    const QByteArray data(12, 'x');
    const unsigned steps[][2] = {{0, 0}, {1, 4}, {2, 4}, {3, 4}, {4, 4}, {5, 8}, {8, 8}};
    for (const auto &step : steps) {
        BundleReaderCore reader(data, 4);
        EXPECT_EQ(reader.read(step[0]), data.constData() + 4) << step[0];
        EXPECT_EQ(reader.position(), 4 + step[1]) << step[0];
    }
}

TEST(BundleReaderCore, TypedReadsCopyMemoryOrderAndKeepAlignment)
{
    const QByteArray data = unhex("04030201 0807060504030201 0a000000 0b000000 0c000000 0d000000"
                                  "01000000 02000000 03000000 414243ff");
    BundleReaderCore reader(data);
    EXPECT_EQ(reader.read<quint32>(), 0x01020304u);
    EXPECT_EQ(reader.read<quint64>(), 0x0102030405060708ull);
    const Plain16 wide = reader.read<Plain16>();
    EXPECT_EQ(wide.a, 10u);
    EXPECT_EQ(wide.d, 13u);
    const Plain12 triple = reader.read<Plain12>();
    EXPECT_EQ(triple.z, 3u);
    EXPECT_EQ(reader.position(), 40u);
    const Plain3 odd = reader.read<Plain3>();  // padding byte 0xff is stepped over unchecked
    EXPECT_EQ(std::string(odd.c, 3), "ABC");
    EXPECT_EQ(reader.position(), 44u);
}

TEST(BundleReaderCore, ReadZeroAtTheVeryEndSucceeds)
{
    const QByteArray data(8, '\0');
    BundleReaderCore reader(data, 8);
    EXPECT_EQ(reader.read(0), data.constData() + 8);
    EXPECT_EQ(reader.position(), 8u);
}

TEST(BundleReader, DefaultBundleIsAtItsEndAtOnce)
{
    const Bundle bundle;
    BundleReader reader(bundle);
    EXPECT_EQ(reader.position(), unsigned(bundle.size()));
    EXPECT_EQ(thrown([&] { reader.read<quint32>(); }), s_readPastEnd);
}

struct BoundCase { const char *name; int arraySize; unsigned position; unsigned size; bool fits; };
const BoundCase s_boundCases[] = {
    {"ThreeWantedTwoLeft",       8, 6, 3, false},
    {"ExactFitRoundsPastEnd",    7, 4, 3, true},
    {"PositionPastEndReadZero",  7, 8, 0, false},
    // The plain 32-bit test "size < position + length" passes each of these, as the sum wraps.
    {"SumWrapsBelowSize",        12, 8, 0xfffffffcu, false},
    {"SumWrapsFromPastEnd",      7, 8, 0xffffffffu, false},
    {"PositionNearWrap",         64, 0xfffffff0u, 0x20, false},
};
class ReadBounds : public ::testing::TestWithParam<BoundCase> {};
TEST_P(ReadBounds, ThrowsOnlyWhenTheBytesAreNotAllInside)
{
    const BoundCase &c = GetParam();
    const QByteArray data(c.arraySize, 'x');
    BundleReaderCore reader(data, c.position);
    EXPECT_EQ(thrown([&] { reader.read(c.size); }), c.fits ? "nothing thrown" : s_readPastEnd);
}
INSTANTIATE_TEST_SUITE_P(Wire, ReadBounds, ::testing::ValuesIn(s_boundCases),
                         [](const auto &i) { return std::string(i.param.name); });

TEST(BundleReaderCore, ReadAfterRoundingPastTheEndFails)
{
    const QByteArray data(7, 'x');
    BundleReaderCore reader(data, 4);
    reader.read(3);
    EXPECT_EQ(reader.position(), 8u);
    EXPECT_EQ(thrown([&] { reader.read(0); }), s_readPastEnd);
}

// ---- strings and binary blocks ----

struct BlockCase { const char *name; QByteArray wire; QByteArray bytes; unsigned end; };
const BlockCase s_stringCases[] = {
    {"Empty",              unhex("00000000"),                   "",      4},
    {"Padded",             unhex("05000000 6162636465 000000"), "abcde", 12},
    {"Aligned",            unhex("04000000 61626364"),          "abcd",  8},
    {"PaddingUnchecked",   unhex("01000000 61 ffffff"),         "a",     8},
    {"Utf8",               unhex("02000000 c3a9 0000"),         "\xc3\xa9", 8},
};
class StringPrimitive : public ::testing::TestWithParam<BlockCase> {};
TEST_P(StringPrimitive, MemberFormsDecodeExactBytes)
{
    const BlockCase &c = GetParam();
    BundleReaderCore bytesReader(c.wire);
    QByteArray bytes;
    bytesReader.readString(bytes);
    EXPECT_EQ(hex(bytes), hex(c.bytes));
    EXPECT_EQ(bytesReader.position(), c.end);

    BundleReaderCore textReader(c.wire);
    QString text;
    textReader.readString(text, 5);
    EXPECT_EQ(text, QString::fromUtf8(c.bytes));
    EXPECT_EQ(textReader.position(), c.end);

    BundleReaderCore binaryReader(c.wire);
    binaryReader.readBinary(bytes, 5);
    EXPECT_EQ(hex(bytes), hex(c.bytes));
    EXPECT_EQ(binaryReader.position(), c.end);
}
TEST_P(StringPrimitive, FreeFormDecodesExactBytes)
{
    const BlockCase &c = GetParam();
    const Bundle bundle = withBody(c.wire);
    BundleReader reader(bundle);
    EXPECT_EQ(readString(reader), QString::fromUtf8(c.bytes));
    EXPECT_EQ(reader.position(), 16 + c.end);
}
INSTANTIATE_TEST_SUITE_P(Wire, StringPrimitive, ::testing::ValuesIn(s_stringCases),
                         [](const auto &i) { return std::string(i.param.name); });

TEST(BundleReaderCore, BinaryKeepsEmbeddedZero)
{
    const QByteArray wire = unhex("03000000 610062 00");
    BundleReaderCore reader(wire);
    QByteArray out;
    reader.readBinary(out);
    EXPECT_EQ(hex(out), "61 00 62");
    EXPECT_EQ(reader.position(), 8u);
}

TEST(BundleReader, FreeStringStopsAtFirstZeroByte)
{
    const Bundle bundle = withBody(unhex("05000000 6162006364 000000 01000000 7a000000"));
    BundleReader reader(bundle);
    EXPECT_EQ(readString(reader), QStringLiteral("ab"));
    EXPECT_EQ(readString(reader), QStringLiteral("z"));  // the whole length was stepped over
}

// One case per failure; `position` is where the cursor stands after the throw, or 0 to skip.
struct FailureCase {
    const char *name;
    QByteArray wire;
    unsigned maxLength;
    std::function<void(BundleReaderCore &, QByteArray &)> read;
    std::string error;
    unsigned position;
};
const auto s_asString = [](BundleReaderCore &r, QByteArray &out) { r.readString(out, 4); };
const auto s_asText = [](BundleReaderCore &r, QByteArray &) { QString s; r.readString(s, 4); };
const auto s_asBinary = [](BundleReaderCore &r, QByteArray &out) { r.readBinary(out, 4); };
const FailureCase s_failures[] = {
    {"StringTooLong", unhex("05000000 6162636465000000"), 4, s_asString,
     "invalid_argument: BundleReaderCore::readString # too many characters", 4},
    {"TextTooLong", unhex("05000000 6162636465000000"), 4, s_asText,
     "invalid_argument: BundleReaderCore::readString # too many characters", 4},
    {"BinaryTooLong", unhex("05000000 6162636465000000"), 4, s_asBinary,
     "invalid_argument: BundleReaderCore::readBinary # too many characters", 4},
    {"StringEmbeddedZero", unhex("03000000 610062 00"), 4, s_asString,
     "invalid_argument: BundleReaderCore::readString # size mismatch", 8},
    {"TextEmbeddedZero", unhex("03000000 610062 00"), 4, s_asText,
     "invalid_argument: BundleReaderCore::readString # size mismatch", 8},
    {"StringPastEnd", unhex("04000000 616263"), 4, s_asString, s_readPastEnd, 0},
    {"BinaryPastEnd", unhex("04000000 616263"), 4, s_asBinary, s_readPastEnd, 0},
    {"NoLengthWord", unhex("040000"), 4, s_asString, s_readPastEnd, 0},
};
class StringFailure : public ::testing::TestWithParam<FailureCase> {};
TEST_P(StringFailure, ThrowsExactText)
{
    const FailureCase &c = GetParam();
    BundleReaderCore reader(c.wire);
    QByteArray out;
    EXPECT_EQ(thrown([&] { c.read(reader, out); }), c.error);
    if (c.position) {
        EXPECT_EQ(reader.position(), c.position);
    }
}
INSTANTIATE_TEST_SUITE_P(Wire, StringFailure, ::testing::ValuesIn(s_failures),
                         [](const auto &i) { return std::string(i.param.name); });

TEST(BundleReaderCore, MismatchFailsAfterFillingTheOutput)
{
    const QByteArray wire = unhex("03000000 610062 00");
    BundleReaderCore reader(wire);
    QByteArray out;
    EXPECT_THROW(reader.readString(out), std::invalid_argument);
    EXPECT_EQ(hex(out), "61 00 62");
}

// A length word whose sum with the position wraps must fail like any other overrun, and must
// never hand out bytes from outside the array.
TEST(BundleReader, WrappingLengthWordThrowsInEveryReader)
{
    for (const char *word : {"ffffffff", "fdffffff", "fcffffff"}) {
        const QByteArray wire = unhex(word) + "ab";
        const Bundle bundle = withBody(wire);
        QByteArray out;
        QString text;
        EXPECT_EQ(thrown([&] { BundleReaderCore(wire).readString(out); }), s_readPastEnd) << word;
        EXPECT_EQ(thrown([&] { BundleReaderCore(wire).readString(text); }), s_readPastEnd) << word;
        EXPECT_EQ(thrown([&] { BundleReaderCore(wire).readBinary(out); }), s_readPastEnd) << word;
        EXPECT_EQ(thrown([&] { BundleReader reader(bundle); readString(reader); }), s_readPastEnd) << word;
    }
}

// Prefixes that lack some of the string's bytes fail; those that lack only padding pass.
TEST(BundleReader, EveryTruncatedStringPrefixThrows)
{
    const QByteArray wire = unhex("05000000 6162636465 000000");
    for (int len = 0; len < wire.size(); ++len) {
        const QByteArray prefix = wire.left(len);
        const Bundle bundle = withBody(prefix);
        QByteArray out;
        const std::string expected = len < 9 ? s_readPastEnd : "nothing thrown";
        EXPECT_EQ(thrown([&] { BundleReaderCore(prefix).readString(out); }), expected) << len;
        EXPECT_EQ(thrown([&] { BundleReaderCore(prefix).readBinary(out); }), expected) << len;
        EXPECT_EQ(thrown([&] { BundleReader reader(bundle); readString(reader); }), expected) << len;
    }
}

// ---- string maps ----

TEST(BundleReader, MapReadsAllPairs)
{
    const Bundle bundle = withBody(unhex("02000000 01000000 62000000 01000000 32000000"
                                         "01000000 61000000 00000000"));
    BundleReader reader(bundle);
    const QMap<QString, QString> map = readMap(reader);
    EXPECT_EQ(map, (QMap<QString, QString>{{"a", ""}, {"b", "2"}}));
    EXPECT_EQ(reader.position(), unsigned(bundle.size()));
}

TEST(BundleReader, MapWithRepeatedKeyKeepsLastValueAndReadsEveryPair)
{
    const Bundle bundle = withBody(unhex("02000000 01000000 61000000 01000000 31000000"
                                         "01000000 61000000 01000000 32000000 07000000"));
    BundleReader reader(bundle);
    EXPECT_EQ(readMap(reader), (QMap<QString, QString>{{"a", "2"}}));
    EXPECT_EQ(reader.read<quint32>(), 7u);
}

TEST(BundleReader, MapCountZeroIsEmpty)
{
    const Bundle bundle = withBody(unhex("00000000"));
    BundleReader reader(bundle);
    EXPECT_TRUE(readMap(reader).isEmpty());
    EXPECT_EQ(reader.position(), 20u);
}

TEST(BundleReader, EveryTruncatedMapPrefixThrows)
{
    const QByteArray wire = unhex("02000000 04000000 6b657931 04000000 76616c31"
                                  "04000000 6b657932 04000000 76616c32");
    for (int len = 0; len < wire.size(); ++len) {
        const Bundle bundle = withBody(wire.left(len));
        BundleReader reader(bundle);
        EXPECT_EQ(thrown([&] { readMap(reader); }), s_readPastEnd) << len;
    }
}

TEST(BundleReader, HostileMapCountEndsInReadPastEnd)
{
    const Bundle bundle = withBody(unhex("ffffffff 00000000 00000000"));
    BundleReader reader(bundle);
    EXPECT_EQ(thrown([&] { readMap(reader); }), s_readPastEnd);
}
