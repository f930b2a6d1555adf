#include "tamarack/AttributeT.h"
#include "tamarack/Node.h"

#include "kestrel/BinaryData.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdlib>
#include <new>
#include <thread>
#include <vector>

// Counts allocations made by the current thread, to prove that an attribute without listeners
// allocates nothing for them.
namespace {
thread_local long t_allocations = 0;
}

void *operator new(std::size_t size)
{
    ++t_allocations;
    if (void *p = std::malloc(size ? size : 1))
        return p;
    throw std::bad_alloc();
}
void operator delete(void *p) noexcept { std::free(p); }
void operator delete(void *p, std::size_t) noexcept { std::free(p); }

using Tamarack::Attribute;
using IntAttr = Tamarack::AttributeT<int>;

namespace {

// Records every value seen by a CHANGE_ROLE listener.
struct ChangeLog
{
    explicit ChangeLog(IntAttr &a) : attr(a)
    {
        attr.addListener([this] { seen.push_back(attr.value()); }, Attribute::CHANGE_ROLE);
    }
    IntAttr &attr;
    std::vector<int> seen;
};

class Layers : public ::testing::Test
{
protected:
    IntAttr attr{nullptr, "a", 10};
    ChangeLog log{attr};
};

} // namespace

TEST_F(Layers, SettingTheCurrentValueIsSilent)
{
    attr.setValue(5, Attribute::LAYER_USER);
    attr.setValue(5, Attribute::LAYER_USER);
    attr.setValue(5, Attribute::LAYER_3); // the layer moves up, the value doesn't change
    EXPECT_EQ(log.seen, std::vector<int>({5}));
    EXPECT_EQ(attr.currentLayer(), Attribute::LAYER_3);
}

TEST_F(Layers, SetBelowTheCurrentLayerIsStoredSilentlyAndAppearsWhenHigherLayersClear)
{
    attr.setValue(7, Attribute::LAYER_3);
    attr.setValue(9, Attribute::LAYER_USER);
    EXPECT_EQ(attr.value(), 7);
    EXPECT_EQ(log.seen, std::vector<int>({7}));
    EXPECT_TRUE(attr.isValueDefinedOnLayer(Attribute::LAYER_USER));

    attr.clearValue(Attribute::LAYER_3);
    EXPECT_EQ(attr.value(), 9);
    EXPECT_EQ(attr.currentLayer(), Attribute::LAYER_USER);
    EXPECT_EQ(log.seen, std::vector<int>({7, 9}));
}

struct ClearCase
{
    const char *name;
    std::vector<std::pair<Attribute::Layer, int>> sets; // applied in order, default is 10
    Attribute::Layer cleared;
    int value;                     // afterwards
    Attribute::Layer layer;        // current afterwards
    std::vector<int> emittedByClear;
};

const ClearCase s_clearCases[] = {
    {"FallsBackToDefault", {{Attribute::LAYER_USER, 4}}, Attribute::LAYER_USER, 10, Attribute::LAYER_DEFAULT, {10}},
    {"FallsBackToHighestDefinedBelow",
     {{Attribute::LAYER_1, 3}, {Attribute::LAYER_USER, 4}}, Attribute::LAYER_USER, 3, Attribute::LAYER_1, {3}},
    {"SkipsUndefinedLayers",
     {{Attribute::LAYER_1, 3}, {Attribute::LAYER_4, 8}}, Attribute::LAYER_4, 3, Attribute::LAYER_1, {3}},
    {"EqualValueBelowIsSilent",
     {{Attribute::LAYER_1, 4}, {Attribute::LAYER_USER, 4}}, Attribute::LAYER_USER, 4, Attribute::LAYER_1, {}},
    {"NotCurrentLayerOnlyClearsItsFlag",
     {{Attribute::LAYER_1, 3}, {Attribute::LAYER_USER, 4}}, Attribute::LAYER_1, 4, Attribute::LAYER_USER, {}},
    {"CurrentStandsForTheCurrentLayer",
     {{Attribute::LAYER_USER, 4}, {Attribute::LAYER_3, 5}}, Attribute::LAYER_CURRENT, 4, Attribute::LAYER_USER, {4}},
    {"DefaultStaysDefined", {}, Attribute::LAYER_DEFAULT, 10, Attribute::LAYER_DEFAULT, {}},
};

class ClearValue : public ::testing::TestWithParam<ClearCase> {};

TEST_P(ClearValue, FallsBackAndEmitsOnlyADifferingValue)
{
    const ClearCase &c = GetParam();
    IntAttr attr(nullptr, "a", 10);
    for (const auto &set : c.sets)
        attr.setValue(set.second, set.first);
    ChangeLog log(attr);
    attr.clearValue(c.cleared);
    EXPECT_EQ(attr.value(), c.value);
    EXPECT_EQ(attr.currentLayer(), c.layer);
    EXPECT_EQ(log.seen, c.emittedByClear);
    if (c.cleared <= Attribute::LAYER_4 && c.cleared != Attribute::LAYER_DEFAULT) {
        EXPECT_FALSE(attr.isValueDefinedOnLayer(c.cleared));
    }
    EXPECT_TRUE(attr.isValueDefinedOnLayer(Attribute::LAYER_DEFAULT));
}

INSTANTIATE_TEST_SUITE_P(Layers, ClearValue, ::testing::ValuesIn(s_clearCases),
                         [](const auto &i) { return std::string(i.param.name); });

TEST_F(Layers, IsChangedIsFalseOnTheDefaultLayerEvenAfterASetThere)
{
    attr.setValue(11, Attribute::LAYER_DEFAULT);
    EXPECT_FALSE(attr.isChanged());
    EXPECT_EQ(log.seen, std::vector<int>({11}));
    attr.setValue(11, Attribute::LAYER_USER); // above default, but equal to it
    EXPECT_FALSE(attr.isChanged());
    attr.setValue(12, Attribute::LAYER_USER);
    EXPECT_TRUE(attr.isChanged());
}

TEST_F(Layers, SetAsDefaultsMovesTheUserValueDownWithoutAChange)
{
    attr.setValue(4, Attribute::LAYER_USER);
    log.seen.clear();
    attr.setAsDefaults();
    EXPECT_EQ(attr.value(Attribute::LAYER_DEFAULT), 4);
    EXPECT_FALSE(attr.isValueDefinedOnLayer(Attribute::LAYER_USER));
    EXPECT_EQ(attr.currentLayer(), Attribute::LAYER_DEFAULT);
    EXPECT_FALSE(attr.isChanged());
    EXPECT_TRUE(log.seen.empty());
}

TEST_F(Layers, SetAsDefaultsWithoutUserValueDoesNothing)
{
    attr.setValue(6, Attribute::LAYER_3);
    attr.setAsDefaults();
    EXPECT_EQ(attr.value(Attribute::LAYER_DEFAULT), 10);
    EXPECT_EQ(attr.value(), 6);
}

TEST_F(Layers, CopyValueFromLayerTakesCurrentLayerOrCurrentValue)
{
    attr.setValue(3, Attribute::LAYER_1);
    attr.copyValueFromLayer(Attribute::LAYER_CURRENT, Attribute::LAYER_USER);
    EXPECT_EQ(attr.value(Attribute::LAYER_USER), 3);
    attr.setValue(8, Attribute::LAYER_3);
    attr.copyValueFromLayer(Attribute::LAYER_CURRENT_VALUE, Attribute::LAYER_4);
    EXPECT_EQ(attr.currentLayer(), Attribute::LAYER_4);
    EXPECT_EQ(attr.value(Attribute::LAYER_4), 8);
    attr.copyValueFromLayer(Attribute::LAYER_DEFAULT, Attribute::LAYER_1); // below: stored only
    EXPECT_EQ(attr.value(Attribute::LAYER_1), 10);
    EXPECT_EQ(log.seen, std::vector<int>({3, 8}));
}

TEST(LayerForSerialization, PicksTheHighestAllowedDefinedLayer)
{
    IntAttr attr(nullptr, "a", 0);
    attr.setValue(1, Attribute::LAYER_1);
    attr.setValue(2, Attribute::LAYER_USER);
    const struct { unsigned options; bool found; Attribute::Layer layer; } cases[] = {
        {0xF, true, Attribute::LAYER_USER},   // LAYER_3 allowed but undefined
        {0x8, false, Attribute::LAYER_4},
        {0x2 | 0x1, true, Attribute::LAYER_1},
        {0x1, true, Attribute::LAYER_DEFAULT},
        {0x0, false, Attribute::LAYER_4},
    };
    for (const auto &c : cases) {
        Attribute::Layer layer = Attribute::LAYER_4;
        EXPECT_EQ(attr.layerForSerialization(c.options, layer), c.found) << c.options;
        EXPECT_EQ(layer, c.layer) << c.options;
    }
}

TEST(Listeners, RemovingItselfLeavesTheEmissionIntact)
{
    IntAttr attr(nullptr, "a", 0);
    std::vector<int> calls;
    attr.addListener([&] { calls.push_back(1); }, Attribute::CHANGE_ROLE);
    long self = 0;
    self = attr.addListener([&] { calls.push_back(2); attr.removeListener(self); }, Attribute::CHANGE_ROLE);
    attr.addListener([&] { calls.push_back(3); }, Attribute::CHANGE_ROLE);
    attr.setValue(1);
    attr.setValue(2);
    EXPECT_EQ(calls, std::vector<int>({1, 2, 3, 1, 3}));
}

TEST(Listeners, OneRemovedByAnEarlierListenerIsSkippedAndOneAddedRunsNextTime)
{
    IntAttr attr(nullptr, "a", 0);
    std::vector<int> calls;
    long later = 0;
    bool added = false;
    attr.addListener([&] {
        calls.push_back(1);
        attr.removeListener(later);
        if (!added) {
            added = true;
            attr.addListener([&] { calls.push_back(4); }, Attribute::CHANGE_ROLE);
        }
    }, Attribute::CHANGE_ROLE);
    later = attr.addListener([&] { calls.push_back(2); }, Attribute::CHANGE_ROLE);
    attr.setValue(1);
    attr.setValue(2);
    EXPECT_EQ(calls, std::vector<int>({1, 1, 4}));
}

TEST(Listeners, RolesAreSeparateAndIdsOnlyGrow)
{
    std::vector<int> calls;
    long first, second;
    {
        IntAttr attr(nullptr, "a", 0);
        first = attr.addListener([&] { calls.push_back(Attribute::CHANGE_ROLE); }, Attribute::CHANGE_ROLE);
        attr.removeListener(first);
        second = attr.addListener([&] { calls.push_back(Attribute::DELETE_ROLE); }, Attribute::DELETE_ROLE);
        attr.emitChange();
        EXPECT_TRUE(calls.empty());
    }
    EXPECT_GT(second, first);
    EXPECT_EQ(calls, std::vector<int>({Attribute::DELETE_ROLE}));
}

TEST(Listeners, NoAllocationForAnAttributeWithoutListeners)
{
    IntAttr attr(nullptr, "a", 0);
    const long before = t_allocations;
    attr.setValue(1);
    attr.emitChange();
    attr.clearValue(Attribute::LAYER_USER);
    attr.removeListener(1);
    EXPECT_EQ(t_allocations, before);
    attr.addListener([] {}, Attribute::CHANGE_ROLE);
    EXPECT_GT(t_allocations, before);
}

TEST(EventProcess, ReadsOneValueOfItsTypeOntoTheUserLayer)
{
    IntAttr attr(nullptr, "a", 1);
    attr.setValue(5, Attribute::LAYER_3);
    Kestrel::BinaryData data;
    data.writeInt32(42);
    data.rewind();
    attr.eventProcess("a", data);
    EXPECT_EQ(attr.value(Attribute::LAYER_USER), 42);
    EXPECT_EQ(attr.value(), 5); // LAYER_3 still wins
}

TEST(EventProcess, DataOfAnotherTypeLeavesTheValue)
{
    IntAttr attr(nullptr, "a", 1);
    ChangeLog log(attr);
    Kestrel::BinaryData data;
    data.writeString("12");
    data.rewind();
    attr.eventProcess("a", data);
    Kestrel::BinaryData empty;
    attr.eventProcess("a", empty);
    EXPECT_EQ(attr.value(), 1);
    EXPECT_FALSE(attr.isValueDefinedOnLayer(Attribute::LAYER_USER));
    EXPECT_TRUE(log.seen.empty());
}

TEST(EventProcess, ValueKindsReadTheirItems)
{
    Kestrel::BinaryData data;
    data.writeVector4Float32(Wisket::Vector4f(1, 0, 0.5f, 1));
    data.writeString("hello");
    const Wisket::Rectd rect(1, 2, 3, 4);
    data.writeBlob(&rect, sizeof rect);
    data.writeVector2Int32(Wisket::Vector2i(-3, 7));
    data.rewind();

    Tamarack::AttributeT<Kestrel::Color> color;
    Tamarack::AttributeT<QString> text;
    Tamarack::AttributeT<Wisket::Rectd> rectAttr;
    Tamarack::AttributeT<Wisket::Recti> recti; // wants four ints: finds a vector of two
    color.eventProcess("c", data);
    text.eventProcess("t", data);
    rectAttr.eventProcess("r", data);
    recti.eventProcess("r", data);
    EXPECT_EQ(color.value(), Kestrel::Color(1, 0, 0.5f, 1));
    EXPECT_EQ(text.value(), QStringLiteral("hello"));
    EXPECT_EQ(rectAttr.value(), rect);
    EXPECT_EQ(recti.value(), Wisket::Recti());
}

// Two threads change their attributes while a third adds and removes listeners on both. Each
// change of a permanent listener's attribute must reach it exactly once.
TEST(Concurrency, ChangesAndListenerChurnFromThreeThreads)
{
    constexpr int rounds = 20000;
    IntAttr a(nullptr, "a", 0), b(nullptr, "b", 0);
    std::atomic<int> seenA{0}, seenB{0}, churned{0};
    a.addListener([&] { ++seenA; }, Attribute::CHANGE_ROLE);
    b.addListener([&] { ++seenB; }, Attribute::CHANGE_ROLE);
    std::atomic<bool> done{false};

    auto setter = [rounds](IntAttr &attr) {
        for (int i = 1; i <= rounds; ++i)
            attr.setValue(i, i % 2 ? Attribute::LAYER_USER : Attribute::LAYER_CURRENT);
    };
    std::thread t1(setter, std::ref(a));
    std::thread t2(setter, std::ref(b));
    std::thread t3([&] {
        while (!done.load()) {
            const long ia = a.addListener([&] { ++churned; }, Attribute::CHANGE_ROLE);
            const long ib = b.addListener([&] { ++churned; }, Attribute::CHANGE_ROLE);
            (void)a.value();
            a.removeListener(ia);
            b.removeListener(ib);
        }
    });
    t1.join();
    t2.join();
    done = true;
    t3.join();
    EXPECT_EQ(seenA.load(), rounds);
    EXPECT_EQ(seenB.load(), rounds);
    EXPECT_EQ(a.value(), rounds);
    EXPECT_EQ(b.value(), rounds);
}

struct SchemaCase { const char *name; Attribute *(*make)(); const char *schema; };

template <typename T>
Attribute *makeAttr() { return new Tamarack::AttributeT<T>(); }

const SchemaCase s_schemaCases[] = {
    {"Bool", makeAttr<bool>, "bool"},
    {"Color", makeAttr<Kestrel::Color>, "Kestrel::Color"},
    {"ColorPMA", makeAttr<Kestrel::ColorPMA>, "color"},
    {"Float", makeAttr<float>, "float"},
    {"Double", makeAttr<double>, "double"},
    {"Int", makeAttr<int>, "int"},
    {"UInt", makeAttr<unsigned int>, "unsigned int"},
    {"Long", makeAttr<long>, "long"},
    {"ULong", makeAttr<unsigned long>, "unsigned long"},
    {"Recti", makeAttr<Wisket::Recti>, "rect:int"},
    {"Rectf", makeAttr<Wisket::Rectf>, "rect:float"},
    {"Rectd", makeAttr<Wisket::Rectd>, "rect:double"},
    {"Vector2i", makeAttr<Wisket::Vector2i>, "vector2:int"},
    {"Vector2f", makeAttr<Wisket::Vector2f>, "vector2:float"},
    {"Vector3i", makeAttr<Wisket::Vector3i>, "vector3:int"},
    {"Vector3f", makeAttr<Wisket::Vector3f>, "vector3:float"},
    {"Vector4i", makeAttr<Wisket::Vector4i>, "vector4:int"},
    {"Vector4f", makeAttr<Wisket::Vector4f>, "vector4:float"},
    {"Matrix2f", makeAttr<Wisket::Matrix2f>, "matrix2x2:float"},
    {"Matrix3f", makeAttr<Wisket::Matrix3f>, "matrix3x3:float"},
    {"Matrix4f", makeAttr<Wisket::Matrix4f>, "matrix4x4:float"},
    {"TimeStamp", makeAttr<Kestrel::TimeStamp>, "timestamp"},
    {"SizeF", makeAttr<Wisket::SizeF>, "size2:float"},
    {"SizeI", makeAttr<Wisket::SizeI>, "size2:int"},
};

class Schema : public ::testing::TestWithParam<SchemaCase> {};

TEST_P(Schema, TypeGivesTheSchemaText)
{
    std::unique_ptr<Attribute> attr(GetParam().make());
    EXPECT_EQ(attr->type(), QByteArray(GetParam().schema));
}

INSTANTIATE_TEST_SUITE_P(ValueTypes, Schema, ::testing::ValuesIn(s_schemaCases),
                         [](const auto &i) { return std::string(i.param.name); });

TEST(TextViews, ColoursAndNumbers)
{
    Tamarack::AttributeT<Kestrel::Color> color(nullptr, "c", Kestrel::Color(1, 0, 0.5f, 0.25f));
    Tamarack::AttributeT<Kestrel::ColorPMA> pma(nullptr, "p", Kestrel::ColorPMA(0, 1, 0, 1));
    EXPECT_EQ(color.asString(), QStringLiteral("rgba(255, 0, 127.5, 0.25)"));
    EXPECT_EQ(pma.asString(), QStringLiteral("rgba_pma(0, 255, 0, 1)"));

    Tamarack::AttributeT<float> f(nullptr, "f", 2.75f);
    bool ok = false;
    EXPECT_EQ(f.asInt(&ok), 2);
    EXPECT_TRUE(ok);
    EXPECT_TRUE(f.set(QStringLiteral("1.5")));
    EXPECT_FALSE(f.set(QStringLiteral("1.5x")));
    EXPECT_EQ(f.value(), 1.5f);
    EXPECT_FALSE(f.set(Wisket::Vector2f(1, 2))); // no vector view on a float

    Tamarack::AttributeT<Wisket::Vector3f> v;
    EXPECT_TRUE(v.set(Wisket::Vector3f(1, 2, 3)));
    EXPECT_EQ(v.value(), Wisket::Vector3f(1, 2, 3));
    v.asFloat(&ok);
    EXPECT_FALSE(ok);
}
