#include "kestrel/BinaryData.h"

#include <gtest/gtest.h>

#include <QByteArray>
#include <QString>

#include <cstring>
#include <functional>
#include <memory>

using Kestrel::BinaryData;
using B = BinaryData;
using namespace Wisket;

namespace {

template <std::size_t N>
QByteArray bytes(const char (&literal)[N]) { return QByteArray(literal, int(N - 1)); }

QByteArray bytesOf(const B &d) { return QByteArray(d.data(), int(d.total())); }

struct ItemCase
{
    const char *name;
    std::function<void(B &)> write;
    QByteArray wire;
    std::function<bool(B &)> readBack;   // true when it gives the expected value
};

// Writes `written`; `read` must give `expected` and leave ok alone.
template <typename W, typename V, typename T>
ItemCase item(const char *name, void (B::*write)(W), V written, T (B::*read)(bool *), T expected, QByteArray wire)
{
    return {name, [=](B &d) { (d.*write)(written); }, wire,
            [=](B &d) { bool ok = true; const T got = (d.*read)(&ok); return ok && got == expected; }};
}

// Reads into a non-empty output, so that reading the empty string must clear it.
template <typename S>
ItemCase stringItem(const char *name, std::function<void(B &)> write, S expected, QByteArray wire)
{
    return {name, write, wire, [=](B &d) { S s("?"); return d.readString(s) && s == expected; }};
}

// Readers accept the other width of integer or float; readInt32 keeps the low 32 bits.
const ItemCase s_items[] = {
    item("Int32", &B::writeInt32, -2, &B::readInt32, -2, bytes("INT4\xfe\xff\xff\xff")),
    item("Int32AsInt64", &B::writeInt32, -9, &B::readInt64, -9L, bytes("INT4\xf7\xff\xff\xff")),
    item("Int64", &B::writeInt64, 0x123456789aL, &B::readInt64, 0x123456789aL, bytes("INT8\x9a\x78\x56\x34\x12\0\0\0")),
    item("Int64AsInt32", &B::writeInt64, 0x100000005L, &B::readInt32, 5, bytes("INT8\5\0\0\0\1\0\0\0")),
    item("Float32", &B::writeFloat32, 0.5f, &B::readFloat32, 0.5f, bytes("FLT4\0\0\0\x3f")),
    item("Float32AsFloat64", &B::writeFloat32, 0.75f, &B::readFloat64, 0.75, bytes("FLT4\0\0\x40\x3f")),
    item("Float64", &B::writeFloat64, -0.25, &B::readFloat64, -0.25, bytes("FLT8\0\0\0\0\0\0\xd0\xbf")),
    item("Float64AsFloat32", &B::writeFloat64, 0.125, &B::readFloat32, 0.125f, bytes("FLT8\0\0\0\0\0\0\xc0\x3f")),
    item("TimeStamp", &B::writeTimeStamp, Kestrel::TimeStamp(-5), &B::readTimeStamp, Kestrel::TimeStamp(-5),
         bytes("TIME\xfb\xff\xff\xff\xff\xff\xff\xff")),
    item("Vector2Float32", &B::writeVector2Float32, Vector2f(1, 2), &B::readVector2Float32, Vector2f(1, 2),
         bytes("VF2 \0\0\x80\x3f\0\0\0\x40")),
    item("Vector3Float32", &B::writeVector3Float32, Vector3f(1, 2, 3), &B::readVector3Float32, Vector3f(1, 2, 3),
         bytes("VF3 \0\0\x80\x3f\0\0\0\x40\0\0\x40\x40")),
    item("Vector4Float32", &B::writeVector4Float32, Vector4f(1.5, -2, 3.25, 0), &B::readVector4Float32,
         Vector4f(1.5, -2, 3.25, 0), bytes("VF4 \0\0\xc0\x3f\0\0\0\xc0\0\0\x50\x40\0\0\0\0")),
    item("Vector2Int32", &B::writeVector2Int32, Vector2i(7, -7), &B::readVector2Int32, Vector2i(7, -7),
         bytes("VI2 \7\0\0\0\xf9\xff\xff\xff")),
    item("Vector3Int32", &B::writeVector3Int32, Vector3i(-1, 2, 0x7fffffff), &B::readVector3Int32,
         Vector3i(-1, 2, 0x7fffffff), bytes("VI3 \xff\xff\xff\xff\2\0\0\0\xff\xff\xff\x7f")),
    item("Vector4Int32", &B::writeVector4Int32, Vector4i(1, 2, 3, 4), &B::readVector4Int32, Vector4i(1, 2, 3, 4),
         bytes("VI4 \1\0\0\0\2\0\0\0\3\0\0\0\4\0\0\0")),
    stringItem("StringPaddedAfterNul", [](B &d) { d.writeString("abc"); }, QByteArray("abc"), bytes("STR \3\0\0\0abc\0")),
    stringItem("StringNulNeedsNextWord", [](B &d) { d.writeString("abcd"); }, QByteArray("abcd"),
               bytes("STR \4\0\0\0abcd\0\0\0\0")),
    stringItem("StringNullIsEmpty", [](B &d) { d.writeString(static_cast<const char *>(nullptr)); }, QByteArray(),
               bytes("STR \0\0\0\0\0\0\0\0")),
    stringItem("StringUtf8", [](B &d) { d.writeString(QString::fromUtf8("\xc3\xa4")); }, QString::fromUtf8("\xc3\xa4"),
               bytes("STR \2\0\0\0\xc3\xa4\0\0")),
    {"Blob", [](B &d) { d.writeBlob("\1\2\3\4\5", 5); }, bytes("BLOB\5\0\0\0\1\2\3\4\5\0\0\0"),
     [](B &d) { char out[5] = {}; return d.readBlob(out, 5) && std::memcmp(out, "\1\2\3\4\5", 5) == 0; }},
    {"BlobNegativeLengthIsEmpty", [](B &d) { d.writeBlob(nullptr, -4); }, bytes("BLOB\0\0\0\0"),
     [](B &d) { char out[1]; return d.readBlob(out, 0); }},
};

class BinaryDataItem : public ::testing::TestWithParam<ItemCase>
{
};

} // namespace

// Each truncated prefix lives in a heap block of exactly its own length, so that a read past
// total() is a read past the block (and caught by AddressSanitizer in the sanitizer build).
TEST_P(BinaryDataItem, WritesExactBytesReadsThemBackAndRejectsEveryTruncatedPrefix)
{
    BinaryData d;
    GetParam().write(d);
    EXPECT_EQ(bytesOf(d).toHex(), GetParam().wire.toHex());
    d.writeInt32(99);   // a follower proves the read lands on the next item
    d.rewind();
    EXPECT_TRUE(GetParam().readBack(d));
    EXPECT_EQ(d.readInt32(), 99);
    for (int len = 0; len < GetParam().wire.size(); ++len) {
        std::unique_ptr<char[]> block(new char[size_t(len) + 1]);
        std::memcpy(block.get(), GetParam().wire.constData(), size_t(len));
        BinaryData prefix;
        prefix.linkTo(block.get(), len);
        prefix.setTotal(unsigned(len));
        EXPECT_FALSE(GetParam().readBack(prefix)) << "prefix " << len;
        EXPECT_EQ(prefix.pos(), 0u) << "prefix " << len;
    }
}

INSTANTIATE_TEST_SUITE_P(Wire, BinaryDataItem, ::testing::ValuesIn(s_items),
                         [](const auto &info) { return std::string(info.param.name); });

// A read that meets another tag, another blob length or a length claiming more than is there (one
// that wraps the arithmetic around included) fails: it gives zero, clears ok, and leaves the
// position and the output as they were.
TEST(BinaryData, FailedReadsLeaveThePositionAndTheOutput)
{
    BinaryData d;
    d.writeBlob("abcdefgh", 8);
    d.rewind();
    bool ok = true;
    EXPECT_EQ(d.readInt32(&ok), 0);
    EXPECT_FALSE(ok);
    QByteArray s("?");
    char out[17] = "----------------";
    EXPECT_FALSE(d.readString(s) || d.readBlob(out, 7) || d.readBlob(out, 9));
    for (const char *tag : {"BLOB", "STR "}) {
        std::memcpy(d.data(), tag, 4);
        for (uint32_t length : {0xffffffffu, 0xfffffffcu, 0x7fffffffu, 9u}) {
            std::memcpy(d.data() + 4, &length, 4);
            EXPECT_FALSE(d.readBlob(out, int(std::min<uint32_t>(length, 16))) || d.readString(s)) << tag << length;
        }
    }
    EXPECT_EQ(QByteArray(out) + s, "----------------?");
    EXPECT_EQ(d.pos(), 0u);
}

// A caller raising the total past the size must ensure() first; reads never pass the size.
TEST(BinaryData, ReadsStopAtTheSizeUntilEnsureAddsRoom)
{
    std::unique_ptr<char[]> block(new char[8]);
    std::memcpy(block.get(), "INT4\1\0\0\0", 8);
    BinaryData d;
    d.linkTo(block.get(), 8);
    d.setTotal(16);
    EXPECT_EQ(d.readInt32(), 1);
    EXPECT_EQ(d.readInt32(), 0);
    d.ensure(8);
    EXPECT_GE(d.size(), 16u);
    EXPECT_EQ(bytesOf(d).left(8), bytes("INT4\1\0\0\0"));
}

// Linked memory is written in place and never past its size; growing moves to a copy, and copies
// own their bytes. (That it is never freed shows in the truncated-prefix test.)
TEST(BinaryData, LinkedMemoryIsWrittenInPlaceUntilItMustGrowAndCopiesOwnTheirBytes)
{
    char foreign[16], target[16] = {};
    std::memset(foreign, 'Z', sizeof foreign);
    BinaryData d, assigned;
    d.linkTo(foreign, 8);
    d.writeInt32(1);
    EXPECT_TRUE(d.isLinked());
    const BinaryData copy(d);
    assigned.linkTo(target, 16);
    assigned = d;   // must not write into its own foreign memory either
    d.writeInt32(2);
    EXPECT_FALSE(d.isLinked());
    EXPECT_EQ(bytesOf(d), bytes("INT4\1\0\0\0INT4\2\0\0\0"));
    EXPECT_EQ(QByteArray(foreign, 16), bytes("INT4\1\0\0\0ZZZZZZZZ"));
    foreign[4] = 7;
    EXPECT_EQ(QByteArray(target, 16), QByteArray(16, '\0'));
    EXPECT_EQ(bytesOf(assigned) + bytesOf(copy), bytes("INT4\1\0\0\0INT4\1\0\0\0"));
}

// append() copies the other's whole total whatever its position (itself included) to this
// position; like a write there, it raises the total only when it passes it.
TEST(BinaryData, AppendAndWriteGoToThePosition)
{
    BinaryData d, other;
    other.writeInt32(8);
    d.writeInt32(0);
    d.writeString("key");
    d.append(d);
    EXPECT_EQ(bytesOf(d), bytes("INT4\0\0\0\0STR \3\0\0\0key\0").repeated(2));
    d.rewind();
    d.writeInt32(20);
    d.append(other);
    EXPECT_EQ(d.pos(), 16u);
    EXPECT_EQ(bytesOf(d), bytes("INT4\x14\0\0\0INT4\x8\0\0\0key\0INT4\0\0\0\0STR \3\0\0\0key\0"));
}
