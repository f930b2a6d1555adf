#include "loomy/bundle/BundleReader.h"

#include "BundleTestUtil.h"

using namespace Loomy;

namespace {

using Results = std::vector<std::string>;

// What each string reader makes of `wire`: member string, text, binary and the free string, each
// as "bytes @ position after", or what it threw. maxLength does not bind the free string.
Results readEach(const QByteArray &wire, unsigned maxLength = BundleReaderCore::defaultMaxLength)
{
    const auto result = [](auto read) {
        std::string out;
        const std::string error = thrown([&] { out = read(); });
        return error == "nothing thrown" ? out : error;
    };
    const auto at = [](const QByteArray &bytes, unsigned end) { return hex(bytes) + " @" + std::to_string(end); };
    const Bundle bundle = withBody(wire);
    QByteArray bytes;
    QString text;
    BundleReaderCore r1(wire), r2(wire), r3(wire);
    BundleReader r4(bundle);
    return {result([&] { r1.readString(bytes, maxLength); return at(bytes, r1.position()); }),
            result([&] { r2.readString(text, maxLength); return at(text.toUtf8(), r2.position()); }),
            result([&] { r3.readBinary(bytes, maxLength); return at(bytes, r3.position()); }),
            result([&] { text = readString(r4); return at(text.toUtf8(), r4.position() - 16); })};
}

} // namespace

TEST(BundleReaderCore, ReadReturnsPointerIntoArrayAndStepsRoundedUpToFour)
{
    const QByteArray data(12, 'x');
    for (const auto &step : {std::pair<unsigned, unsigned>{0, 0}, {1, 4}, {3, 4}, {4, 4}, {5, 8}, {8, 8}}) {
        BundleReaderCore reader(data, 4);
        EXPECT_EQ(reader.read(step.first), data.constData() + 4) << step.first;
        EXPECT_EQ(reader.position(), 4 + step.second) << step.first;
    }
}

TEST(BundleReaderCore, TypedReadsCopyMemoryOrderAndKeepAlignment)
{
    const QByteArray data = unhex("04030201 0807060504030201 0a000000 0b000000 0c000000 0d000000"
                                  "01000000 02000000 03000000 414243ff");
    BundleReaderCore reader(data);
    EXPECT_EQ(reader.read<quint32>(), 0x01020304u);
    EXPECT_EQ(reader.read<quint64>(), 0x0102030405060708ull);
    const Plain16 w = reader.read<Plain16>();
    EXPECT_EQ((std::vector<quint32>{w.a, w.b, w.c, w.d}), (std::vector<quint32>{10, 11, 12, 13}));
    EXPECT_EQ(reader.read<Plain12>().z, 3u);
    EXPECT_EQ(std::string(reader.read<Plain3>().c, 3), "ABC");  // padding 0xff is stepped over unchecked
    EXPECT_EQ(reader.position(), 44u);
}

// A plain 32-bit test "size < position + length" passes the wrapping rows, as the sum wraps.
TEST(BundleReaderCore, ReadThrowsOnlyWhenTheBytesAreNotAllInside)
{
    struct Case { const char *name; int arraySize; unsigned position, size; bool fits; };
    const Case cases[] = {
        {"ThreeWantedTwoLeft", 8, 6, 3, false},  {"ExactFitRoundsPastEnd", 7, 4, 3, true},
        {"ZeroAtTheVeryEnd", 8, 8, 0, true},     {"ZeroPastEnd", 7, 8, 0, false},
        {"SumWraps", 12, 8, 0xfffffffcu, false}, {"SumWrapsFromPastEnd", 7, 8, 0xffffffffu, false},
        {"PositionNearWrap", 64, 0xfffffff0u, 0x20, false},
    };
    for (const Case &c : cases) {
        const QByteArray data(c.arraySize, 'x');
        BundleReaderCore reader(data, c.position);
        EXPECT_EQ(thrown([&] { reader.read(c.size); }), c.fits ? "nothing thrown" : s_readPastEnd) << c.name;
    }
}

TEST(BundleReader, StringsDecodeExactBytesInEveryForm)
{
    const std::pair<const char *, const char *> cases[] = {
        {"00000000", " @4"},
        {"05000000 6162636465 000000", "61 62 63 64 65 @12"},
        {"04000000 61626364", "61 62 63 64 @8"},
        {"01000000 61 ffffff", "61 @8"},  // padding is not checked
        {"02000000 c3a9 0000", "c3 a9 @8"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(readEach(unhex(c.first), 5), Results(4, c.second)) << c.first;
}

TEST(BundleReader, ExactFormsRefuseWhatIsTooLongOrHasAZeroInside)
{
    const std::string tooLong = "invalid_argument: BundleReaderCore::readString # too many characters";
    const std::string mismatch = "invalid_argument: BundleReaderCore::readString # size mismatch";
    EXPECT_EQ(readEach(unhex("05000000 6162636465 000000"), 4),
              (Results{tooLong, tooLong, "invalid_argument: BundleReaderCore::readBinary # too many characters",
                       "61 62 63 64 65 @12"}));
    // The free form stops at the zero, yet steps over the whole length.
    const QByteArray embedded = unhex("03000000 610062 00");
    EXPECT_EQ(readEach(embedded), (Results{mismatch, mismatch, "61 00 62 @8", "61 @8"}));
    // The mismatch is found only after the output is filled and the cursor moved.
    BundleReaderCore reader(embedded);
    QByteArray out;
    EXPECT_THROW(reader.readString(out), std::invalid_argument);
    EXPECT_EQ(hex(out) + " @" + std::to_string(reader.position()), "61 00 62 @8");
}

// Prefixes that lack some of the string's bytes fail, those that lack only padding pass. A length
// word whose sum with the position wraps fails as well, and never hands out outside bytes.
TEST(BundleReader, LengthPastTheEndThrowsInEveryReader)
{
    const QByteArray wire = unhex("05000000 6162636465 000000");
    for (int len = 0; len < wire.size(); ++len)
        EXPECT_EQ(readEach(wire.left(len)), Results(4, len < 9 ? s_readPastEnd : "61 62 63 64 65 @12")) << len;
    for (const char *word : {"ffffffff", "fdffffff", "fcffffff"})
        EXPECT_EQ(readEach(unhex(word) + "ab"), Results(4, s_readPastEnd)) << word;
}

// Every byte of these maps counts (none ends in padding), so each prefix of one throws.
TEST(BundleReader, MapReadsEveryPairKeepsTheLastOfARepeatedKeyAndThrowsOnEveryPrefix)
{
    const std::pair<const char *, QMap<QString, QString>> cases[] = {
        {"00000000", {}},
        {"02000000 01000000 62000000 01000000 32000000 01000000 61000000 00000000", {{"a", ""}, {"b", "2"}}},
        {"02000000 01000000 61000000 01000000 31000000 01000000 61000000 04000000 32323232", {{"a", "2222"}}},
    };
    for (const auto &c : cases) {
        const QByteArray wire = unhex(c.first);
        for (int len = 0; len <= wire.size(); ++len) {
            const Bundle bundle = withBody(wire.left(len));
            BundleReader reader(bundle);
            const bool whole = len == wire.size();
            EXPECT_EQ(thrown([&] { EXPECT_EQ(readMap(reader), c.second); }), whole ? "nothing thrown" : s_readPastEnd)
                << c.first << " cut at " << len;
            EXPECT_TRUE(!whole || reader.position() == unsigned(bundle.size())) << c.first;
        }
    }
    const Bundle hostile = withBody(unhex("ffffffff 00000000 00000000"));
    BundleReader reader(hostile);
    EXPECT_EQ(thrown([&] { readMap(reader); }), s_readPastEnd);
}
