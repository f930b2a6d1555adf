// Two trees in one process, each under its own session, joined back to back, driven by host updates.
#include "SyncTestUtil.h"

#include "loomy/bundle/BundleWriter.h"
#include "loomy/bundle/LocalConnection.h"
#include "kestrel/BinaryData.h"
#include "kestrel/MemGrid8u.h"
#include "tamarack/AttributeAsset.h"
#include "tamarack/AttributeContainer.h"
#include "tamarack/AttributeEnum.h"
#include "tamarack/AttributeGrid.h"
#include "tamarack/AttributeLocation2f.h"
#include "tamarack/AttributeSpline.h"

#include <cmath>
#include <functional>
#include <utility>

using Loomy::RemoteNode;
using Tamarack::Attribute;
using Tamarack::Node;
using FloatAttr = Tamarack::AttributeT<float>;
using Crossed = std::pair<int, int>; // bundles of one type sent to the right, to the left

namespace {

QByteArray hexOf(const Kestrel::BinaryData &data) { return QByteArray(data.data(), int(data.total())).toHex(); }

// Notes every event it receives from the other side, as "name:payload in hex".
class RecordingNode : public RemoteNode
{
public:
    using RemoteNode::RemoteNode;
    void eventProcess(const QByteArray &name, Kestrel::BinaryData &data) override
    {
        if (handlingRemoteEvent(name, data))
            received << name + ':' + hexOf(data);
        RemoteNode::eventProcess(name, data);
    }
    QList<QByteArray> received;
};

class TwoTreesSyncTest : public ::testing::Test
{
protected:
    ~TwoTreesSyncTest() override
    {
        sessions = Loomy::LocalSessionPair();
        frames(1); // lets the loop prune the flagged cores while both trees still stand
        const QStringList problems = trace.lines(Kestrel::Trace::Level::Warning) + trace.lines(Kestrel::Trace::Level::Error);
        EXPECT_TRUE(problems.isEmpty()) << problems.join('\n').toStdString();
    }
    void join(bool createMissing = true, bool dropStale = false)
    {
        Loomy::BundleControllerParams params;
        params.createMissingAttributes = createMissing;
        params.dropStaleChanges = dropStale;
        sessions = Loomy::connectLocally(left, params, right, params);
        sessions.toSecond->setObserver([this](const std::vector<Loomy::Bundle> &b) { toRight.insert(toRight.end(), b.begin(), b.end()); });
        sessions.toFirst->setObserver([this](const std::vector<Loomy::Bundle> &b) { toLeft.insert(toLeft.end(), b.begin(), b.end()); });
    }
    // One host update is one pass over both sessions; what one side sends in a pass is applied by
    // the other in the next. settle() passes enough for an announcement and its answer to cross,
    // and counts the traffic afresh.
    static void frames(int count) { while (count-- > 0) Node::runHostUpdate(); }
    void settle() { toRight.clear(); toLeft.clear(); frames(4); }
    Crossed crossed(quint32 type) const
    {
        const Types r = typesOf(toRight), l = typesOf(toLeft);
        return {int(std::count(r.begin(), r.end(), type)), int(std::count(l.begin(), l.end(), type))};
    }
    static float value(Node &side, const QByteArray &path) { auto *a = dynamic_cast<FloatAttr *>(at(side, path)); return a ? a->value() : NAN; }
    static void set(Node &side, const QByteArray &path, float v) { static_cast<FloatAttr *>(at(side, path))->setValue(v); }
    std::pair<float, float> values(const QByteArray &path) { return {value(left, path), value(right, path)}; }

    TraceCapture trace;
    std::vector<Loomy::Bundle> toRight, toLeft;
    Node leftApp, rightApp;
    RecordingNode &left = *new RecordingNode(&leftApp, "left");
    RecordingNode &right = *new RecordingNode(&rightApp, "right");
    Loomy::LocalSessionPair sessions;
};

// typeId: what the receiving side reports for its copy.
struct TypeCase { const char *name; unsigned typeId; std::function<void(Node *host, const QByteArray &name)> make; };
template <typename T>
std::function<void(Node *, const QByteArray &)> plain(T value)
{
    return [value](Node *host, const QByteArray &name) { new Tamarack::AttributeT<T>(host, name, value); };
}
template <typename C>
std::function<void(Node *, const QByteArray &)> container(C value)
{
    return [value](Node *host, const QByteArray &name) { (new Tamarack::AttributeContainer<C>(host, name))->set(value); };
}
Kestrel::MemGrid8u grid3x2()
{
    Kestrel::MemGrid8u grid(3, 2);
    for (unsigned i = 0; i < 6; ++i)
        grid.data()[i] = static_cast<unsigned char>(10 + i);
    return grid;
}
const TypeCase s_typeCases[] = {
    {"Bool", 1, plain(true)}, {"Float", 3, plain(1.25f)}, {"Double", 4, plain(-2.5e100)}, {"Int", 9, plain(-77)},
    {"Color", 2, plain(Kestrel::Color(0.1f, 0.2f, 0.3f, 0.4f))}, {"ColorPma", 48, plain(Kestrel::ColorPMA(0.5f, 0.25f, 0.125f, 0.5f))},
    {"UnsignedInt", 10, plain(4000000000u)}, {"Long", 11, plain(-9000000000L)}, {"UnsignedLong", 12, plain(18000000000UL)},
    {"RectInt", 13, plain(Wisket::Recti(1, 2, 3, 4))}, {"RectFloat", 14, plain(Wisket::Rectf(1.5f, 2.5f, 3.5f, 4.5f))},
    {"RectDouble", 15, plain(Wisket::Rectd(-1, -2, 3, 4))}, {"Vector2Int", 16, plain(Wisket::Vector2i(-1, 2))},
    {"Vector2Float", 17, plain(Wisket::Vector2f(0.5f, -0.5f))}, {"Vector3Int", 19, plain(Wisket::Vector3i(1, 2, 3))},
    {"Vector3Float", 20, plain(Wisket::Vector3f(1.f, 2.f, 3.f))}, {"Vector4Int", 22, plain(Wisket::Vector4i(1, -2, 3, -4))},
    {"Vector4Float", 23, plain(Wisket::Vector4f(4.f, 3.f, 2.f, 1.f))}, {"SizeFloat", 50, plain(Wisket::SizeF(640.f, 480.f))},
    {"SizeInt", 52, plain(Wisket::SizeI(1920, 1080))}, {"Matrix2", 26, plain(Wisket::Matrix2f{1, 2, 3, 4})},
    {"Matrix3", 29, plain(Wisket::Matrix3f{1, 2, 3, 4, 5, 6, 7, 8, 9})},
    {"Matrix4", 32, plain(Wisket::Matrix4f{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16})},
    {"TimeStamp", 34, plain(Kestrel::TimeStamp(123456789012LL))}, {"Text", 35, plain(QString::fromUtf8("gr\xc3\xbc\xc3\x9f" "e"))},
    {"StringList", 36, plain(QStringList{"a", "bc", ""})}, {"FloatList", 40, container(std::vector<float>{1.f, 2.f, 3.f})},
    {"Vector2List", 41, container(std::vector<Wisket::Vector2f>{{1.f, 2.f}, {3.f, 4.f}})}, {"IntList", 42, container(std::vector<int>{-1, 0, 1})},
    {"UnsignedList", 43, container(std::vector<unsigned int>{7u, 8u})}, {"TextList", 44, container(std::vector<QString>{"one", "", "three"})},
    {"Location", 49, [](Node *host, const QByteArray &name) { new Tamarack::AttributeLocation2f(host, name, {3.f, 7.f}); }},
    {"Asset", 51, [](Node *host, const QByteArray &name) { new Tamarack::AttributeAsset(host, name, "/pics/a.png"); }},
    {"Grid", 45, [](Node *host, const QByteArray &name) { (new Tamarack::AttributeGrid<unsigned char>(host, name))->setGrid(grid3x2()); }},
    {"Spline", 46, [](Node *host, const QByteArray &name) { (new Tamarack::AttributeSpline(host, name))->setPoints({{0.f, 0.f}, {0.5f, 1.f}, {1.f, 0.25f}}); }},
    // An enum arrives as a plain int: its names don't travel.
    {"Enum", 9, [](Node *host, const QByteArray &name) { new Tamarack::AttributeEnum(host, name, 3, {"a", "b", "c", "d"}); }},
};

// The value as a registry writes it, with the type id it reports; nothing without an attribute.
QByteArray wireValue(Attribute *attribute, unsigned &typeId)
{
    static const Loomy::TypeRegistry registry;
    unsigned size = 0;
    QByteArray bytes;
    Loomy::BundleWriterCore writer(bytes);
    if (const Loomy::Serializer serializer = attribute ? registry.createSerializer(attribute, typeId, size) : nullptr)
        serializer(writer);
    return bytes;
}

TEST_F(TwoTreesSyncTest, WholeInitialStateArrivesWithEveryTypeId)
{
    auto *types = new Node(&left, "types");
    for (const TypeCase &c : s_typeCases)
        c.make(types, c.name);
    join();
    settle();
    for (const TypeCase &c : s_typeCases) {
        SCOPED_TRACE(c.name);
        unsigned myId = 0, theirId = 0;
        const QByteArray mine = wireValue(at(left, QByteArray("types/") + c.name), myId);
        ASSERT_FALSE(mine.isEmpty());
        EXPECT_EQ(hex(wireValue(at(right, QByteArray("types/") + c.name), theirId)), hex(mine));
        EXPECT_EQ(theirId, c.typeId);
    }
}

// Removal of an attribute made for the peer (initial or later) removes it there; removal of one the
// peer owns leaves it, and its changes are no longer exchanged.
TEST_F(TwoTreesSyncTest, RemovalReachesThePeerOnlyForAttributesMadeForIt)
{
    new FloatAttr(&left, "both", 1.f);
    new FloatAttr(&right, "both", 1.f);
    new FloatAttr(&left, "early", 1.f);
    join();
    settle();
    new FloatAttr(&left, "made", 1.f);
    settle();
    ASSERT_NE(at(right, "made"), nullptr);
    const unsigned long long received = sessions.second->stats().changesReceived;
    for (const char *path : {"made", "early", "both"})
        delete at(left, path);
    settle();
    EXPECT_EQ(sessions.second->stats().changesReceived, received + 2);   // "both" stays on the right
    EXPECT_EQ(at(right, "made"), nullptr);
    EXPECT_EQ(at(right, "early"), nullptr);
    EXPECT_NE(at(right, "both"), nullptr);
    EXPECT_EQ(crossed(RemoveType), Crossed(1, 0));
    set(right, "both", 4.f);
    settle();
    EXPECT_EQ(crossed(UpdateType), Crossed(0, 0));
    EXPECT_EQ(at(left, "both"), nullptr);
}

// Attributes named "id" stay local. With createMissingAttributes off only shared paths travel.
TEST_F(TwoTreesSyncTest, IdAttributesStayLocalAndWithoutCreatingOnlySharedPathsTravel)
{
    for (const char *path : {"id", "shared", "onlyLeft"})
        left.addDeepAttribute(path, new FloatAttr(nullptr, "", 1.f));
    new FloatAttr(&right, "id", 9.f);
    new FloatAttr(&right, "shared", 1.f);
    join(false);
    settle();
    set(left, "id", 5.f);
    set(left, "shared", 6.f);
    settle();
    EXPECT_EQ(value(right, "id"), 9.f);
    EXPECT_EQ(value(right, "shared"), 6.f);
    EXPECT_EQ(at(right, "onlyLeft"), nullptr);
    set(right, "id", 8.f);
    settle();
    EXPECT_EQ(value(left, "id"), 5.f);
}

// A value or an event goes over once and never comes back; each side's listeners hear a received
// value once; "initialized" arrives once; a sliced event arrives whole.
TEST_F(TwoTreesSyncTest, ChangesAndEventsFlowBothWaysWithoutEcho)
{
    int initializedOnRight = 0;
    right.eventAddListener("initialized", [&initializedOnRight] { ++initializedOnRight; });
    new FloatAttr(&left, "x", 1.f);
    join();
    settle();
    EXPECT_EQ(value(right, "x"), 1.f);
    EXPECT_FALSE(at(right, "x")->isValueDefinedOnLayer(Attribute::LAYER_USER)); // made with the peer's value as default
    int heardOnRight = 0;
    at(right, "x")->addListener([&heardOnRight] { ++heardOnRight; }, Attribute::CHANGE_ROLE);
    set(left, "x", 2.f);
    settle();
    EXPECT_EQ(value(right, "x"), 2.f);
    EXPECT_EQ(heardOnRight, 1);
    EXPECT_EQ(crossed(UpdateType), Crossed(1, 0));
    set(right, "x", 3.f);
    settle();
    EXPECT_EQ(value(left, "x"), 3.f);
    EXPECT_EQ(crossed(UpdateType), Crossed(0, 1));
    Kestrel::BinaryData small, empty, big;
    small.writeBlob("hello", 5);
    big.writeBlob("0123456789", 10);
    left.eventProcess("greet", small);
    left.eventProcess("nudge", empty);
    left.eventProcessSlice("large", big, 4);
    settle();
    EXPECT_EQ(right.received, (QList<QByteArray>{"greet:" + hexOf(small), "nudge:", "large:" + hexOf(big)}));
    EXPECT_TRUE(left.received.isEmpty());
    EXPECT_EQ(crossed(EventType), Crossed(1, 0));
    EXPECT_EQ(initializedOnRight, 1);
}

// Two values written in one frame cross: with dropStaleChanges each side keeps its own, without it
// they swap. Once the crossing is acknowledged, the next change on one side reaches the other.
// The sessions' figures count the drops, and one change sent and applied once.
struct CrossCase { const char *name; bool dropStaleChanges; float leftAfter, rightAfter; unsigned long long dropped; };
const CrossCase s_crossCases[] = {{"DropStaleChangesDropsBoth", true, 1.f, 2.f, 1}, {"WithoutTheRuleTheySwap", false, 2.f, 1.f, 0}};
class CrossingValues : public TwoTreesSyncTest, public ::testing::WithParamInterface<CrossCase> {};
TEST_P(CrossingValues, TwoValuesWrittenInOneFrame)
{
    new FloatAttr(&left, "x", 0.f);
    join(true, GetParam().dropStaleChanges);
    settle();
    set(left, "x", 1.f);
    set(right, "x", 2.f);
    settle();
    EXPECT_EQ(values("x"), std::make_pair(GetParam().leftAfter, GetParam().rightAfter));
    const Loomy::SessionStats leftBefore = sessions.first->stats(), rightBefore = sessions.second->stats();
    EXPECT_EQ(leftBefore.staleDropped, GetParam().dropped);
    EXPECT_EQ(rightBefore.staleDropped, GetParam().dropped);
    set(right, "x", 3.f);
    settle();
    EXPECT_EQ(values("x"), std::make_pair(3.f, 3.f));
    EXPECT_EQ(sessions.second->stats().changesSent, rightBefore.changesSent + 1);
    EXPECT_EQ(sessions.first->stats().changesReceived, leftBefore.changesReceived + 1);
    EXPECT_EQ(sessions.first->stats().staleDropped, GetParam().dropped);
}
INSTANTIATE_TEST_SUITE_P(Rule, CrossingValues, ::testing::ValuesIn(s_crossCases), [](const auto &i) { return std::string(i.param.name); });

} // namespace
