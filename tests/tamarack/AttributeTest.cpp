#include "TamarackTestUtil.h"

#include <utility>

constexpr Attribute::Layer DEF = Attribute::LAYER_DEFAULT, L1 = Attribute::LAYER_1,
                           USER = Attribute::LAYER_USER, L3 = Attribute::LAYER_3, L4 = Attribute::LAYER_4,
                           CUR = Attribute::LAYER_CURRENT;

// Each case sets values on layers in order over a default of 10, then clears one layer.
struct LayerCase
{
    const char *name;
    std::vector<std::pair<Attribute::Layer, int>> sets;
    Attribute::Layer cleared, layerAfter;
    int valueAfter;
    Ints emitted; // by the sets and the clear together
    bool changed;
};

const LayerCase s_layerCases[] = {
    {"EqualSetsAreSilentButRaiseTheLayer", {{USER, 5}, {USER, 5}, {L3, 5}}, CUR, USER, 5, {5}, true},
    {"SetBelowCurrentIsSilentUntilHigherLayersClear", {{L3, 7}, {USER, 9}}, L3, USER, 9, {7, 9}, true},
    {"SetOnDefaultAndAnEqualValueAboveAreNotChanges", {{DEF, 11}, {USER, 11}}, L4, USER, 11, {11}, false},
    {"ClearFallsBackToDefault", {{USER, 4}}, USER, DEF, 10, {4, 10}, false},
    {"ClearFallsBackToHighestDefinedBelow", {{L1, 3}, {USER, 4}}, USER, L1, 3, {3, 4, 3}, true},
    {"ClearSkipsUndefinedLayers", {{L1, 3}, {L4, 8}}, L4, L1, 3, {3, 8, 3}, true},
    {"ClearToAnEqualValueIsSilent", {{L1, 4}, {USER, 4}}, USER, L1, 4, {4}, true},
    {"ClearOfANonCurrentLayerOnlyClearsItsFlag", {{L1, 3}, {USER, 4}}, L1, USER, 4, {3, 4}, true},
    {"ClearOfCurrentClearsTheCurrentLayer", {{USER, 4}, {L3, 5}}, CUR, USER, 4, {4, 5, 4}, true},
    {"DefaultStaysDefined", {}, DEF, DEF, 10, {}, false},
};

class LayerRules : public ::testing::TestWithParam<LayerCase> {};

TEST_P(LayerRules, ValueLayerAndEmissions)
{
    const LayerCase &c = GetParam();
    IntAttr attr(nullptr, "a", 10);
    ValueLog<IntAttr> log(attr);
    for (const auto &set : c.sets)
        attr.setValue(set.second, set.first);
    attr.clearValue(c.cleared);
    EXPECT_EQ(attr.value(), c.valueAfter);
    EXPECT_EQ(attr.currentLayer(), c.layerAfter);
    EXPECT_EQ(log.seen, c.emitted);
    EXPECT_EQ(attr.isChanged(), c.changed);
    EXPECT_TRUE(attr.isValueDefinedOnLayer(DEF));
    if (c.cleared != DEF && c.cleared <= L4) {
        EXPECT_FALSE(attr.isValueDefinedOnLayer(c.cleared));
    }
}

INSTANTIATE_TEST_SUITE_P(Layers, LayerRules, ::testing::ValuesIn(s_layerCases),
                         [](const auto &i) { return std::string(i.param.name); });

TEST(Layers, SetAsDefaultsMovesOnlyAUserValueDownAndSilently)
{
    IntAttr attr(nullptr, "a", 10);
    ValueLog<IntAttr> log(attr);
    attr.setValue(6, L3);
    attr.setAsDefaults(); // no user value: nothing moves
    attr.clearValue(L3);
    attr.setValue(4, USER);
    attr.setAsDefaults();
    EXPECT_EQ(attr.value(DEF), 4);
    EXPECT_FALSE(attr.isValueDefinedOnLayer(USER));
    EXPECT_FALSE(attr.isChanged());
    EXPECT_EQ(log.seen, Ints({6, 10, 4}));
}

TEST(Layers, CopyValueFromLayerTakesCurrentLayerOrCurrentValue)
{
    IntAttr attr(nullptr, "a", 10);
    ValueLog<IntAttr> log(attr);
    attr.setValue(3, L1);
    attr.copyValueFromLayer(CUR, USER);
    EXPECT_EQ(attr.value(USER), 3);
    attr.setValue(8, L3);
    attr.copyValueFromLayer(Attribute::LAYER_CURRENT_VALUE, L4);
    EXPECT_EQ(attr.currentLayer(), L4);
    EXPECT_EQ(attr.value(L4), 8);
    attr.copyValueFromLayer(DEF, L1); // below: stored only
    EXPECT_EQ(attr.value(L1), 10);
    EXPECT_EQ(log.seen, Ints({3, 8}));
}

TEST(LayerForSerialization, PicksTheHighestAllowedDefinedLayer)
{
    IntAttr attr(nullptr, "a", 0);
    attr.setValue(1, L1);
    attr.setValue(2, USER);
    const struct { unsigned options; bool found; Attribute::Layer layer; } cases[] = {
        {0xF, true, USER}, // LAYER_3 allowed but undefined
        {0x8, false, L4}, {0x3, true, L1}, {0x1, true, DEF}, {0x0, false, L4},
    };
    for (const auto &c : cases) {
        Attribute::Layer layer = L4;
        EXPECT_EQ(attr.layerForSerialization(c.options, layer), c.found) << c.options;
        EXPECT_EQ(layer, c.layer) << c.options;
    }
}

// Listener 2 removes itself, listener 1 removes the later listener 3 and, once, adds listener 5.
TEST(Listeners, RemovalsAndAdditionsFromInsideAnEmission)
{
    IntAttr attr(nullptr, "a", 0);
    Ints calls;
    long self = 0, later = 0;
    bool added = false;
    attr.addListener([&] {
        calls.push_back(1);
        attr.removeListener(later);
        if (!std::exchange(added, true))
            attr.addListener([&] { calls.push_back(5); }, Attribute::CHANGE_ROLE);
    }, Attribute::CHANGE_ROLE);
    self = attr.addListener([&] { calls.push_back(2); attr.removeListener(self); }, Attribute::CHANGE_ROLE);
    later = attr.addListener([&] { calls.push_back(3); }, Attribute::CHANGE_ROLE);
    attr.addListener([&] { calls.push_back(4); }, Attribute::CHANGE_ROLE);
    attr.setValue(1);
    attr.setValue(2);
    EXPECT_EQ(calls, Ints({1, 2, 4, 1, 4, 5}));
}

// Records the cookies it is called with, into a shared log of calls.
struct LoggingObserver : Tamarack::ChangeObserver
{
    explicit LoggingObserver(Ints &log_) : log(log_) {}
    void attributeChanged(unsigned cookie) override { log.push_back(int(cookie)); }
    Ints &log;
};

// The observer ranks as the first listener: before those added later, refused where a listener
// came first; a replace needs the attached observer and its cookie.
TEST(Observer, RanksFirstAndTakesOnlyAnAttributeWithoutListeners)
{
    Ints calls;
    LoggingObserver first(calls), second(calls);
    IntAttr attr(nullptr, "a", 0), listened(nullptr, "b", 0);
    ASSERT_TRUE(attr.attachObserver(&first, 7));
    EXPECT_FALSE(attr.attachObserver(&second, 8));
    attr.addListener([&] { calls.push_back(1); }, Attribute::CHANGE_ROLE);
    attr.addListener([&] { calls.push_back(2); }, Attribute::DELETE_ROLE);
    attr.setValue(1);
    EXPECT_FALSE(attr.replaceObserver(&first, 8, &second));
    EXPECT_FALSE(attr.replaceObserver(&second, 7, &first));
    EXPECT_TRUE(attr.replaceObserver(&first, 7, &second));
    attr.setValue(2);
    EXPECT_FALSE(attr.detachObserver(&first));
    EXPECT_TRUE(attr.detachObserver(&second));
    attr.setValue(3);
    EXPECT_EQ(calls, Ints({7, 1, 7, 1, 1}));
    listened.removeListener(listened.addListener([] {}, Attribute::CHANGE_ROLE));
    EXPECT_FALSE(listened.attachObserver(&first, 9));
}

// Each attribute reads the item of its value's shape; one that meets another item keeps its value
// and leaves the position for the next reader.
TEST(EventProcess, EachValueTypeReadsItsItemOntoTheUserLayer)
{
    Kestrel::BinaryData data;
    const Wisket::Rectd rect(1, 2, 3, 4);
    data.writeString("hello");
    data.writeVector4Float32(Wisket::Vector4f(1, 0, 0.5f, 1));
    data.writeBlob(&rect, sizeof rect);
    data.writeVector2Int32(Wisket::Vector2i(-3, 7));
    data.writeInt32(42);
    data.rewind();
    IntAttr number(nullptr, "n", 1);
    number.setValue(5, L3);
    ValueLog<IntAttr> log(number);
    Tamarack::AttributeT<QString> text;
    Tamarack::AttributeT<Kestrel::Color> color;
    Tamarack::AttributeT<Wisket::Rectd> rectd;
    Tamarack::AttributeT<Wisket::Recti> recti; // wants four ints
    Tamarack::AttributeT<Wisket::Vector2i> pair;
    for (Attribute *attr : std::initializer_list<Attribute *>{&number, &text, &color, &rectd, &recti, &pair})
        attr->eventProcess("x", data);
    EXPECT_FALSE(number.isValueDefinedOnLayer(USER)); // it met the string
    number.eventProcess("x", data);
    EXPECT_EQ(text.value(), QStringLiteral("hello"));
    EXPECT_EQ(color.value(), Kestrel::Color(1, 0, 0.5f, 1));
    EXPECT_EQ(rectd.value(), rect);
    EXPECT_EQ(recti.value(), Wisket::Recti());
    EXPECT_EQ(pair.value(), Wisket::Vector2i(-3, 7));
    EXPECT_EQ(number.value(USER), 42);
    EXPECT_TRUE(log.seen.empty()); // LAYER_3 still wins
    EXPECT_EQ(data.pos(), data.total());
}

// Two threads change their attributes while a third adds and removes listeners on both: every
// change must reach the permanent listener exactly once.
TEST(Concurrency, ChangesAndListenerChurnFromThreeThreads)
{
    constexpr int rounds = 20000;
    IntAttr a(nullptr, "a", 0), b(nullptr, "b", 0);
    ChangeCount seenA(a), seenB(b);
    std::atomic<bool> done{false};
    auto setter = [](IntAttr &attr) {
        for (int i = 1; i <= rounds; ++i)
            attr.setValue(i, i % 2 ? USER : CUR);
    };
    std::thread t1(setter, std::ref(a)), t2(setter, std::ref(b));
    std::thread t3([&] {
        while (!done.load())
            for (IntAttr *attr : {&a, &b})
                attr->removeListener(attr->addListener([] {}, Attribute::CHANGE_ROLE));
    });
    t1.join();
    t2.join();
    done = true;
    t3.join();
    EXPECT_EQ(Ints({seenA.n, seenB.n, a.value(), b.value()}), Ints(4, rounds));
}

template <typename T>
QByteArray typeOf() { return Tamarack::AttributeT<T>().type(); }

TEST(Schema, EachValueTypeGivesItsText)
{
    using namespace Wisket;
    const std::pair<QByteArray, const char *> cases[] = {
        {typeOf<bool>(), "bool"}, {typeOf<Kestrel::Color>(), "Kestrel::Color"}, {typeOf<Kestrel::ColorPMA>(), "color"},
        {typeOf<float>(), "float"}, {typeOf<double>(), "double"}, {typeOf<int>(), "int"}, {typeOf<long>(), "long"},
        {typeOf<unsigned int>(), "unsigned int"}, {typeOf<unsigned long>(), "unsigned long"},
        {typeOf<Kestrel::TimeStamp>(), "timestamp"}, {typeOf<SizeF>(), "size2:float"}, {typeOf<SizeI>(), "size2:int"},
        {typeOf<Recti>(), "rect:int"}, {typeOf<Rectf>(), "rect:float"}, {typeOf<Rectd>(), "rect:double"},
        {typeOf<Vector2i>(), "vector2:int"}, {typeOf<Vector3i>(), "vector3:int"}, {typeOf<Vector4i>(), "vector4:int"},
        {typeOf<Vector2f>(), "vector2:float"}, {typeOf<Vector3f>(), "vector3:float"},
        {typeOf<Vector4f>(), "vector4:float"}, {typeOf<Matrix2f>(), "matrix2x2:float"},
        {typeOf<Matrix3f>(), "matrix3x3:float"}, {typeOf<Matrix4f>(), "matrix4x4:float"},
    };
    for (const auto &c : cases)
        EXPECT_EQ(c.first, QByteArray(c.second));
}

TEST(TextViews, NumbersParseStrictlyAndMissingViewsSayNo)
{
    Tamarack::AttributeT<float> f(nullptr, "f", 2.75f);
    bool ok = false;
    EXPECT_EQ(f.asInt(&ok), 2);
    EXPECT_TRUE(ok);
    EXPECT_TRUE(f.set(QStringLiteral("1.5")));
    EXPECT_FALSE(f.set(QStringLiteral("1.5x")));
    EXPECT_FALSE(f.set(Wisket::Vector2f(1, 2)));
    EXPECT_EQ(f.value(), 1.5f);
    Tamarack::AttributeT<Wisket::Vector3f>().asFloat(&ok);
    EXPECT_FALSE(ok);
}
