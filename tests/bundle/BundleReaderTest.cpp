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

// Reads return a pointer into the array and step rounded up to 4; typed reads copy memory order.
TEST(BundleReaderCore, ReadsPointIntoTheArrayAndKeepAlignment)
{
    const QByteArray data(12, 'x');
    for (const auto &step : {std::pair<unsigned, unsigned>{0, 0}, {1, 4}, {3, 4}, {4, 4}, {5, 8}, {8, 8}}) {
        BundleReaderCore reader(data, 4);
        EXPECT_EQ(reader.read(step.first), data.constData() + 4) << step.first;
        EXPECT_EQ(reader.position(), 4 + step.second) << step.first;
    }
    const QByteArray typed = unhex("04030201 0807060504030201 0a000000 0b000000 0c000000 0d000000"
                                   "01000000 02000000 03000000 414243ff");
    BundleReaderCore reader(typed);
    EXPECT_EQ(reader.read<quint32>(), 0x01020304u);
    EXPECT_EQ(reader.read<quint64>(), 0x0102030405060708ull);
    EXPECT_EQ(reader.read<Plain16>().d, 13u);
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

// Padding is not checked; the free string stops at a zero byte, yet steps over the whole length;
// lengths whose sum with the position wraps fail as overruns.
TEST(BundleReader, StringsDecodeExactBytesInEveryFormAndRefuseBadLengths)
{
    const std::string tooLong = "invalid_argument: BundleReaderCore::readString # too many characters";
    const std::string mismatch = "invalid_argument: BundleReaderCore::readString # size mismatch";
    const unsigned any = BundleReaderCore::defaultMaxLength;
    const std::tuple<const char *, unsigned, Results> cases[] = {
        {"00000000", 5, Results(4, " @4")},
        {"05000000 6162636465 000000", 5, Results(4, "61 62 63 64 65 @12")},
        {"04000000 61626364", 5, Results(4, "61 62 63 64 @8")},
        {"01000000 61 ffffff", 5, Results(4, "61 @8")},
        {"02000000 c3a9 0000", 5, Results(4, "c3 a9 @8")},
        {"05000000 6162636465 000000", 4, {tooLong, tooLong, "invalid_argument: BundleReaderCore::readBinary # "
                                                             "too many characters", "61 62 63 64 65 @12"}},
        {"03000000 610062 00", 5, {mismatch, mismatch, "61 00 62 @8", "61 @8"}},
        {"ffffffff 6162", any, Results(4, s_readPastEnd)},
        {"fdffffff 6162", any, Results(4, s_readPastEnd)},
        {"fcffffff 6162", any, Results(4, s_readPastEnd)},
    };
    for (const auto &c : cases)
        EXPECT_EQ(readEach(unhex(std::get<0>(c)), std::get<1>(c)), std::get<2>(c)) << std::get<0>(c);
    // Prefixes that lack some of the string's bytes fail, those that lack only padding pass.
    const QByteArray wire = unhex("05000000 6162636465 000000");
    for (int len = 0; len < wire.size(); ++len)
        EXPECT_EQ(readEach(wire.left(len)), Results(4, len < 9 ? s_readPastEnd : "61 62 63 64 65 @12")) << len;
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
            const auto read = [&] { EXPECT_EQ(readMap(reader), c.second); EXPECT_EQ(reader.position(), 16u + len); };
            EXPECT_EQ(thrown(read), len == wire.size() ? "nothing thrown" : s_readPastEnd) << c.first << " cut " << len;
        }
    }
    const Bundle hostile = withBody(unhex("ffffffff 00000000 00000000"));
    BundleReader reader(hostile);
    EXPECT_EQ(thrown([&] { readMap(reader); }), s_readPastEnd);
}
