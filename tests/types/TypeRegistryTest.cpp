#include "loomy/types/TypeRegistry.h"

#include "loomy/types/ValueMetaTypes.h"

#include "TypesTestUtil.h"
#include "common/TraceCapture.h"

#include "tamarack/AttributeAlias.h"
#include "tamarack/AttributeAsset.h"
#include "tamarack/AttributeContainer.h"
#include "tamarack/AttributeEnum.h"
#include "tamarack/AttributeGrid.h"
#include "tamarack/AttributeLocation2f.h"
#include "tamarack/AttributeSpline.h"
#include "tamarack/AttributeT.h"

#include <QStringList>
#include <QVector>

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <typeinfo>
#include <vector>

using namespace Loomy;
using Tamarack::Attribute;
using Tamarack::AttributeT;
using Level = Kestrel::Trace::Level;

namespace {

const unsigned s_assignedIds[] = {1,  2,  3,  4,  9,  10, 11, 12, 13, 14, 15, 16, 17, 19, 20, 22, 23, 26, 29, 32,
                                  34, 35, 36, 40, 41, 42, 43, 44, 45, 46, 47, 48, 49, 50, 51, 52};

// ---- the round trip over every type id ----

// One attribute class with a value that differs from its default in every component.
struct RoundTripCase
{
    const char *name;
    unsigned id;
    unsigned fixedSize;                                   // 0: dynamic, the value starts with L
    bool layered;                                         // has LAYER_USER of its own
    std::function<Attribute *()> make;                    // a fresh attribute of the class
    std::function<void(Attribute *)> fill;                // gives the source its value
    std::function<bool(Attribute *, Attribute *)> same;   // source and target hold equal values
};

template <typename A>
auto valueOf(A *attribute)
{
    if constexpr (std::is_same<A, Tamarack::AttributeGrid<unsigned char>>::value)
        return attribute->grid();
    else if constexpr (std::is_same<A, Tamarack::AttributeSpline>::value)
        return attribute->points();
    else
        return attribute->value();
}

// The source holds `below` on LAYER_USER and `value` on LAYER_3: only the current value, the
// one on LAYER_3, may go out.
template <typename A, typename V>
RoundTripCase layered(const char *name, unsigned id, unsigned fixedSize, V below, V value)
{
    return {name, id, fixedSize, true, [] { return new A; },
            [below, value](Attribute *a) {
                static_cast<A *>(a)->setValue(below, Attribute::LAYER_USER);
                static_cast<A *>(a)->setValue(value, Attribute::LAYER_3);
            },
            [](Attribute *a, Attribute *b) { return valueOf(static_cast<A *>(a)) == valueOf(static_cast<A *>(b)); }};
}

// Containers, grids and splines: one value, no layers.
template <typename A>
RoundTripCase whole(const char *name, unsigned id, std::function<void(A *)> fill)
{
    return {name, id, 0, false, [] { return new A; }, [fill](Attribute *a) { fill(static_cast<A *>(a)); },
            [](Attribute *a, Attribute *b) { return valueOf(static_cast<A *>(a)) == valueOf(static_cast<A *>(b)); }};
}

Kestrel::MemGrid8u patternGrid(unsigned width, unsigned height)
{
    Kestrel::MemGrid8u grid(width, height);
    for (std::size_t i = 0; i < grid.cellCount(); ++i)
        grid.data()[i] = static_cast<unsigned char>(i * 7 + 1);
    return grid;
}

std::vector<RoundTripCase> roundTripCases()
{
    using namespace Wisket;
    using Kestrel::Color;
    using Kestrel::ColorPMA;
    using Kestrel::TimeStamp;
    const QString withZero = QString::fromUtf8("gr\xc3\xbc\xc3\x9f") + QChar(0) + "e";
    return {
        layered<AttributeT<bool>>("Bool", 1, 1, false, true),
        layered<AttributeT<Color>>("Color", 2, 16, Color(1, 1, 1, 1), Color(0.5f, 0.25f, 1.f, 0.75f)),
        layered<AttributeT<float>>("Float", 3, 4, 1.f, -3.25f),
        layered<AttributeT<double>>("Double", 4, 8, 1.0, 1e300),
        layered<AttributeT<int>>("Int", 9, 4, 1, -123456),
        layered<AttributeT<unsigned>>("UInt", 10, 4, 1u, 0xdeadbeefu),
        layered<AttributeT<long>>("Long", 11, 8, 1L, -(1L << 40)),
        layered<AttributeT<unsigned long>>("ULong", 12, 8, 1UL, (1UL << 63) | 5UL),
        layered<AttributeT<Recti>>("RectInt", 13, 16, Recti(), Recti(-1, 2, 30, 40)),
        layered<AttributeT<Rectf>>("RectFloat", 14, 16, Rectf(), Rectf(-1.5f, 2, 3, 4.5f)),
        layered<AttributeT<Rectd>>("RectDouble", 15, 32, Rectd(), Rectd(-1.5, 2, 3, 1e-300)),
        layered<AttributeT<Vector2i>>("Vector2Int", 16, 8, Vector2i(), Vector2i(-7, 8)),
        layered<AttributeT<Vector2f>>("Vector2Float", 17, 8, Vector2f(), Vector2f(0.5f, -8)),
        layered<AttributeT<Vector3i>>("Vector3Int", 19, 12, Vector3i(), Vector3i(1, -2, 3)),
        layered<AttributeT<Vector3f>>("Vector3Float", 20, 12, Vector3f(), Vector3f(1, -2, 3.5f)),
        layered<AttributeT<Vector4i>>("Vector4Int", 22, 16, Vector4i(), Vector4i(1, 2, 3, -4)),
        layered<AttributeT<Vector4f>>("Vector4Float", 23, 16, Vector4f(), Vector4f(1, 2, 3, -4.5f)),
        layered<AttributeT<Matrix2f>>("Matrix2", 26, 16, Matrix2f(), Matrix2f{1, 2, 3, 4}),
        layered<AttributeT<Matrix3f>>("Matrix3", 29, 36, Matrix3f(), Matrix3f{1, 2, 3, 4, 5, 6, 7, 8, 9}),
        layered<AttributeT<Matrix4f>>("Matrix4", 32, 64, Matrix4f(),
                                      Matrix4f{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, -16}),
        layered<AttributeT<TimeStamp>>("TimeStamp", 34, 8, TimeStamp(1), TimeStamp(-0x123456789abLL)),
        layered<AttributeT<QString>>("String", 35, 0, QString("x"), withZero),
        layered<AttributeT<QStringList>>("StringList", 36, 0, QStringList{"x"},
                                         QStringList{"", "a", QString::fromUtf8("\xc3\xa4" "bcde")}),
        whole<Tamarack::AttributeContainer<std::vector<float>>>(
            "FloatVector", 40, [](auto *a) { a->setValue({1.5f, -2.f, 3.f}); }),
        whole<Tamarack::AttributeContainer<std::vector<Vector2f>>>(
            "Vector2Vector", 41, [](auto *a) { a->setValue({Vector2f(1, 2), Vector2f(-3, 4)}); }),
        whole<Tamarack::AttributeContainer<std::vector<int>>>("IntVector", 42,
                                                              [](auto *a) { a->setValue({-1, 7, 0}); }),
        whole<Tamarack::AttributeContainer<std::vector<unsigned>>>(
            "UIntVector", 43, [](auto *a) { a->setValue({0xffffffffu, 1u}); }),
        whole<Tamarack::AttributeContainer<std::vector<QString>>>(
            "StringVector", 44, [](auto *a) { a->setValue({"x", "", "yz1"}); }),
        whole<Tamarack::AttributeGrid<unsigned char>>("Grid", 45, [](auto *a) { a->setGrid(patternGrid(5, 3)); }),
        whole<Tamarack::AttributeSpline>("Spline", 46, [](auto *a) {
            a->setPoints({Vector2f(0, 0), Vector2f(0.5f, 1), Vector2f(1, -1)});
        }),
        layered<Tamarack::AttributeEnum>("Enum", 47, 4, 1, 3),
        layered<AttributeT<ColorPMA>>("ColorPMA", 48, 16, ColorPMA(), ColorPMA(0.25f, 0.5f, 0.125f, 0.5f)),
        layered<Tamarack::AttributeLocation2f>("Location", 49, 8, Vector2f(), Vector2f(1.5f, -2.5f)),
        layered<AttributeT<SizeF>>("SizeFloat", 50, 8, SizeF(), SizeF(3.5f, 4)),
        layered<Tamarack::AttributeAsset>("Asset", 51, 0, QString("a"), QString("/assets/dir/b.png")),
        layered<AttributeT<SizeI>>("SizeInt", 52, 8, SizeI(), SizeI(7, -8)),
    };
}

// How many bytes a reader needs: all but the trailing padding.
unsigned neededBytes(const RoundTripCase &c, const QByteArray &wire)
{
    if (c.fixedSize)
        return c.fixedSize;
    BundleReaderCore reader(wire);
    return 4 + reader.read<quint32>();
}

class TypeRoundTrip : public ::testing::TestWithParam<RoundTripCase>
{
protected:
    TypeRegistry m_sender;
    TypeRegistry m_receiver;
};

TEST(TypeRoundTripTable, CoversEveryAssignedId)
{
    TypeRegistry registry;
    std::set<unsigned> covered, assigned;
    for (const RoundTripCase &c : roundTripCases())
        covered.insert(c.id);
    for (unsigned id = 0; id < 100; ++id)
        if (std::unique_ptr<Attribute>(registry.createAttribute(id)))
            assigned.insert(id);
    EXPECT_EQ(covered, assigned);
    EXPECT_EQ(assigned, std::set<unsigned>(std::begin(s_assignedIds), std::end(s_assignedIds)));
}

TEST_P(TypeRoundTrip, OneRegistryReadsWhatTheOtherWrote)
{
    const RoundTripCase &c = GetParam();
    std::unique_ptr<Attribute> source(c.make());
    c.fill(source.get());

    unsigned typeId = 0, size = 99;
    const QByteArray wire = serialize(m_sender, source.get(), &typeId, &size);
    EXPECT_EQ(typeId, c.id);
    EXPECT_EQ(size, c.fixedSize);
    if (c.fixedSize) {
        EXPECT_EQ(unsigned(wire.size()), (c.fixedSize + 3) & ~3u) << hex(wire);
    } else {
        ASSERT_GE(wire.size(), 4);
        const unsigned length = BundleReaderCore(wire).read<quint32>();
        EXPECT_EQ(unsigned(wire.size()), 4 + ((length + 3) & ~3u)) << hex(wire);
    }

    std::unique_ptr<Attribute> target(c.make());
    ChangeCounter changes(*target);
    EXPECT_EQ(deserialize(m_receiver, c.id, target.get(), wire), unsigned(wire.size()));
    EXPECT_TRUE(c.same(source.get(), target.get())) << hex(wire);
    // Remote values land on LAYER_USER; containers and tuples emit once for the whole value.
    EXPECT_EQ(changes.count, 1);
    if (c.layered) {
        EXPECT_TRUE(target->isValueDefinedOnLayer(Attribute::LAYER_USER));
        EXPECT_FALSE(target->isValueDefinedOnLayer(Attribute::LAYER_3));
    }
    // What arrived goes back out as the same bytes.
    EXPECT_EQ(hex(serialize(m_receiver, target.get())), hex(wire));
}

TEST_P(TypeRoundTrip, CreatedAttributeIsOfTheRegisteredClass)
{
    const RoundTripCase &c = GetParam();
    std::unique_ptr<Attribute> created(m_receiver.createAttribute(c.id));
    ASSERT_TRUE(created);
    std::unique_ptr<Attribute> expected(c.id == 47 ? new AttributeT<int> : c.make());
    EXPECT_EQ(typeid(*created), typeid(*expected));
    EXPECT_TRUE(created->name().isEmpty());
    EXPECT_EQ(created->host(), nullptr);
}

// A reader needs every byte up to the last one that carries data; only padding may be missing.
TEST_P(TypeRoundTrip, EveryTruncatedPrefixThrows)
{
    const RoundTripCase &c = GetParam();
    std::unique_ptr<Attribute> source(c.make());
    c.fill(source.get());
    const QByteArray wire = serialize(m_sender, source.get());
    const unsigned needed = neededBytes(c, wire);
    for (unsigned length = 0; length < unsigned(wire.size()); ++length) {
        std::unique_ptr<Attribute> target(c.make());
        const QByteArray prefix = wire.left(int(length));
        if (length < needed) {
            EXPECT_EQ(thrown([&] { deserialize(m_receiver, c.id, target.get(), prefix); }), s_readPastEnd) << length;
        } else {
            EXPECT_EQ(deserialize(m_receiver, c.id, target.get(), prefix), unsigned(wire.size())) << length;
            EXPECT_TRUE(c.same(source.get(), target.get())) << length;
        }
    }
}

// The variant forms write the attribute's bytes and make a QVariant of the declared meta-type.
TEST_P(TypeRoundTrip, VariantFormsShareTheBytes)
{
    const RoundTripCase &c = GetParam();
    std::unique_ptr<Attribute> source(c.make());
    c.fill(source.get());
    const QByteArray wire = serialize(m_sender, source.get());

    const VariantDeserializer readVariant = m_receiver.createVariantDeserializer(c.id);
    const VariantSerializer writeVariant = m_receiver.createVariantSerializer(c.id);
    ASSERT_TRUE(readVariant && writeVariant);
    BundleReaderCore reader(wire);
    const QVariant variant = readVariant(reader);
    EXPECT_EQ(reader.position(), unsigned(wire.size()));
    QByteArray again;
    BundleWriterCore writer(again);
    writeVariant(writer, variant);
    EXPECT_EQ(hex(again), hex(wire)) << variant.typeName();
}

INSTANTIATE_TEST_SUITE_P(AllIds, TypeRoundTrip, ::testing::ValuesIn(roundTripCases()),
                         [](const auto &info) { return std::string(info.param.name); });

// ---- exact bytes ----

struct GoldenCase
{
    const char *name;
    unsigned id;
    std::function<Attribute *()> make; // with its value
    const char *wire;
};

template <typename A, typename V>
std::function<Attribute *()> holding(V value)
{
    return [value] {
        auto *a = new A;
        a->setValue(value, Attribute::LAYER_USER);
        return a;
    };
}

const GoldenCase s_golden[] = {
    {"TrueBool", 1, holding<AttributeT<bool>>(true), "01000000"},
    {"Abcde", 35, holding<AttributeT<QString>>(QString("abcde")), "05000000 61626364 65000000"},
    {"AbcdeAsset", 51, holding<Tamarack::AttributeAsset>(QString("abcde")), "05000000 61626364 65000000"},
    {"EmptyString", 35, holding<AttributeT<QString>>(QString()), "00000000"},
    {"EmptyStringList", 36, holding<AttributeT<QStringList>>(QStringList()), "00000000"},
    {"ListOfOneEmptyString", 36, holding<AttributeT<QStringList>>(QStringList{""}), "04000000 00000000"},
    {"StringListWithPadding", 36, holding<AttributeT<QStringList>>(QStringList{"ab", "c"}),
     "10000000 02000000 61620000 01000000 63000000"},
    {"Grid3By3", 45,
     [] {
         auto *a = new Tamarack::AttributeGrid<unsigned char>;
         a->setGrid(patternGrid(3, 3));
         return a;
     },
     "0d000000 03000000 01080f16 1d242b32 39000000"},
    {"SplineOfTwoPoints", 46,
     [] {
         auto *a = new Tamarack::AttributeSpline;
         a->setPoints({Wisket::Vector2f(1, 2), Wisket::Vector2f(3, 4)});
         return a;
     },
     "10000000 0000803f 00000040 00004040 00008040"},
    {"IntVector", 42,
     [] {
         auto *a = new Tamarack::AttributeContainer<std::vector<int>>;
         a->setValue({1, -1});
         return a;
     },
     "08000000 01000000 ffffffff"},
    {"StringVector", 44,
     [] {
         auto *a = new Tamarack::AttributeContainer<std::vector<QString>>;
         a->setValue({"abcde", ""});
         return a;
     },
     "10000000 05000000 61626364 65000000 00000000"},
    {"Location", 49, holding<Tamarack::AttributeLocation2f>(Wisket::Vector2f(1, 2)), "0000803f 00000040"},
    {"SizeInt", 52, holding<AttributeT<Wisket::SizeI>>(Wisket::SizeI(1, -2)), "01000000 feffffff"},
    {"Enum", 47, holding<Tamarack::AttributeEnum>(-2), "feffffff"},
    {"Double", 4, holding<AttributeT<double>>(1.0), "00000000 0000f03f"},
    {"TimeStamp", 34, holding<AttributeT<Kestrel::TimeStamp>>(Kestrel::TimeStamp(0x0102030405060708LL)),
     "08070605 04030201"},
};

class GoldenBytes : public ::testing::TestWithParam<GoldenCase> {};

TEST_P(GoldenBytes, WritesAndReadsExactly)
{
    const GoldenCase &c = GetParam();
    TypeRegistry registry;
    std::unique_ptr<Attribute> source(c.make());
    unsigned typeId = 0;
    EXPECT_EQ(hex(serialize(registry, source.get(), &typeId)), hex(unhex(c.wire)));
    EXPECT_EQ(typeId, c.id);

    std::unique_ptr<Attribute> target(registry.createAttribute(c.id));
    EXPECT_EQ(deserialize(registry, c.id, target.get(), unhex(c.wire)), unsigned(unhex(c.wire).size()));
    EXPECT_EQ(hex(serialize(registry, target.get())), hex(unhex(c.wire)));
}

INSTANTIATE_TEST_SUITE_P(Wire, GoldenBytes, ::testing::ValuesIn(s_golden),
                         [](const auto &info) { return std::string(info.param.name); });

// ---- choosing, creating, failing ----

class TypeRegistryTest : public ::testing::Test
{
protected:
    TypeRegistry m_registry;
    TraceCapture m_trace;
};

TEST_F(TypeRegistryTest, UnassignedIdsCreateNothingAndLogNothing)
{
    const unsigned unassigned[] = {0, 5, 6, 7, 8, 18, 21, 24, 25, 27, 28, 30, 31, 33, 37, 38, 39, 53, 54, 100, 0xffffffffu};
    for (unsigned id : unassigned) {
        EXPECT_EQ(m_registry.createAttribute(id), nullptr) << id;
        EXPECT_FALSE(m_registry.createVariantSerializer(id)) << id;
        EXPECT_FALSE(m_registry.createVariantDeserializer(id)) << id;
    }
    EXPECT_TRUE(m_trace.lines().isEmpty());
}

TEST_F(TypeRegistryTest, DeserializerForUnknownIdLogsTheMisspelledError)
{
    AttributeT<float> attribute;
    EXPECT_FALSE(m_registry.createDeserializer(5, &attribute));
    EXPECT_EQ(m_trace.lines(Level::Error),
              QStringList{"Loomy TypeRegistry - cound not find deserializer factory for type 5"});
    EXPECT_EQ(m_trace.lines().size(), 1);
}

TEST_F(TypeRegistryTest, MismatchingClassGivesEmptyDeserializerSilently)
{
    AttributeT<float> floatAttribute;
    AttributeT<QString> text;
    Tamarack::AttributeContainer<std::vector<int>> ints;
    EXPECT_FALSE(m_registry.createDeserializer(1, &floatAttribute));
    EXPECT_FALSE(m_registry.createDeserializer(35, &floatAttribute));
    EXPECT_FALSE(m_registry.createDeserializer(40, &ints));  // a vector of another element
    EXPECT_FALSE(m_registry.createDeserializer(51, &text));  // an asset isn't a plain text
    EXPECT_FALSE(m_registry.createDeserializer(3, nullptr));
    EXPECT_FALSE(m_registry.createDeserializer(9, nullptr));
    EXPECT_TRUE(m_trace.lines().isEmpty());
}

// 9 and 47 don't cast: anything that takes an int takes them.
TEST_F(TypeRegistryTest, IntIdsFeedAnyAttributeThatAcceptsAnInt)
{
    const QByteArray seven = unhex("07000000");
    for (unsigned id : {9u, 47u}) {
        AttributeT<float> floatAttribute;
        AttributeT<double> doubleAttribute;
        Tamarack::AttributeEnum enumAttribute;
        EXPECT_EQ(deserialize(m_registry, id, &floatAttribute, seven), 4u);
        EXPECT_EQ(deserialize(m_registry, id, &doubleAttribute, seven), 4u);
        EXPECT_EQ(deserialize(m_registry, id, &enumAttribute, seven), 4u);
        EXPECT_EQ(floatAttribute.value(Attribute::LAYER_USER), 7.f) << id;
        EXPECT_EQ(doubleAttribute.value(Attribute::LAYER_USER), 7.0) << id;
        EXPECT_EQ(enumAttribute.value(Attribute::LAYER_USER), 7) << id;

        // A text has no int view: the value is consumed and dropped.
        AttributeT<QString> text(nullptr, "t", "keep");
        EXPECT_EQ(deserialize(m_registry, id, &text, seven), 4u);
        EXPECT_EQ(text.value(), "keep");
    }
}

TEST_F(TypeRegistryTest, EnumAndIntShareEveryByte)
{
    Tamarack::AttributeEnum enumAttribute(nullptr, "e", 0, {"a", "b", "c"});
    enumAttribute.setValue(-5, Attribute::LAYER_USER);
    AttributeT<int> intAttribute;
    intAttribute.setValue(-5, Attribute::LAYER_USER);
    unsigned enumId = 0, enumSize = 0, intId = 0, intSize = 0;
    const QByteArray enumWire = serialize(m_registry, &enumAttribute, &enumId, &enumSize);
    EXPECT_EQ(hex(enumWire), hex(serialize(m_registry, &intAttribute, &intId, &intSize)));
    EXPECT_EQ(hex(enumWire), "fb ff ff ff");
    EXPECT_EQ(enumId, 47u);
    EXPECT_EQ(intId, 9u);
    EXPECT_EQ(enumSize, 4u);
    EXPECT_EQ(intSize, 4u);
}

// An enum arrives as a plain int attribute, which then goes out as 9.
TEST_F(TypeRegistryTest, EnumIsCreatedAsPlainInt)
{
    std::unique_ptr<Attribute> created(m_registry.createAttribute(47));
    ASSERT_TRUE(created);
    EXPECT_EQ(typeid(*created), typeid(AttributeT<int>));
    unsigned typeId = 0, size = 0;
    EXPECT_TRUE(m_registry.createSerializer(created.get(), typeId, size));
    EXPECT_EQ(typeId, 9u);
    EXPECT_EQ(size, 4u);
}

class DerivedFloat : public AttributeT<float>
{
};
class DerivedSpline : public Tamarack::AttributeSpline
{
};
class Unregistered : public Attribute
{
};

TEST_F(TypeRegistryTest, DerivedClassesGetTheirBaseClassId)
{
    DerivedFloat derivedFloat;
    DerivedSpline derivedSpline;
    unsigned typeId = 0, size = 99;
    EXPECT_TRUE(m_registry.createSerializer(&derivedFloat, typeId, size));
    EXPECT_EQ(typeId, 3u);
    EXPECT_EQ(size, 4u);
    EXPECT_TRUE(m_registry.createSerializer(&derivedSpline, typeId, size));
    EXPECT_EQ(typeId, 46u);
    EXPECT_EQ(size, 0u);
}

TEST_F(TypeRegistryTest, UnknownClassGetsNoSerializerAndLeavesIdAndSizeAlone)
{
    Unregistered unknown;
    unsigned typeId = 77, size = 88;
    EXPECT_FALSE(m_registry.createSerializer(&unknown, typeId, size));
    EXPECT_EQ(typeId, 77u);
    EXPECT_EQ(size, 88u);
    EXPECT_TRUE(m_trace.lines().isEmpty());
}

TEST_F(TypeRegistryTest, SerializerFollowsAliasChainToTheTarget)
{
    AttributeT<float> target;
    Tamarack::AttributeAlias last(nullptr, "last", &target);
    Tamarack::AttributeAlias first(nullptr, "first", &last);
    target.setValue(2.f, Attribute::LAYER_USER);
    unsigned typeId = 0, size = 0;
    EXPECT_EQ(hex(serialize(m_registry, &first, &typeId, &size)), "00 00 00 40");
    EXPECT_EQ(typeId, 3u);
    EXPECT_EQ(size, 4u);
    EXPECT_TRUE(m_trace.lines().isEmpty());
}

TEST_F(TypeRegistryTest, AliasWithoutTargetGetsNoSerializerAndAWarning)
{
    Tamarack::AttributeAlias last(nullptr, "last");
    Tamarack::AttributeAlias first(nullptr, "first", &last);
    unsigned typeId = 77, size = 88;
    EXPECT_FALSE(m_registry.createSerializer(&first, typeId, size));
    EXPECT_FALSE(m_registry.createSerializer(nullptr, typeId, size));
    EXPECT_EQ(typeId, 77u);
    EXPECT_EQ(m_trace.lines(Level::Warning),
              (QStringList{"Loomy TypeRegistry asked to create serializer for alias attribute 'first' that "
                           "ultimately has a null target. Ignoring.",
                           "Loomy TypeRegistry asked to create serializer for alias attribute '' that "
                           "ultimately has a null target. Ignoring."}));
}

TEST_F(TypeRegistryTest, DeserializerFollowsAliasesToTheTarget)
{
    AttributeT<float> target;
    Tamarack::AttributeAlias last(nullptr, "last", &target);
    Tamarack::AttributeAlias first(nullptr, "first", &last);
    EXPECT_EQ(deserialize(m_registry, 3, &first, unhex("0000c03f")), 4u);
    EXPECT_EQ(target.value(Attribute::LAYER_USER), 1.5f);
    EXPECT_TRUE(m_trace.lines().isEmpty());
}

// A remote value goes on LAYER_USER, below a local layer that stays current.
TEST_F(TypeRegistryTest, RemoteValueStaysBelowAHigherLocalLayer)
{
    AttributeT<float> attribute;
    attribute.setValue(9.f, Attribute::LAYER_3);
    ChangeCounter changes(attribute);
    deserialize(m_registry, 3, &attribute, unhex("0000c03f"));
    EXPECT_EQ(attribute.value(Attribute::LAYER_USER), 1.5f);
    EXPECT_EQ(attribute.value(), 9.f);
    EXPECT_EQ(changes.count, 0);
}

// Any nonzero byte is true; copying it into a bool as it stands would be undefined.
TEST_F(TypeRegistryTest, BoolReadsAnyNonzeroByteAsTrue)
{
    AttributeT<bool> attribute;
    deserialize(m_registry, 1, &attribute, unhex("feffffff"));
    EXPECT_TRUE(attribute.value());
    deserialize(m_registry, 1, &attribute, unhex("00ffffff"));
    EXPECT_FALSE(attribute.value());
}

TEST_F(TypeRegistryTest, TupleTakesBothComponentsAsOneChange)
{
    Tamarack::AttributeLocation2f location;
    ChangeCounter changes(location);
    ChangeCounter first(location.component(0));
    ChangeCounter second(location.component(1));
    deserialize(m_registry, 49, &location, unhex("0000803f 00000040"));
    EXPECT_EQ(changes.count, 1);
    EXPECT_EQ(first.count, 1);
    EXPECT_EQ(second.count, 1);
    EXPECT_EQ(location.component(1).value(Attribute::LAYER_USER), 2.f);
    // The same value again changes nothing.
    deserialize(m_registry, 49, &location, unhex("0000803f 00000040"));
    EXPECT_EQ(changes.count, 1);
}

TEST_F(TypeRegistryTest, VectorLengthRemainderIsNotConsumed)
{
    Tamarack::AttributeContainer<std::vector<Wisket::Vector2f>> points;
    // L = 10: one element of 8 bytes; the 2 left over stay unread.
    EXPECT_EQ(deserialize(m_registry, 41, &points, unhex("0a000000 0000803f 00000040 ffff0000")), 12u);
    EXPECT_EQ(points.value(), std::vector<Wisket::Vector2f>{Wisket::Vector2f(1, 2)});
}

TEST_F(TypeRegistryTest, EmptySplineReplacesThePoints)
{
    Tamarack::AttributeSpline spline;
    spline.setPoints({Wisket::Vector2f(1, 1)});
    ChangeCounter changes(spline);
    EXPECT_EQ(deserialize(m_registry, 46, &spline, unhex("00000000")), 4u);
    EXPECT_TRUE(spline.points().isEmpty());
    EXPECT_EQ(changes.count, 1);
}

// ---- the grid ----

TEST_F(TypeRegistryTest, GridReusesItsStorageAndKeepsItAligned)
{
    Tamarack::AttributeGrid<unsigned char> grid;
    grid.setGrid(patternGrid(10, 10));
    const unsigned char *storage = grid.grid().data();
    EXPECT_EQ(reinterpret_cast<std::uintptr_t>(storage) % 4096, 0u);
    ChangeCounter changes(grid);
    deserialize(m_registry, 45, &grid, unhex("0d000000 03000000 01080f16 1d242b32 39000000"));
    EXPECT_EQ(grid.grid(), patternGrid(3, 3));
    EXPECT_EQ(grid.grid().data(), storage);
    EXPECT_EQ(changes.count, 1);
}

TEST_F(TypeRegistryTest, GridDerivesHeightAndStepsOverEveryCellByte)
{
    Tamarack::AttributeGrid<unsigned char> grid;
    // L = 4 + 7 with width 3: height 2, and all 7 bytes stepped over.
    EXPECT_EQ(deserialize(m_registry, 45, &grid, unhex("0b000000 03000000 01020304 050607ff")), 16u);
    EXPECT_EQ(grid.grid().width(), 3u);
    EXPECT_EQ(grid.grid().height(), 2u);
    EXPECT_EQ(QByteArray(reinterpret_cast<const char *>(grid.grid().data()), 6), unhex("010203040506"));
}

TEST_F(TypeRegistryTest, GridOfWidthZeroAndLengthFourIsEmpty)
{
    Tamarack::AttributeGrid<unsigned char> grid;
    grid.setGrid(patternGrid(2, 2));
    EXPECT_EQ(deserialize(m_registry, 45, &grid, unhex("04000000 00000000")), 8u);
    EXPECT_EQ(grid.grid().width(), 0u);
    EXPECT_EQ(grid.grid().height(), 0u);
}

struct BadGridCase
{
    const char *name;
    const char *wire;
    std::string error;
};

const std::string s_gridShort = "out_of_range: AttributeGrid deserialize # not enough data";

const BadGridCase s_badGrids[] = {
    {"LengthBelowFour", "03000000 03000000", s_gridShort},
    {"LengthZero", "00000000", s_gridShort},
    // Regression: cells without a width made the height a division by zero.
    {"WidthZeroWithCells", "05000000 00000000 01000000", s_gridShort},
    {"WidthZeroWithHostileLength", "ffffffff 00000000", s_gridShort},
    // Regression: a hostile length was trusted for the allocation before the bytes were checked.
    {"HostileLengthAllocatesNothing", "ffffffff 01000000 00000000", s_readPastEnd},
    {"CellsPastTheEnd", "0d000000 03000000 01020304", s_readPastEnd},
    {"WidthMissing", "0d000000", s_readPastEnd},
};

class BadGrid : public ::testing::TestWithParam<BadGridCase> {};

TEST_P(BadGrid, ThrowsAndLeavesTheGridAlone)
{
    TypeRegistry registry;
    Tamarack::AttributeGrid<unsigned char> grid;
    grid.setGrid(patternGrid(2, 2));
    ChangeCounter changes(grid);
    EXPECT_EQ(thrown([&] { deserialize(registry, 45, &grid, unhex(GetParam().wire)); }), GetParam().error);
    EXPECT_EQ(grid.grid(), patternGrid(2, 2));
    EXPECT_EQ(changes.count, 0);

    // The variant form takes the same steps.
    const QByteArray wire = unhex(GetParam().wire);
    BundleReaderCore variantReader(wire);
    EXPECT_EQ(thrown([&] { registry.createVariantDeserializer(45)(variantReader); }), GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(Wire, BadGrid, ::testing::ValuesIn(s_badGrids),
                         [](const auto &info) { return std::string(info.param.name); });

// ---- hostile lengths ----

// Lengths near 2^32 wrap any bound check that adds them to the position in 32 bits.
TEST(TypeRegistryHostileLength, NeverReadsOutsideTheArray)
{
    TypeRegistry registry;
    const unsigned dynamicIds[] = {35, 36, 40, 41, 42, 43, 44, 45, 46, 51};
    const char *lengths[] = {"fcffffff", "feffffff", "ffffffff", "00000080", "11000000"};
    for (unsigned id : dynamicIds) {
        for (const char *length : lengths) {
            const QByteArray wire = unhex(length) + unhex("01000000 41424344");
            std::unique_ptr<Attribute> target(registry.createAttribute(id));
            EXPECT_EQ(thrown([&] { deserialize(registry, id, target.get(), wire); }), s_readPastEnd)
                << id << " " << length;
            BundleReaderCore reader(wire);
            EXPECT_EQ(thrown([&] { registry.createVariantDeserializer(id)(reader); }), s_readPastEnd)
                << id << " " << length;
        }
    }
}

TEST(TypeRegistryHostileLength, StringListElementCannotReachPastTheArray)
{
    TypeRegistry registry;
    AttributeT<QStringList> list;
    // The list's L fits; its one element claims nearly 4 GiB.
    EXPECT_EQ(thrown([&] { deserialize(registry, 36, &list, unhex("08000000 fcffffff 41424344")); }), s_readPastEnd);
    EXPECT_TRUE(list.value().isEmpty());
}

// ---- QVariant forms ----

TEST(TypeRegistryVariant, MetaTypeNamesAreTheDeclaredOnes)
{
    TypeRegistry registry;
    const std::pair<unsigned, const char *> names[] = {
        {1, "bool"}, {2, "Kestrel::Color"}, {3, "float"}, {9, "int"}, {13, "Wisket::Recti"},
        {15, "Wisket::Rectd"}, {17, "Wisket::Vector2f"}, {29, "Wisket::Matrix3f"},
        {34, "Kestrel::TimeStamp"}, {35, "QString"}, {36, "QStringList"}, {45, "Kestrel::MemGrid8u"},
        {46, "QVector<Wisket::Vector2f>"}, {47, "int"}, {48, "Kestrel::ColorPMA"}, {49, "Wisket::Vector2f"},
        {50, "Wisket::SizeF"}, {51, "QString"}, {52, "Wisket::SizeI"}, {40, "std::vector<float>"},
    };
    // Long enough for any fixed value; as a dynamic one, L = 4 and zeros.
    const QByteArray bytes = unhex("04000000") + QByteArray(60, '\0');
    for (const auto &name : names) {
        BundleReaderCore reader(bytes);
        const QVariant variant = registry.createVariantDeserializer(name.first)(reader);
        EXPECT_STREQ(variant.typeName(), name.second) << name.first;
        EXPECT_EQ(QMetaType::type(name.second), variant.userType()) << name.first;
    }
}

struct VariantErrorCase
{
    unsigned id;
    std::string text;
};

TEST(TypeRegistryVariant, UnconvertibleVariantThrowsWithTheTypeName)
{
    TypeRegistry registry;
    const VariantErrorCase cases[] = {
        {9, "int"},
        {47, "int32_t"},
        {35, "QString"},
        {51, "QString"},
        {36, "QStringList"},
        {45, "Kestrel::MemGrid8u"},
        {46, "QVector<Wisket::Vector2f>"},
        {14, "Wisket::Rectf"},
        {48, "Kestrel::ColorPMA"},
        {1, typeid(bool).name()},
        {3, typeid(float).name()},
    };
    // Nothing converts from a colour but a colour.
    const QVariant colour = QVariant::fromValue(Kestrel::Color(1, 0, 0, 1));
    for (const VariantErrorCase &c : cases) {
        QByteArray bytes;
        BundleWriterCore writer(bytes);
        EXPECT_EQ(thrown([&] { registry.createVariantSerializer(c.id)(writer, colour); }),
                  "invalid_argument: Given QVariant can't be converted to " + c.text)
            << c.id;
        EXPECT_TRUE(bytes.isEmpty()) << c.id;
    }
}

TEST(TypeRegistryVariant, ConvertsOrFallsBackToTheDefault)
{
    TypeRegistry registry;
    QByteArray bytes;
    BundleWriterCore writer(bytes);
    registry.createVariantSerializer(3)(writer, QVariant(5));                // int -> float
    registry.createVariantSerializer(3)(writer, QVariant(QString("abc")));   // converts, but fails: 0
    registry.createVariantSerializer(35)(writer, QVariant(12));              // int -> "12"
    EXPECT_EQ(hex(bytes), hex(unhex("0000a040 00000000 02000000 31320000")));
}

TEST(TypeRegistryVariant, SettersInsertAndReplace)
{
    TypeRegistry registry;
    int called = 0;
    registry.setVariantSerializer(5, [&](BundleWriterCore &, const QVariant &) { ++called; });
    registry.setVariantSerializer(3, [&](BundleWriterCore &, const QVariant &) { called += 10; });
    registry.setVariantDeserializer(5, [](BundleReaderCore &) { return QVariant(42); });
    QByteArray bytes;
    BundleWriterCore writer(bytes);
    registry.createVariantSerializer(5)(writer, QVariant());
    registry.createVariantSerializer(3)(writer, QVariant(1.f));
    EXPECT_EQ(called, 11);
    EXPECT_TRUE(bytes.isEmpty());
    BundleReaderCore reader(bytes);
    EXPECT_EQ(registry.createVariantDeserializer(5)(reader), QVariant(42));
    // Variant entries make no attribute type.
    EXPECT_EQ(registry.createAttribute(5), nullptr);
}

} // namespace
