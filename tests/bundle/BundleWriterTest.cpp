#include "loomy/bundle/BundleWriter.h"

#include "BundleTestUtil.h"
#include "common/TraceCapture.h"

using namespace Loomy;

TEST(BundleWriter, PrimitivesAppendExactBytesBehindTheHeader)
{
    using W = BundleWriter &;
    struct Case { const char *name; std::function<void(W)> write; const char *wire; };
    const Case cases[] = {
        {"Word", [](W w) { w.write(quint32(0x01020304)); }, "04030201"},
        {"Float", [](W w) { w.write(1.0f); }, "0000803f"},
        {"Int64", [](W w) { w.write(qint64(-2)); }, "feffffff ffffffff"},
        {"Double", [](W w) { w.write(-2.0); }, "00000000 000000c0"},
        {"Plain16", [](W w) { w.write(Plain16{1, 2, 3, 4}); }, "01000000 02000000 03000000 04000000"},
        {"Plain12", [](W w) { w.write(Plain12{1, 2, 3}); }, "01000000 02000000 03000000"},
        {"Plain3Padded", [](W w) { w.write(Plain3{{'a', 'b', 'c'}}); }, "616263 00"},
        {"BoolPadded", [](W w) { w.write(true); }, "01 000000"},
        {"Raw0", [](W w) { w.writeData("abcde", 0); }, ""}, {"Raw1", [](W w) { w.writeData("abcde", 1); }, "61 000000"},
        {"Raw3", [](W w) { w.writeData("abcde", 3); }, "616263 00"},
        {"Raw4", [](W w) { w.writeData("abcde", 4); }, "61626364"},
        {"Raw5", [](W w) { w.writeData("abcde", 5); }, "6162636465 000000"},
        {"StringEmpty", [](W w) { writeString(w, ""); }, "00000000"},
        {"StringNull", [](W w) { writeString(w, QString()); }, "00000000"},
        {"StringPadded", [](W w) { writeString(w, "abcde"); }, "05000000 6162636465 000000"},
        {"StringAligned", [](W w) { writeString(w, "abcd"); }, "04000000 61626364"},
        {"StringUtf8", [](W w) { writeString(w, QString::fromUtf8("\xc3\xa9")); }, "02000000 c3a9 0000"},
        {"StringEmbeddedZero", [](W w) { writeString(w, QString::fromUtf8("a\0b", 3)); }, "03000000 610062 00"},
        {"Record", [](W w) { SenderGuard g(w); writeString(w, "abcde"); }, "0c000000 05000000 6162636465 000000"},
        {"EmptyRecord", [](W w) { SenderGuard g(w); }, "00000000"},
        {"NestedRecords", [](W w) { SenderGuard outer(w); w.write(9u); SenderGuard inner(w); w.write(8u); },
         "0c000000 09000000 04000000 08000000"},
    };
    for (const Case &c : cases) {
        Bundle bundle(QByteArray(64, '\xff'));  // stale bytes stay in the capacity; padding must still be zero
        bundle.data().truncate(16);
        bundle.data().fill('\0');
        BundleWriter writer(bundle);
        c.write(writer);
        EXPECT_EQ(hex(bundle.data()), hex(QByteArray(16, '\0') + unhex(c.wire))) << c.name;
    }
}

TEST(BundleWriterCore, WriteDataAtOverwritesInPlaceDetachesAndRefusesPastTheEnd)
{
    QByteArray data = unhex("00000000 11111111 22222222");
    const QByteArray shared = data;
    BundleWriterCore writer(data);
    writer.writeDataAt(4, 0x0a0b0c0d);
    EXPECT_EQ(hex(data), "00 00 00 00 0d 0c 0b 0a 22 22 22 22");
    EXPECT_EQ(hex(shared), "00 00 00 00 11 11 11 11 22 22 22 22");
    for (unsigned offset : {9u, 12u, 13u, 0xfffffffdu, 0xffffffffu})
        EXPECT_EQ(thrown([&] { writer.writeDataAt(offset, 1); }), s_writePastEnd) << offset;
    EXPECT_EQ(thrown([&] { writer.writeDataAt(8, 1); }), "nothing thrown");
    EXPECT_EQ(data.size(), 12);
}

// Regression: a record cut behind its size word used to be patched by a throwing write from a
// destructor during unwinding, which ends the process. Now that is logged; a normal exit throws.
TEST(SenderGuard, PatchesTheSizeWhileUnwindingAndLogsACutRecordInsteadOfThrowing)
{
    TraceCapture trace;
    Bundle bundle;
    BundleWriter writer(bundle);
    const auto record = [&](int cutTo, bool fail) {
        SenderGuard guard(writer);
        writeString(writer, QStringLiteral("abc"));
        if (cutTo)
            bundle.data().resize(cutTo);
        if (fail)
            throw std::runtime_error("encoder failed");
    };
    EXPECT_EQ(thrown([&] { record(0, true); }), "other: encoder failed");
    EXPECT_EQ(hex(bundle.data().mid(16)), "08 00 00 00 03 00 00 00 61 62 63 00");
    EXPECT_EQ(thrown([&] { record(16, true); }), "other: encoder failed");
    EXPECT_EQ(trace.lines(), QStringList{"BundleWriterCore::writeDataAt # tried to write past the end"});
    EXPECT_EQ(thrown([&] { record(18, false); }), s_writePastEnd);
}
