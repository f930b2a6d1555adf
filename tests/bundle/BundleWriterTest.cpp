#include "loomy/bundle/BundleWriter.h"

#include "BundleTestUtil.h"
#include "common/TraceCapture.h"

#include <gtest/gtest.h>

#include <functional>

using namespace Loomy;

// ---- primitives ----

struct WriteCase { const char *name; std::function<void(BundleWriter &)> write; const char *wire; };
const WriteCase s_writeCases[] = {
    {"Word", [](BundleWriter &w) { w.write(quint32(0x01020304)); }, "04030201"},
    {"Float", [](BundleWriter &w) { w.write(1.0f); }, "0000803f"},
    {"Int64", [](BundleWriter &w) { w.write(qint64(-2)); }, "feffffff ffffffff"},
    {"Double", [](BundleWriter &w) { w.write(-2.0); }, "00000000 000000c0"},
    {"Plain16", [](BundleWriter &w) { w.write(Plain16{1, 2, 3, 4}); }, "01000000 02000000 03000000 04000000"},
    {"Plain12", [](BundleWriter &w) { w.write(Plain12{1, 2, 3}); }, "01000000 02000000 03000000"},
    {"Plain3Padded", [](BundleWriter &w) { w.write(Plain3{{'a', 'b', 'c'}}); }, "616263 00"},
    {"BoolPadded", [](BundleWriter &w) { w.write(true); }, "01 000000"},
    {"RawEmpty", [](BundleWriter &w) { w.writeData("abcde", 0); }, ""},
    {"Raw1", [](BundleWriter &w) { w.writeData("abcde", 1); }, "61 000000"},
    {"Raw3", [](BundleWriter &w) { w.writeData("abcde", 3); }, "616263 00"},
    {"Raw4", [](BundleWriter &w) { w.writeData("abcde", 4); }, "61626364"},
    {"Raw5", [](BundleWriter &w) { w.writeData("abcde", 5); }, "6162636465 000000"},
    {"StringEmpty", [](BundleWriter &w) { writeString(w, QStringLiteral("")); }, "00000000"},
    {"StringNull", [](BundleWriter &w) { writeString(w, QString()); }, "00000000"},
    {"StringPadded", [](BundleWriter &w) { writeString(w, QStringLiteral("abcde")); }, "05000000 6162636465 000000"},
    {"StringAligned", [](BundleWriter &w) { writeString(w, QStringLiteral("abcd")); }, "04000000 61626364"},
    {"StringUtf8", [](BundleWriter &w) { writeString(w, QString::fromUtf8("\xc3\xa9")); }, "02000000 c3a9 0000"},
    {"StringEmbeddedZero", [](BundleWriter &w) { writeString(w, QString::fromUtf8("a\0b", 3)); },
     "03000000 610062 00"},
    {"Record", [](BundleWriter &w) { SenderGuard g(w); writeString(w, QStringLiteral("abcde")); },
     "0c000000 05000000 6162636465 000000"},
    {"EmptyRecord", [](BundleWriter &w) { SenderGuard g(w); }, "00000000"},
    {"NestedRecords", [](BundleWriter &w) {
         SenderGuard outer(w);
         w.write(quint32(9));
         SenderGuard inner(w);
         w.write(quint32(8));
     }, "0c000000 09000000 04000000 08000000"},
};
class WritePrimitive : public ::testing::TestWithParam<WriteCase> {};
TEST_P(WritePrimitive, AppendsExactBytesBehindTheHeader)
{
    const WriteCase &c = GetParam();
    Bundle bundle;
    BundleWriter writer(bundle);
    c.write(writer);
    EXPECT_EQ(hex(bundle.data()), hex(QByteArray(16, '\0') + unhex(c.wire)));
}
INSTANTIATE_TEST_SUITE_P(Wire, WritePrimitive, ::testing::ValuesIn(s_writeCases),
                         [](const auto &i) { return std::string(i.param.name); });

// A truncated array keeps its old bytes in its capacity; padding must still come out as zero.
TEST(BundleWriterCore, PaddingIsZeroEvenOverStaleCapacity)
{
    QByteArray data(16, '\xff');
    data.truncate(1);
    BundleWriterCore writer(data);
    writer.writeData("ab", 2);
    writer.write(Plain3{{'c', 'd', 'e'}});
    EXPECT_EQ(hex(data), "ff 61 62 00 00 63 64 65 00");
}

// ---- writeDataAt ----

TEST(BundleWriterCore, WriteDataAtOverwritesInPlaceAndDetaches)
{
    QByteArray data = unhex("00000000 11111111 22222222");
    const QByteArray shared = data;
    BundleWriterCore writer(data);
    writer.writeDataAt(4, 0x0a0b0c0d);
    EXPECT_EQ(hex(data), "00 00 00 00 0d 0c 0b 0a 22 22 22 22");
    EXPECT_EQ(hex(shared), "00 00 00 00 11 11 11 11 22 22 22 22");
}

TEST(BundleWriterCore, WriteDataAtPastTheEndThrows)
{
    QByteArray data(8, '\0');
    BundleWriterCore writer(data);
    for (unsigned offset : {5u, 8u, 9u, 0xfffffffdu, 0xffffffffu})
        EXPECT_EQ(thrown([&] { writer.writeDataAt(offset, 1); }), s_writePastEnd) << offset;
    EXPECT_EQ(thrown([&] { writer.writeDataAt(4, 1); }), "nothing thrown");
    EXPECT_EQ(data.size(), 8);
}

// ---- SenderGuard ----

TEST(SenderGuard, PatchesSizeWhileAnExceptionUnwinds)
{
    Bundle bundle;
    BundleWriter writer(bundle);
    try {
        SenderGuard record(writer);
        writeString(writer, QStringLiteral("abc"));
        throw std::runtime_error("encoder failed");
    } catch (const std::runtime_error &) {
    }
    EXPECT_EQ(hex(bundle.data().mid(16)), "08 00 00 00 03 00 00 00 61 62 63 00");
}

// Regression: a record cut behind its size word used to be patched by a throwing write from a
// destructor during unwinding, which ends the process.
TEST(SenderGuard, CutRecordDuringUnwindingIsLoggedNotThrown)
{
    TraceCapture trace;
    Bundle bundle;
    BundleWriter writer(bundle);
    EXPECT_EQ(thrown([&] {
                  SenderGuard record(writer);
                  bundle.data().resize(16);
                  throw std::runtime_error("encoder failed");
              }),
              "other: encoder failed");
    EXPECT_EQ(trace.lines(Kestrel::Trace::Level::Error),
              QStringList{"BundleWriterCore::writeDataAt # tried to write past the end"});
    EXPECT_EQ(bundle.size(), 16);
}

TEST(SenderGuard, CutRecordOnNormalExitThrows)
{
    Bundle bundle;
    BundleWriter writer(bundle);
    EXPECT_EQ(thrown([&] {
                  SenderGuard record(writer);
                  bundle.data().resize(18);
              }),
              s_writePastEnd);
}
