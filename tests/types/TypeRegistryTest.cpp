#include "loomy/types/TypeRegistry.h"
#include "loomy/types/ValueMetaTypes.h"

#include "TypesTestUtil.h"

#include "tamarack/AttributeAlias.h"
#include "tamarack/AttributeAsset.h"
#include "tamarack/AttributeContainer.h"
#include "tamarack/AttributeEnum.h"
#include "tamarack/AttributeGrid.h"
#include "tamarack/AttributeLocation2f.h"
#include "tamarack/AttributeSpline.h"
#include "tamarack/AttributeT.h"

#include <cstdint>
#include <functional>
#include <memory>
#include <set>
#include <typeinfo>
#include <vector>

using namespace Loomy;
using namespace Tamarack;
using namespace Wisket;
using namespace Kestrel;
using Grid8 = AttributeGrid<unsigned char>;
template <typename T>
using Vec = AttributeContainer<std::vector<T>>;

MemGrid8u patternGrid(unsigned width, unsigned height)
{
    MemGrid8u grid(width, height);
    for (std::size_t i = 0; i < grid.cellCount(); ++i)
        grid.data()[i] = static_cast<unsigned char>(i * 7 + 1);
    return grid;
}

// An attribute class with a value unlike its default in every component, and the exact bytes where given.
struct TypeCase
{
    const char *name;
    unsigned id, fixedSize; // fixedSize 0: dynamic, the value starts with its length
    std::function<Attribute *()> make;
    std::function<void(Attribute *)> fill;
    std::function<bool(Attribute *, Attribute *)> same;
    const char *wire;
};

template <typename A>
auto valueOf(A *a) { return a->value(); }
auto valueOf(Grid8 *a) { return a->grid(); }
auto valueOf(AttributeSpline *a) { return a->points(); }

// Layered classes get the default on LAYER_USER and `value` on LAYER_3: only the current value may go out.
template <typename A, typename V>
void put(A *a, const V &value) { a->setValue(V(), Attribute::LAYER_USER); a->setValue(value, Attribute::LAYER_3); }
template <typename T>
void put(Vec<T> *a, const std::vector<T> &value) { a->setValue(value); }
void put(Grid8 *a, const MemGrid8u &grid) { a->setGrid(grid); }
void put(AttributeSpline *a, const QVector<Vector2f> &points) { a->setPoints(points); }

template <typename A, typename V>
TypeCase row(const char *name, unsigned id, unsigned fixedSize, V value, const char *wire = nullptr)
{
    return {name, id, fixedSize, [] { return new A; }, [value](Attribute *a) { put(static_cast<A *>(a), value); },
            [](Attribute *a, Attribute *b) { return valueOf(static_cast<A *>(a)) == valueOf(static_cast<A *>(b)); },
            wire};
}

std::vector<TypeCase> typeCases()
{
    using List = AttributeT<QStringList>;
    using Str = AttributeT<QString>;
    return {
        row<AttributeT<bool>>("TrueBool", 1, 1, true, "01000000"),
        row<AttributeT<Color>>("Color", 2, 16, Color(0.5f, 0.25f, 1.f, 0.75f)),
        row<AttributeT<float>>("Float", 3, 4, -3.25f),
        row<AttributeT<double>>("Double", 4, 8, 1.0, "00000000 0000f03f"),
        row<AttributeT<int>>("Int", 9, 4, -2, "feffffff"),
        row<AttributeT<unsigned>>("UInt", 10, 4, 0xdeadbeefu),
        row<AttributeT<long>>("Long", 11, 8, -(1L << 40)),
        row<AttributeT<unsigned long>>("ULong", 12, 8, (1UL << 63) | 5UL),
        row<AttributeT<Recti>>("RectInt", 13, 16, Recti(-1, 2, 30, 40)),
        row<AttributeT<Rectf>>("RectFloat", 14, 16, Rectf(-1.5f, 2, 3, 4.5f)),
        row<AttributeT<Rectd>>("RectDouble", 15, 32, Rectd(-1.5, 2, 3, 1e-300)),
        row<AttributeT<Vector2i>>("Vector2Int", 16, 8, Vector2i(-7, 8)),
        row<AttributeT<Vector2f>>("Vector2Float", 17, 8, Vector2f(0.5f, -8)),
        row<AttributeT<Vector3i>>("Vector3Int", 19, 12, Vector3i(1, -2, 3)),
        row<AttributeT<Vector3f>>("Vector3Float", 20, 12, Vector3f(1, -2, 3.5f)),
        row<AttributeT<Vector4i>>("Vector4Int", 22, 16, Vector4i(1, 2, 3, -4)),
        row<AttributeT<Vector4f>>("Vector4Float", 23, 16, Vector4f(1, 2, 3, -4.5f)),
        row<AttributeT<Matrix2f>>("Matrix2", 26, 16, Matrix2f{1, 2, 3, 4}),
        row<AttributeT<Matrix3f>>("Matrix3", 29, 36, Matrix3f{1, 2, 3, 4, 5, 6, 7, 8, 9}),
        row<AttributeT<Matrix4f>>("Matrix4", 32, 64, Matrix4f{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, -16}),
        row<AttributeT<TimeStamp>>("TimeStamp", 34, 8, TimeStamp(0x0102030405060708LL), "08070605 04030201"),
        row<Str>("Utf8WithZero", 35, 0, QString::fromUtf8("gr\xc3\xbc\xc3\x9f") + QChar(0) + "e"),
        row<Str>("Abcde", 35, 0, QString("abcde"), "05000000 61626364 65000000"),
        row<List>("EmptyStringList", 36, 0, QStringList(), "00000000"),
        row<List>("ListOfOneEmptyString", 36, 0, QStringList{""}, "04000000 00000000"),
        row<List>("StringListWithPadding", 36, 0, QStringList{"ab", "c"},
                  "10000000 02000000 61620000 01000000 63000000"),
        row<Vec<float>>("FloatVector", 40, 0, std::vector<float>{1.5f, -2.f, 3.f}),
        row<Vec<Vector2f>>("Vector2Vector", 41, 0, std::vector<Vector2f>{Vector2f(1, 2), Vector2f(-3, 4)}),
        row<Vec<int>>("IntVector", 42, 0, std::vector<int>{1, -1}, "08000000 01000000 ffffffff"),
        row<Vec<unsigned>>("UIntVector", 43, 0, std::vector<unsigned>{0xffffffffu, 1u}),
        row<Vec<QString>>("StringVector", 44, 0, std::vector<QString>{"abcde", ""},
                          "10000000 05000000 61626364 65000000 00000000"),
        row<Grid8>("Grid3By3", 45, 0, patternGrid(3, 3), "0d000000 03000000 01080f16 1d242b32 39000000"),
        row<AttributeSpline>("SplineOfTwoPoints", 46, 0, QVector<Vector2f>{Vector2f(1, 2), Vector2f(3, 4)},
                             "10000000 0000803f 00000040 00004040 00008040"),
        row<AttributeEnum>("Enum", 47, 4, -2, "feffffff"),
        row<AttributeT<ColorPMA>>("ColorPMA", 48, 16, ColorPMA(0.25f, 0.5f, 0.125f, 0.5f)),
        row<AttributeLocation2f>("Location", 49, 8, Vector2f(1, 2), "0000803f 00000040"),
        row<AttributeT<SizeF>>("SizeFloat", 50, 8, SizeF(3.5f, 4)),
        row<AttributeAsset>("Asset", 51, 0, QString("abcde"), "05000000 61626364 65000000"),
        row<AttributeT<SizeI>>("SizeInt", 52, 8, SizeI(1, -2), "01000000 feffffff"),
    };
}

void PrintTo(const TypeCase &c, std::ostream *os) { *os << c.name; }
class TypeRoundTrip : public ::testing::TestWithParam<TypeCase> {};

TEST_P(TypeRoundTrip, OneRegistryReadsWhatTheOtherWrote)
{
    const TypeCase &c = GetParam();
    TypeRegistry sender, receiver;
    std::unique_ptr<Attribute> source(c.make()), target(c.make());
    c.fill(source.get());
    const bool layered = source->isValueDefinedOnLayer(Attribute::LAYER_3);
    const bool changes = !layered || !c.same(source.get(), target.get());
    unsigned typeId = 0, size = 99;
    const QByteArray wire = serialize(sender, source.get(), &typeId, &size);
    if (c.wire) {
        EXPECT_EQ(hex(wire), hex(unhex(c.wire)));
    }
    EXPECT_EQ(std::make_pair(typeId, size), std::make_pair(c.id, c.fixedSize));
    const unsigned needed = size ? size : 4 + BundleReaderCore(wire).read<quint32>(); // all but the padding
    EXPECT_EQ(unsigned(wire.size()), (needed + 3) & ~3u) << hex(wire);

    std::unique_ptr<Attribute> created(receiver.createAttribute(c.id));
    ASSERT_TRUE(created);
    EXPECT_EQ(typeid(*created), c.id == 47 ? typeid(AttributeT<int>) : typeid(*target)); // an enum arrives as an int

    // Onto LAYER_USER, in one change: containers always change, layered values if they differ.
    ChangeCounter counter(*target);
    EXPECT_EQ(deserialize(receiver, c.id, target.get(), wire), unsigned(wire.size()));
    EXPECT_TRUE(c.same(source.get(), target.get())) << hex(wire);
    EXPECT_EQ(counter.count, changes ? 1 : 0);
    EXPECT_EQ(target->isValueDefinedOnLayer(Attribute::LAYER_USER), layered);
    EXPECT_FALSE(target->isValueDefinedOnLayer(Attribute::LAYER_3));
    if (c.id == 45) { // grids keep their cells in page-aligned storage
        EXPECT_EQ(reinterpret_cast<std::uintptr_t>(static_cast<Grid8 *>(target.get())->grid().data()) % 4096, 0u);
    }

    BundleReaderCore reader(wire);
    QByteArray again;
    BundleWriterCore writer(again);
    receiver.createVariantSerializer(c.id)(writer, receiver.createVariantDeserializer(c.id)(reader));
    EXPECT_EQ(std::make_pair(reader.position(), hex(again)), std::make_pair(unsigned(wire.size()), hex(wire)));

    // Every prefix that cuts into the value throws; only the padding may be missing.
    for (unsigned length = 0; length < unsigned(wire.size()); ++length) {
        std::unique_ptr<Attribute> cut(c.make());
        unsigned end = 0;
        EXPECT_EQ(thrown([&] { end = deserialize(receiver, c.id, cut.get(), wire.left(int(length))); }),
                  length < needed ? s_readPastEnd : "nothing thrown") << length;
        EXPECT_EQ(end, length < needed ? 0 : unsigned(wire.size())) << length;
    }
    if (size)
        return;
    // Lengths near 2^32 wrap any bound check that adds them to the position in 32 bits.
    for (const char *length : {"fcffffff", "feffffff", "ffffffff", "00000080", "11000000"}) {
        const QByteArray hostile = unhex(length) + unhex("01000000 41424344");
        BundleReaderCore hostileReader(hostile);
        EXPECT_EQ(thrown([&] { deserialize(receiver, c.id, target.get(), hostile); }), s_readPastEnd) << length;
        EXPECT_EQ(thrown([&] { receiver.createVariantDeserializer(c.id)(hostileReader); }), s_readPastEnd) << length;
    }
}

INSTANTIATE_TEST_SUITE_P(AllIds, TypeRoundTrip, ::testing::ValuesIn(typeCases()),
                         [](const auto &info) { return std::string(info.param.name); });

// Every id that makes an attribute has a row above. A class that doesn't fit, or none, gets an
// empty function silently; only a deserialiser for an unknown id logs.
TEST(TypeRegistry, UnknownIdsAndMismatchingClassesGetNothing)
{
    TypeRegistry registry;
    TraceCapture trace;
    std::set<unsigned> covered, assigned;
    for (const TypeCase &c : typeCases())
        covered.insert(c.id);
    for (unsigned id = 0; id <= 100; ++id)
        if (std::unique_ptr<Attribute>(registry.createAttribute(id)))
            assigned.insert(id);
    EXPECT_EQ(covered, assigned);
    EXPECT_FALSE(registry.createVariantSerializer(5) || registry.createVariantDeserializer(5));

    AttributeT<float> f;
    AttributeT<QString> text;
    Vec<int> ints;
    EXPECT_FALSE(registry.createDeserializer(35, &f) || registry.createDeserializer(9, nullptr));
    EXPECT_FALSE(registry.createDeserializer(40, &ints)); // a vector of another element
    EXPECT_FALSE(registry.createDeserializer(51, &text)); // an asset isn't a plain text
    EXPECT_TRUE(trace.lines().isEmpty());
    EXPECT_FALSE(registry.createDeserializer(5, &f));
    EXPECT_EQ(trace.lines(Trace::Level::Error),
              QStringList{"Loomy TypeRegistry - cound not find deserializer factory for type 5"});
    EXPECT_EQ(trace.lines().size(), 1);
}

// 9 and 47 don't cast: anything that takes an int takes them; a text has no int view and drops it.
TEST(TypeRegistry, IntIdsFeedAnyAttributeThatAcceptsAnInt)
{
    TypeRegistry registry;
    for (unsigned id : {9u, 47u}) {
        AttributeT<double> d;
        AttributeEnum e;
        AttributeT<QString> text(nullptr, "t", "keep");
        for (Attribute *a : std::initializer_list<Attribute *>{&d, &e, &text})
            EXPECT_EQ(deserialize(registry, id, a, unhex("07000000")), 4u) << id;
        EXPECT_EQ(std::make_pair(d.value(), e.value()), std::make_pair(7.0, 7)) << id;
        EXPECT_EQ(text.value(), "keep") << id;
    }
}

struct DerivedFloat : AttributeT<float> {};
struct Unregistered : Attribute {};

// A derived class takes its base class's id, through an alias chain both ways. Failures leave id
// and size alone; only an alias chain that ends in null warns.
TEST(TypeRegistry, SerializerIsChosenByClassThroughAliases)
{
    TypeRegistry registry;
    TraceCapture trace;
    DerivedFloat derived;
    Unregistered unknown;
    AttributeAlias last(nullptr, "last", &derived), first(nullptr, "first", &last);
    AttributeAlias hollow(nullptr, "hollow"), dangling(nullptr, "dangling", &hollow);
    derived.setValue(2.f, Attribute::LAYER_USER);
    unsigned typeId = 0, size = 0;
    EXPECT_EQ(hex(serialize(registry, &first, &typeId, &size)), "00 00 00 40");
    EXPECT_EQ(std::make_pair(typeId, size), std::make_pair(3u, 4u));
    EXPECT_EQ(deserialize(registry, 3, &first, unhex("0000c03f")), 4u);
    EXPECT_EQ(derived.value(), 1.5f);
    EXPECT_TRUE(trace.lines().isEmpty());
    for (Attribute *a : std::initializer_list<Attribute *>{&unknown, &dangling, nullptr})
        EXPECT_FALSE(registry.createSerializer(a, typeId, size));
    EXPECT_EQ(std::make_pair(typeId, size), std::make_pair(3u, 4u));
    const QString warning = "Loomy TypeRegistry asked to create serializer for alias attribute '%1' that "
                            "ultimately has a null target. Ignoring.";
    EXPECT_EQ(trace.lines(Trace::Level::Warning), (QStringList{warning.arg("dangling"), warning.arg("")}));
    EXPECT_EQ(trace.lines().size(), 2);
}

// Read over `before`, `wire` ends at `end` and leaves `result`; or, for `end` 0, throws `result` and keeps `before`.
struct InputCase { const char *name; unsigned id; const char *before, *wire; unsigned end; std::string result; };

const std::string s_gridShort = "out_of_range: AttributeGrid deserialize # not enough data";
const char *const s_grid2x2 = "08000000 02000000 01020304";

const InputCase s_inputs[] = {
    // A byte copied into a bool as it stands would be undefined.
    {"BoolTakesAnyNonzeroByte", 1, "00000000", "feffffff", 4, "01000000"},
    {"BoolIgnoresThePadding", 1, "01000000", "00ffffff", 4, "00000000"},
    {"VectorLengthRemainder", 41, "08000000 00004040 00004040", "0a000000 0000803f 00000040 ffff0000", 12,
     "08000000 0000803f 00000040"}, // L = 10: one element of 8 bytes, the 2 left over unread
    {"GridHeightFromLength", 45, s_grid2x2, "0b000000 03000000 01020304 050607ff", 16,
     "0a000000 03000000 01020304 05060000"}, // L = 4 + 7, width 3: height 2, all 7 cell bytes stepped over
    {"GridOfWidthZeroIsEmpty", 45, s_grid2x2, "04000000 00000000", 8, "04000000 00000000"},
    {"GridLengthBelowFour", 45, s_grid2x2, "03000000 03000000", 0, s_gridShort},
    // Regression: cells without a width made the height a division by zero.
    {"GridWidthZeroWithCells", 45, s_grid2x2, "05000000 00000000 01000000", 0, s_gridShort},
    {"GridWidthZeroWithHostileLength", 45, s_grid2x2, "ffffffff 00000000", 0, s_gridShort},
    // Regression: a hostile length was trusted for the allocation before the bytes were checked.
    {"GridHostileLengthAllocatesNothing", 45, s_grid2x2, "ffffffff 01000000 00000000", 0, s_readPastEnd},
    {"GridCellsPastTheEnd", 45, s_grid2x2, "0d000000 03000000 01020304", 0, s_readPastEnd},
    {"GridWidthMissing", 45, s_grid2x2, "0d000000", 0, s_readPastEnd},
    // The list's L fits; its one element claims nearly 4 GiB.
    {"StringListElementPastTheEnd", 36, "04000000 00000000", "08000000 fcffffff 41424344", 0, s_readPastEnd},
};

void PrintTo(const InputCase &c, std::ostream *os) { *os << c.name; }
class UnusualInput : public ::testing::TestWithParam<InputCase> {};

TEST_P(UnusualInput, ReadsTheCanonicalValueOrThrowsAndKeepsTheOld)
{
    const InputCase &c = GetParam();
    const QByteArray wire = unhex(c.wire);
    TypeRegistry registry;
    std::unique_ptr<Attribute> target(registry.createAttribute(c.id));
    deserialize(registry, c.id, target.get(), unhex(c.before));
    ChangeCounter changes(*target);
    unsigned end = 0;
    const std::string error = thrown([&] { end = deserialize(registry, c.id, target.get(), wire); });
    EXPECT_EQ(end, c.end);
    if (c.end) {
        EXPECT_EQ(error, "nothing thrown");
        EXPECT_EQ(hex(serialize(registry, target.get())), hex(unhex(c.result.c_str())));
    } else {
        EXPECT_EQ(error, c.result);
        BundleReaderCore reader(wire);
        EXPECT_EQ(thrown([&] { registry.createVariantDeserializer(c.id)(reader); }), c.result);
        EXPECT_EQ(hex(serialize(registry, target.get())), hex(unhex(c.before)));
        EXPECT_EQ(changes.count, 0);
    }
}

INSTANTIATE_TEST_SUITE_P(Wire, UnusualInput, ::testing::ValuesIn(s_inputs),
                         [](const auto &info) { return std::string(info.param.name); });

// Nothing converts from a colour but a colour; nothing is written.
TEST(TypeRegistryVariant, UnconvertibleVariantThrowsWithTheTypeName)
{
    TypeRegistry registry;
    const std::pair<unsigned, std::string> cases[] = {
        {9, "int"}, {47, "int32_t"}, {35, "QString"}, {51, "QString"}, {36, "QStringList"}, {45, "Kestrel::MemGrid8u"},
        {46, "QVector<Wisket::Vector2f>"}, {14, "Wisket::Rectf"}, {48, "Kestrel::ColorPMA"}, {1, typeid(bool).name()},
        {3, typeid(float).name()},
    };
    QByteArray bytes;
    BundleWriterCore writer(bytes);
    for (const auto &c : cases)
        EXPECT_EQ(thrown([&] { registry.createVariantSerializer(c.first)(writer, QVariant::fromValue(Color())); }),
                  "invalid_argument: Given QVariant can't be converted to " + c.second) << c.first;
    EXPECT_TRUE(bytes.isEmpty());
}
