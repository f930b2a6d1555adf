#include "cli/ValueText.h"

#include "loomy/bundle/BundleReader.h"
#include "loomy/bundle/BundleWriter.h"
#include "loomy/types/TypeRegistry.h"

#include "tamarack/Attribute.h"

#include <gtest/gtest.h>

#include <memory>
#include <ostream>

using LoomyCli::ValueText;

namespace {

struct TextCase
{
    const char *typed;      // TYPE:VALUE as given
    unsigned id;
    const char *hex;        // the encoded value; empty: not checked
    const char *printed;    // read back; null: as given
};

// One row per type id with a text form: exact bytes where the text form has a choice to make.
const TextCase s_cases[] = {
    {"bool:true", 1, "01000000", nullptr},
    {"1:0", 1, "00000000", "false"},
    {"Kestrel::Color:1,0.5,0,1", 2, "0000803f0000003f000000000000803f", nullptr},
    {"float:1.5", 3, "0000c03f", nullptr},
    {"float:0.1", 3, "cdcccc3d", nullptr},
    {"double:0.1", 4, "9a9999999999b93f", nullptr},
    {"int:-2", 9, "feffffff", nullptr},
    {"unsigned int:4294967295", 10, "ffffffff", nullptr},
    {"long:-5", 11, "fbffffffffffffff", nullptr},
    {"unsigned long:7", 12, "0700000000000000", nullptr},
    {"rect:int:1,2,3,4", 13, "01000000020000000300000004000000", nullptr},
    {"rect:float:0,0,1.5,2", 14, "", nullptr},
    {"rect:double:0,0,1,2", 15, "", nullptr},
    {"vector2:int:3,-4", 16, "03000000fcffffff", nullptr},
    {"vector2:float:1,2", 17, "", nullptr},
    {"vector3:int:1,2,3", 19, "", nullptr},
    {"vector3:float: 0, 1.5, 8", 20, "000000000000c03f00000041", "0,1.5,8"},
    {"vector4:int:1,2,3,4", 22, "", nullptr},
    {"vector4:float:1,2,3,4", 23, "", nullptr},
    {"matrix2x2:float:1,0,0,1", 26, "", nullptr},
    {"matrix3x3:float:1,2,3,4,5,6,7,8,9", 29, "", nullptr},
    {"matrix4x4:float:1,0,0,0,0,1,0,0,0,0,1,0,0,0,0,1", 32, "", nullptr},
    {"timestamp:16777216", 34, "0000000100000000", nullptr},
    {"string:abcde", 35, "050000006162636465000000", nullptr},
    {"string:a:b=c", 35, "05000000613a623d63000000", "a:b=c"},
    {"stringlist:[\"a\",\"\"]", 36, "0c000000010000006100000000000000", nullptr},
    {"stringlist:[]", 36, "00000000", nullptr},
    {"40:[1,0.25]", 40, "080000000000803f0000803e", nullptr},
    {"41:[[1,2],[3,4]]", 41, "", nullptr},
    {"42:[-1,2]", 42, "08000000ffffffff02000000", nullptr},
    {"43:[4294967295]", 43, "04000000ffffffff", nullptr},
    {"44:[\"x\",\"yz\"]", 44, "", nullptr},
    {"grid:unsigned char:3:000102030405060708", 45, "0d00000003000000000102030405060708000000", nullptr},
    {"grid:unsigned char:0:", 45, "0400000000000000", nullptr},
    {"spline:[[0,0],[1,0.5]]", 46, "1000000000000000000000000000803f0000003f", nullptr},
    {"47:3", 47, "03000000", nullptr},
    {"color:1,1,1,0.5", 48, "", nullptr},
    {"location2:float:1,2", 49, "", nullptr},
    {"size2:float:640,480", 50, "", nullptr},
    {"asset:/textures/a b.png", 51, "", nullptr},
    {"size2:int:640,480", 52, "", nullptr},
};

void PrintTo(const TextCase &c, std::ostream *os) { *os << c.typed; }

class ValueTextForms : public ::testing::TestWithParam<TextCase>
{
protected:
    Loomy::TypeRegistry m_types;
    ValueText m_text{m_types};
};

} // namespace

// The text is split at the right colon, encodes to the exact bytes, reads back to the printed
// form, and an attribute made from it describes itself with the same id and text (except 47,
// whose attributes are plain ints).
TEST_P(ValueTextForms, EncodesReadsAndRoundTripsThroughAnAttribute)
{
    const TextCase &c = GetParam();
    unsigned id = 0;
    QString value, error;
    ASSERT_TRUE(m_text.splitTyped(c.typed, id, value));
    ASSERT_EQ(id, c.id);
    QByteArray bytes;
    Loomy::BundleWriterCore writer(bytes);
    ASSERT_TRUE(m_text.write(id, value, writer, &error)) << qPrintable(error);
    if (*c.hex) {
        EXPECT_EQ(bytes.toHex(), QByteArray(c.hex));
    }
    Loomy::BundleReaderCore reader(bytes);
    const QString printed = c.printed ? QString(c.printed) : value;
    EXPECT_EQ(m_text.read(id, reader), printed);
    EXPECT_EQ(reader.position(), unsigned(bytes.size()));

    std::unique_ptr<Tamarack::Attribute> attribute(m_text.create(id, value, &error));
    ASSERT_TRUE(attribute) << qPrintable(error);
    unsigned describedId = 0;
    QString described;
    ASSERT_TRUE(m_text.describe(attribute.get(), describedId, described));
    EXPECT_EQ(describedId, id == 47 ? 9u : id);
    EXPECT_EQ(described, printed);
    // The printed name leads back to the same id.
    EXPECT_EQ(m_text.typeId(m_text.typeName(describedId)), describedId);
}

INSTANTIATE_TEST_SUITE_P(Ids, ValueTextForms, ::testing::ValuesIn(s_cases), [](const auto &info) {
    return "Id" + std::to_string(info.param.id) + "_" + std::to_string(info.index);
});

TEST(ValueTextBad, RefusesWithAReasonAndWritesNothing)
{
    Loomy::TypeRegistry types;
    const ValueText text(types);
    const struct { unsigned id; const char *value; } rows[] = {
        {3, "abc"}, {3, ""}, {20, "1,2"}, {20, "1,2,3,4"}, {1, "yes"}, {9, "1.5"}, {10, "-1"},
        {36, "[1]"}, {36, "a,b"}, {40, "[\"a\"]"}, {42, "[1.5]"}, {43, "[-1]"}, {41, "[[1]]"},
        {45, "3:00ff"}, {45, "x:00"}, {45, "2:0g"}, {5, "1"},
        // Beyond float: the element became infinity, which reads back as no number.
        {40, "[1e39,0.25]"}, {41, "[[1,-1e39]]"}, {46, "[[1e39,0]]"},
    };
    for (const auto &row : rows) {
        QByteArray bytes;
        Loomy::BundleWriterCore writer(bytes);
        QString error;
        EXPECT_FALSE(text.write(row.id, row.value, writer, &error)) << row.id << ' ' << row.value;
        EXPECT_FALSE(error.isEmpty()) << row.id << ' ' << row.value;
        EXPECT_TRUE(bytes.isEmpty()) << row.id << ' ' << row.value;
    }
    unsigned id = 0;
    QString value;
    EXPECT_FALSE(text.splitTyped("nosuchtype:1", id, value));
    EXPECT_FALSE(text.splitTyped("5:1", id, value));   // an unassigned id
    EXPECT_EQ(text.typeId("vector3"), 0u);
}

// A short value throws from the reader rather than printing garbage; a float attribute doesn't
// take a string.
TEST(ValueTextBad, ShortInputThrowsAndAMismatchedAttributeIsRefused)
{
    Loomy::TypeRegistry types;
    const ValueText text(types);
    const QByteArray shortVector = QByteArray::fromHex("0000803f00000040");
    Loomy::BundleReaderCore reader(shortVector);
    EXPECT_THROW(text.read(20, reader), std::out_of_range);
    const QByteArray shortString = QByteArray::fromHex("0800000061626364");
    Loomy::BundleReaderCore stringReader(shortString);
    EXPECT_THROW(text.read(35, stringReader), std::out_of_range);

    QString error;
    std::unique_ptr<Tamarack::Attribute> number(text.create(3, "1", &error));
    ASSERT_TRUE(number);
    EXPECT_FALSE(text.assign(number.get(), 35, "x", &error));
    EXPECT_EQ(error, "the attribute doesn't take values of type string");
}
