#include "kestrel/BinaryData.h"

#include <gtest/gtest.h>

#include <QByteArray>
#include <QString>

#include <cstring>
#include <functional>
#include <limits>
#include <memory>
#include <vector>

using Kestrel::BinaryData;

namespace {

QByteArray bytesOf(const BinaryData &d)
{
    return QByteArray(d.data(), int(d.total()));
}

QByteArray le32(uint32_t v)
{
    return QByteArray(reinterpret_cast<const char *>(&v), 4);
}

QByteArray le64(uint64_t v)
{
    return QByteArray(reinterpret_cast<const char *>(&v), 8);
}

template <typename T>
QByteArray raw(const T &v)
{
    return QByteArray(reinterpret_cast<const char *>(&v), int(sizeof v));
}

// One item kind: how to write a sample, the exact bytes that must come out, and a read that must
// give the sample back (true) or fail cleanly (false).
struct ItemCase
{
    const char *name;
    std::function<void(BinaryData &)> write;
    QByteArray wire;
    std::function<bool(BinaryData &)> readBack;
};

template <typename T>
std::function<bool(BinaryData &)> expectRead(T (BinaryData::*read)(bool *), T expected)
{
    return [read, expected](BinaryData &d) {
        bool ok = true;
        const T got = (d.*read)(&ok);
        return ok && got == expected;
    };
}

std::vector<ItemCase> itemCases()
{
    const Wisket::Vector4f v4f(1.5f, -2.f, 3.25f, 0.f);
    const Wisket::Vector3i v3i(-1, 2, 0x7fffffff);
    return {
        {"Int32", [](BinaryData &d) { d.writeInt32(-2); }, QByteArray("INT4") + le32(0xfffffffe),
         expectRead(&BinaryData::readInt32, -2)},
        {"Int64", [](BinaryData &d) { d.writeInt64(0x123456789aL); }, QByteArray("INT8") + le64(0x123456789aULL),
         expectRead(&BinaryData::readInt64, 0x123456789aL)},
        {"Float32", [](BinaryData &d) { d.writeFloat32(0.5f); }, QByteArray("FLT4") + raw(0.5f),
         expectRead(&BinaryData::readFloat32, 0.5f)},
        {"Float64", [](BinaryData &d) { d.writeFloat64(-0.25); }, QByteArray("FLT8") + raw(-0.25),
         expectRead(&BinaryData::readFloat64, -0.25)},
        {"TimeStamp", [](BinaryData &d) { d.writeTimeStamp(Kestrel::TimeStamp(-5)); },
         QByteArray("TIME") + le64(uint64_t(-5)), expectRead(&BinaryData::readTimeStamp, Kestrel::TimeStamp(-5))},
        {"Vector2Float32", [](BinaryData &d) { d.writeVector2Float32({1.f, 2.f}); },
         QByteArray("VF2 ") + raw(1.f) + raw(2.f),
         expectRead(&BinaryData::readVector2Float32, Wisket::Vector2f(1.f, 2.f))},
        {"Vector3Float32", [](BinaryData &d) { d.writeVector3Float32({1.f, 2.f, 3.f}); },
         QByteArray("VF3 ") + raw(1.f) + raw(2.f) + raw(3.f),
         expectRead(&BinaryData::readVector3Float32, Wisket::Vector3f(1.f, 2.f, 3.f))},
        {"Vector4Float32", [v4f](BinaryData &d) { d.writeVector4Float32(v4f); }, QByteArray("VF4 ") + raw(v4f),
         expectRead(&BinaryData::readVector4Float32, v4f)},
        {"Vector2Int32", [](BinaryData &d) { d.writeVector2Int32({7, -7}); },
         QByteArray("VI2 ") + le32(7) + le32(uint32_t(-7)),
         expectRead(&BinaryData::readVector2Int32, Wisket::Vector2i(7, -7))},
        {"Vector3Int32", [v3i](BinaryData &d) { d.writeVector3Int32(v3i); }, QByteArray("VI3 ") + raw(v3i),
         expectRead(&BinaryData::readVector3Int32, v3i)},
        {"Vector4Int32", [](BinaryData &d) { d.writeVector4Int32({1, 2, 3, 4}); },
         QByteArray("VI4 ") + le32(1) + le32(2) + le32(3) + le32(4),
         expectRead(&BinaryData::readVector4Int32, Wisket::Vector4i(1, 2, 3, 4))},
        {"StringPaddedAfterNul", [](BinaryData &d) { d.writeString("abc"); },
         QByteArray("STR ") + le32(3) + QByteArray("abc\0", 4),
         [](BinaryData &d) { QByteArray s; return d.readString(s) && s == "abc"; }},
        {"StringNulNeedsNextWord", [](BinaryData &d) { d.writeString("abcd"); },
         QByteArray("STR ") + le32(4) + QByteArray("abcd\0\0\0\0", 8),
         [](BinaryData &d) { QByteArray s; return d.readString(s) && s == "abcd"; }},
        {"StringEmpty", [](BinaryData &d) { d.writeString(QByteArray()); },
         QByteArray("STR ") + le32(0) + QByteArray(4, '\0'),
         [](BinaryData &d) { QByteArray s("x"); return d.readString(s) && s.isEmpty(); }},
        {"StringUtf8", [](BinaryData &d) { d.writeString(QString::fromUtf8("\xc3\xa4")); },
         QByteArray("STR ") + le32(2) + QByteArray("\xc3\xa4\0\0", 4),
         [](BinaryData &d) { QString s; return d.readString(s) && s == QString::fromUtf8("\xc3\xa4"); }},
        {"Blob", [](BinaryData &d) { d.writeBlob("\x01\x02\x03\x04\x05", 5); },
         QByteArray("BLOB") + le32(5) + QByteArray("\x01\x02\x03\x04\x05\0\0\0", 8),
         [](BinaryData &d) {
             char out[5] = {};
             return d.readBlob(out, 5) && std::memcmp(out, "\x01\x02\x03\x04\x05", 5) == 0;
         }},
    };
}

void PrintTo(const ItemCase &c, std::ostream *out)
{
    *out << c.name;
}

class BinaryDataItem : public ::testing::TestWithParam<ItemCase>
{
};

} // namespace

TEST_P(BinaryDataItem, WritesExactBytes)
{
    BinaryData d;
    GetParam().write(d);
    EXPECT_EQ(bytesOf(d).toHex(), GetParam().wire.toHex());
    EXPECT_EQ(d.pos(), d.total());
    EXPECT_EQ(d.total() % 4, 0u);
}

TEST_P(BinaryDataItem, ReadsBackAndEndsOnTheItemBoundary)
{
    BinaryData d;
    GetParam().write(d);
    d.writeInt32(99);   // a follower proves the position landed on the next item
    d.rewind();
    EXPECT_TRUE(GetParam().readBack(d));
    EXPECT_EQ(d.pos(), unsigned(GetParam().wire.size()));
    EXPECT_EQ(d.readInt32(), 99);
}

// Each prefix lives in a heap block of exactly its own length, so that a read past total() is a
// read past the block (and caught by AddressSanitizer in the sanitizer build).
TEST_P(BinaryDataItem, EveryTruncatedPrefixFailsWithoutMoving)
{
    const QByteArray wire = GetParam().wire;
    for (int len = 0; len < wire.size(); ++len) {
        std::unique_ptr<char[]> block(new char[size_t(len) + 1]);
        std::memcpy(block.get(), wire.constData(), size_t(len));
        BinaryData d;
        d.linkTo(block.get(), len);
        d.setTotal(unsigned(len));
        EXPECT_FALSE(GetParam().readBack(d)) << "prefix " << len;
        EXPECT_EQ(d.pos(), 0u) << "prefix " << len;
    }
}

INSTANTIATE_TEST_SUITE_P(Wire, BinaryDataItem, ::testing::ValuesIn(itemCases()),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(BinaryData, Int32ItemIsExactlyEightBytes)
{
    BinaryData d;
    d.writeInt32(0);
    EXPECT_EQ(d.total(), 8u);
    d.writeInt32(std::numeric_limits<int>::min());
    EXPECT_EQ(d.total(), 16u);
}

TEST(BinaryData, ReadInt32NarrowsAnInt64Item)
{
    struct Case { long written; int read; };
    const Case cases[] = {{5, 5}, {-2, -2}, {0x100000005L, 5}, {0x80000000L, std::numeric_limits<int>::min()}};
    for (const Case &c : cases) {
        BinaryData d;
        d.writeInt64(c.written);
        d.writeInt32(7);
        d.rewind();
        bool ok = true;
        EXPECT_EQ(d.readInt32(&ok), c.read) << c.written;
        EXPECT_TRUE(ok);
        EXPECT_EQ(d.pos(), 12u);
        EXPECT_EQ(d.readInt32(), 7);
    }
}

TEST(BinaryData, WideningReadsAcceptTheNarrowItems)
{
    BinaryData d;
    d.writeInt32(-9);
    d.writeFloat32(0.75f);
    d.writeFloat64(0.125);
    d.rewind();
    EXPECT_EQ(d.readInt64(), -9L);
    EXPECT_EQ(d.readFloat64(), 0.75);
    EXPECT_EQ(d.readFloat32(), 0.125f);
    EXPECT_EQ(d.pos(), d.total());
}

TEST(BinaryData, ReadOfAnotherKindFailsAndLeavesThePosition)
{
    BinaryData d;
    d.writeString("x");
    d.rewind();
    bool ok = true;
    EXPECT_EQ(d.readInt32(&ok), 0);
    EXPECT_FALSE(ok);
    EXPECT_EQ(d.readTimeStamp(&ok), Kestrel::TimeStamp());
    char blob[1];
    EXPECT_FALSE(d.readBlob(blob, 1));
    EXPECT_EQ(d.pos(), 0u);
    QByteArray s;
    EXPECT_TRUE(d.readString(s));
    EXPECT_EQ(s, "x");
}

TEST(BinaryData, SuccessfulReadLeavesOkAlone)
{
    BinaryData d;
    d.writeInt32(1);
    d.rewind();
    bool ok = true;
    d.readInt32(&ok);
    EXPECT_TRUE(ok);
    d.readInt32(&ok);   // past the end
    EXPECT_FALSE(ok);
}

TEST(BinaryData, HostileLengthsAreRejectedBeforeCopying)
{
    for (uint32_t length : {0xffffffffu, 0xfffffffcu, 0x7fffffffu, 9u}) {
        BinaryData d;
        d.writeBlob("abcdefgh", 8);
        std::memcpy(d.data() + 4, &length, 4);   // a length that claims more than is there
        d.rewind();
        std::vector<char> out(16);
        EXPECT_FALSE(d.readBlob(out.data(), int(std::min<uint32_t>(length, 16))));
        QByteArray s;
        EXPECT_FALSE(d.readString(s));
        EXPECT_EQ(d.pos(), 0u);
    }
}

TEST(BinaryData, BlobOfAnotherLengthIsNotRead)
{
    BinaryData d;
    d.writeBlob("abcd", 4);
    d.rewind();
    char out[8] = {'-', '-', '-', '-', '-', '-', '-', '-'};
    EXPECT_FALSE(d.readBlob(out, 3));
    EXPECT_FALSE(d.readBlob(out, 8));
    EXPECT_EQ(QByteArray(out, 8), QByteArray("--------"));
    EXPECT_TRUE(d.readBlob(out, 4));
    EXPECT_EQ(QByteArray(out, 4), QByteArray("abcd"));
}

TEST(BinaryData, ReadsStopAtSizeEvenWhenTotalClaimsMore)
{
    BinaryData source;
    source.writeInt32(1);
    std::unique_ptr<char[]> block(new char[8]);
    std::memcpy(block.get(), source.data(), 8);
    BinaryData d;
    d.linkTo(block.get(), 8);
    d.setTotal(1000);
    EXPECT_EQ(d.readInt32(), 1);
    bool ok = true;
    d.readInt32(&ok);
    EXPECT_FALSE(ok);
}

TEST(BinaryData, LinkedMemorySurvivesTheObject)
{
    char foreign[16];
    std::memset(foreign, 0x5a, sizeof foreign);
    {
        BinaryData d;
        d.linkTo(foreign, sizeof foreign);
        d.writeInt32(3);   // fits: goes into the foreign bytes
        EXPECT_TRUE(d.isLinked());
    }   // must not free stack memory
    EXPECT_EQ(QByteArray(foreign, 8), QByteArray("INT4") + le32(3));
    EXPECT_EQ(QByteArray(foreign + 8, 8), QByteArray(8, 0x5a));
}

TEST(BinaryData, GrowingALinkedBufferCopiesItAndLeavesTheForeignBytes)
{
    char foreign[8];
    std::memset(foreign, 0x11, sizeof foreign);
    {
        BinaryData d;
        d.linkTo(foreign, sizeof foreign);
        d.writeInt32(1);
        d.writeInt32(2);   // no room: moves to memory of its own
        EXPECT_FALSE(d.isLinked());
        EXPECT_GE(d.size(), 16u);
        d.rewind();
        EXPECT_EQ(d.readInt32(), 1);
        EXPECT_EQ(d.readInt32(), 2);
    }
    EXPECT_EQ(QByteArray(foreign, 8), QByteArray("INT4") + le32(1));
}

TEST(BinaryData, EnsureAddsToTheCapacityForLinkToCallers)
{
    QByteArray payload(40, 'p');
    BinaryData d;
    d.linkTo(payload.data(), 8);
    const unsigned wanted = unsigned(payload.size());
    d.ensure(wanted - d.size());
    d.setTotal(wanted);
    EXPECT_GE(d.size(), wanted);
    EXPECT_EQ(bytesOf(d).left(8), QByteArray(8, 'p'));
}

TEST(BinaryData, ReadToTheEndStillAppendsEveryByte)
{
    BinaryData event;
    event.writeInt32(1);
    event.writeString("name");
    event.writeBlob("xyz", 3);
    event.rewind();
    event.readInt32();
    QByteArray s;
    event.readString(s);
    char blob[3];
    event.readBlob(blob, 3);
    ASSERT_EQ(event.pos(), event.total());

    BinaryData copy;
    copy.append(event);
    EXPECT_EQ(bytesOf(copy), bytesOf(event));
    EXPECT_EQ(copy.pos(), event.total());
}

TEST(BinaryData, AppendGoesToThePositionAndSelfAppendDoublesTheBytes)
{
    BinaryData d;
    d.writeInt32(4);
    d.append(d);
    EXPECT_EQ(bytesOf(d), (QByteArray("INT4") + le32(4)).repeated(2));
    d.rewind();
    BinaryData other;
    other.writeInt32(8);
    d.append(other);   // overwrites the first item; total stays
    EXPECT_EQ(d.total(), 16u);
    d.rewind();
    EXPECT_EQ(d.readInt32(), 8);
    EXPECT_EQ(d.readInt32(), 4);
}

TEST(BinaryData, CopiesAreDeep)
{
    BinaryData original;
    original.writeInt32(1);
    original.writeInt32(2);
    BinaryData copy(original);
    BinaryData assigned;
    assigned.writeString("old content");
    assigned = original;
    original.rewind();
    original.writeInt32(100);
    for (BinaryData *d : {&copy, &assigned}) {
        EXPECT_EQ(d->total(), 16u);
        EXPECT_EQ(d->pos(), 16u);
        d->rewind();
        EXPECT_EQ(d->readInt32(), 1);
    }
}

TEST(BinaryData, CopyOfLinkedDataOwnsItsBytes)
{
    char foreign[8];
    BinaryData linked;
    linked.linkTo(foreign, 8);
    linked.writeInt32(6);
    BinaryData copy(linked);
    EXPECT_FALSE(copy.isLinked());
    EXPECT_NE(copy.data(), foreign);

    // Assigning into a linked object must not write into its foreign memory either.
    char target[16];
    std::memset(target, 0, sizeof target);
    BinaryData into;
    into.linkTo(target, 16);
    into = copy;
    EXPECT_EQ(QByteArray(target, 16), QByteArray(16, '\0'));
    into.rewind();
    EXPECT_EQ(into.readInt32(), 6);
}

TEST(BinaryData, MoveTakesTheBuffer)
{
    BinaryData a;
    a.writeInt32(5);
    const char *buffer = a.data();
    BinaryData b(std::move(a));
    EXPECT_EQ(b.data(), buffer);
    EXPECT_EQ(b.total(), 8u);
    EXPECT_EQ(a.total(), 0u);
    EXPECT_EQ(a.data(), nullptr);
}

TEST(BinaryData, PatchingTheLeadingSizeKeepsTheTotal)
{
    BinaryData block;
    block.writeInt32(0);
    block.writeString("key");
    block.writeString("value");
    const unsigned total = block.total();
    block.rewind();
    block.writeInt32(int(total));
    EXPECT_EQ(block.total(), total);
    block.rewind();
    EXPECT_EQ(block.readInt32(), int(total));
    QByteArray key, value;
    EXPECT_TRUE(block.readString(key));
    EXPECT_TRUE(block.readString(value));
    EXPECT_EQ(value, "value");
}

TEST(BinaryData, ClearKeepsTheBuffer)
{
    BinaryData d;
    d.writeBlob(QByteArray(100, 'x').constData(), 100);
    const char *buffer = d.data();
    const unsigned size = d.size();
    d.clear();
    EXPECT_EQ(d.total(), 0u);
    EXPECT_EQ(d.pos(), 0u);
    EXPECT_EQ(d.data(), buffer);
    EXPECT_EQ(d.size(), size);
    bool ok = true;
    d.readInt32(&ok);
    EXPECT_FALSE(ok);
}

TEST(BinaryData, NullStringAndNegativeBlobWriteEmptyItems)
{
    BinaryData d;
    d.writeString(static_cast<const char *>(nullptr));
    d.writeBlob(nullptr, -4);
    EXPECT_EQ(bytesOf(d), QByteArray("STR ") + le32(0) + le32(0) + QByteArray("BLOB") + le32(0));
}
