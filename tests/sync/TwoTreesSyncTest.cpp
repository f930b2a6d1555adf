// Two trees in one process, each under its own session, joined back to back and driven frame by
// frame through the host update.
#include "common/TraceCapture.h"
#include "loomy/bundle/Bundle.h"
#include "loomy/bundle/BundleWriter.h"
#include "loomy/bundle/LocalConnection.h"
#include "loomy/sync/RemoteNode.h"
#include "loomy/types/TypeRegistry.h"
#include "kestrel/BinaryData.h"
#include "kestrel/MemGrid8u.h"
#include "tamarack/AttributeAsset.h"
#include "tamarack/AttributeContainer.h"
#include "tamarack/AttributeEnum.h"
#include "tamarack/AttributeGrid.h"
#include "tamarack/AttributeLocation2f.h"
#include "tamarack/AttributeSpline.h"
#include "tamarack/AttributeT.h"

#include <QStringList>

#include <gtest/gtest.h>

#include <functional>
#include <ostream>
#include <string>
#include <vector>

using Loomy::RemoteNode;
using Tamarack::Attribute;
using Tamarack::Node;

namespace {

// Table rows print as their name.
template <typename Case>
auto operator<<(std::ostream &os, const Case &row) -> decltype(std::string(row.name), os)
{
    return os << row.name;
}

// Outgoing message types of a session: the symbol bundle's, then new, update, remove and event,
// in the order the session registers them.
enum : quint32 { NewType = 2, UpdateType = 3, RemoveType = 4, EventType = 5 };

using FloatAttr = Tamarack::AttributeT<float>;

// A node that notes every event it receives from the other side, as "name:payload in hex".
class RecordingNode : public RemoteNode
{
public:
    using RemoteNode::RemoteNode;

    void eventProcess(const QByteArray &name, Kestrel::BinaryData &data) override
    {
        if (handlingRemoteEvent(name, data))
            received << name + ':' + QByteArray(data.data(), int(data.total())).toHex();
        RemoteNode::eventProcess(name, data);
    }

    QList<QByteArray> received;
};

// The attribute at a path below node, or null.
Attribute *at(Node &node, const QByteArray &path)
{
    Attribute *current = &node;
    for (const QByteArray &piece : path.split('/')) {
        current = current ? current->attribute(piece) : nullptr;
    }
    return current;
}

float floatAt(Node &node, const QByteArray &path)
{
    auto *attribute = dynamic_cast<FloatAttr *>(at(node, path));
    EXPECT_NE(attribute, nullptr) << path.constData();
    return attribute ? attribute->value() : -1.f;
}

class TwoTreesSyncTest : public ::testing::Test
{
protected:
    ~TwoTreesSyncTest() override
    {
        sessions = Loomy::LocalSessionPair();
        // Lets the loop prune the flagged cores while both trees still stand.
        frames(1);
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

    // One host update is one pass over both sessions; what one side sends in a pass is applied
    // by the other in the next.
    static void frames(int count)
    {
        for (int i = 0; i < count; ++i)
            Tamarack::Node::runHostUpdate();
    }

    // Enough passes for an announcement and its answer to have crossed.
    void settle()
    {
        frames(4);
    }

    void clearTraffic()
    {
        toRight.clear();
        toLeft.clear();
    }

    static int count(const std::vector<Loomy::Bundle> &bundles, quint32 type)
    {
        int n = 0;
        for (const Loomy::Bundle &bundle : bundles)
            n += bundle.messageType() == type ? 1 : 0;
        return n;
    }

    QStringList problems() const
    {
        return trace.lines(Kestrel::Trace::Level::Warning) + trace.lines(Kestrel::Trace::Level::Error);
    }

    TraceCapture trace;
    std::vector<Loomy::Bundle> toRight;
    std::vector<Loomy::Bundle> toLeft;
    Node leftApp;
    Node rightApp;
    RecordingNode &left = *new RecordingNode(&leftApp, "left");
    RecordingNode &right = *new RecordingNode(&rightApp, "right");
    Loomy::LocalSessionPair sessions;
};

// --- the whole initial state, every type id ---

struct TypeCase
{
    const char *name;
    unsigned typeId;          // what the receiving side reports for its copy
    std::function<void(Node *host, const QByteArray &name)> make;
};

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

const TypeCase s_typeCases[] = {
    {"Bool", 1, plain(true)},
    {"Color", 2, plain(Kestrel::Color(0.1f, 0.2f, 0.3f, 0.4f))},
    {"ColorPma", 48, plain(Kestrel::ColorPMA(0.5f, 0.25f, 0.125f, 0.5f))},
    {"Float", 3, plain(1.25f)},
    {"Double", 4, plain(-2.5e100)},
    {"UnsignedInt", 10, plain(4000000000u)},
    {"Long", 11, plain(-9000000000L)},
    {"UnsignedLong", 12, plain(18000000000UL)},
    {"RectInt", 13, plain(Wisket::Recti(1, 2, 3, 4))},
    {"RectFloat", 14, plain(Wisket::Rectf(1.5f, 2.5f, 3.5f, 4.5f))},
    {"RectDouble", 15, plain(Wisket::Rectd(-1, -2, 3, 4))},
    {"Vector2Int", 16, plain(Wisket::Vector2i(-1, 2))},
    {"Vector2Float", 17, plain(Wisket::Vector2f(0.5f, -0.5f))},
    {"Vector3Int", 19, plain(Wisket::Vector3i(1, 2, 3))},
    {"Vector3Float", 20, plain(Wisket::Vector3f(1.f, 2.f, 3.f))},
    {"Vector4Int", 22, plain(Wisket::Vector4i(1, -2, 3, -4))},
    {"Vector4Float", 23, plain(Wisket::Vector4f(4.f, 3.f, 2.f, 1.f))},
    {"SizeFloat", 50, plain(Wisket::SizeF(640.f, 480.f))},
    {"SizeInt", 52, plain(Wisket::SizeI(1920, 1080))},
    {"Location", 49, [](Node *host, const QByteArray &name) { new Tamarack::AttributeLocation2f(host, name, {3.f, 7.f}); }},
    {"Matrix2", 26, plain(Wisket::Matrix2f{1, 2, 3, 4})},
    {"Matrix3", 29, plain(Wisket::Matrix3f{1, 2, 3, 4, 5, 6, 7, 8, 9})},
    {"Matrix4", 32, plain(Wisket::Matrix4f{1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16})},
    {"TimeStamp", 34, plain(Kestrel::TimeStamp(123456789012LL))},
    {"FloatList", 40, container(std::vector<float>{1.f, 2.f, 3.f})},
    {"Vector2List", 41, container(std::vector<Wisket::Vector2f>{{1.f, 2.f}, {3.f, 4.f}})},
    {"IntList", 42, container(std::vector<int>{-1, 0, 1})},
    {"UnsignedList", 43, container(std::vector<unsigned int>{7u, 8u})},
    {"TextList", 44, container(std::vector<QString>{"one", "", "three"})},
    {"Text", 35, plain(QString::fromUtf8("gr\xc3\xbc\xc3\x9f" "e"))},
    {"Asset", 51, [](Node *host, const QByteArray &name) { new Tamarack::AttributeAsset(host, name, "/pics/a.png"); }},
    {"StringList", 36, plain(QStringList{"a", "bc", ""})},
    {"Grid", 45,
     [](Node *host, const QByteArray &name) {
         Kestrel::MemGrid8u grid(3, 2);
         for (unsigned i = 0; i < 6; ++i)
             grid.data()[i] = static_cast<unsigned char>(10 + i);
         (new Tamarack::AttributeGrid<unsigned char>(host, name))->setGrid(grid);
     }},
    {"Spline", 46,
     [](Node *host, const QByteArray &name) {
         (new Tamarack::AttributeSpline(host, name))->setPoints({{0.f, 0.f}, {0.5f, 1.f}, {1.f, 0.25f}});
     }},
    // An enum arrives as a plain int: its names don't travel.
    {"Enum", 9, [](Node *host, const QByteArray &name) { new Tamarack::AttributeEnum(host, name, 3, {"a", "b", "c", "d"}); }},
    {"Int", 9, plain(-77)},
};

// The value as the registry writes it, with the type id it reports.
QByteArray wireValue(Attribute *attribute, unsigned &typeId)
{
    static const Loomy::TypeRegistry registry;
    unsigned size = 0;
    typeId = 0;
    const Loomy::Serializer serializer = registry.createSerializer(attribute, typeId, size);
    QByteArray bytes;
    if (serializer) {
        Loomy::BundleWriterCore writer(bytes);
        serializer(writer);
    }
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
        const QByteArray path = QByteArray("types/") + c.name;
        Attribute *mine = at(left, path);
        Attribute *theirs = at(right, path);
        ASSERT_NE(theirs, nullptr) << c.name;
        unsigned myId = 0, theirId = 0;
        const QByteArray mineBytes = wireValue(mine, myId);
        const QByteArray theirBytes = wireValue(theirs, theirId);
        EXPECT_EQ(theirId, c.typeId) << c.name;
        EXPECT_FALSE(mineBytes.isEmpty()) << c.name;
        EXPECT_EQ(theirBytes.toHex(' ').toStdString(), mineBytes.toHex(' ').toStdString()) << c.name;
    }
    // The other side has nothing of its own: what comes back only names its numbers.
    EXPECT_EQ(count(toLeft, UpdateType), 0);
    EXPECT_TRUE(problems().isEmpty()) << problems().join('\n').toStdString();
}

// --- changes, echo, removal ---

TEST_F(TwoTreesSyncTest, ChangesFlowBothWaysWithoutEcho)
{
    new FloatAttr(&left, "x", 1.f);
    join();
    settle();
    ASSERT_EQ(floatAt(right, "x"), 1.f);
    int heardOnRight = 0;
    at(right, "x")->addListener([&heardOnRight] { ++heardOnRight; }, Attribute::CHANGE_ROLE);
    clearTraffic();

    static_cast<FloatAttr *>(at(left, "x"))->setValue(2.f);
    settle();
    EXPECT_EQ(floatAt(right, "x"), 2.f);
    EXPECT_EQ(heardOnRight, 1);
    EXPECT_EQ(count(toRight, UpdateType), 1);
    EXPECT_EQ(count(toLeft, UpdateType), 0);

    clearTraffic();
    static_cast<FloatAttr *>(at(right, "x"))->setValue(3.f);
    settle();
    EXPECT_EQ(floatAt(left, "x"), 3.f);
    EXPECT_EQ(count(toLeft, UpdateType), 1);
    EXPECT_EQ(count(toRight, UpdateType), 0);

    // Many changes within one frame leave as one value.
    clearTraffic();
    for (int i = 0; i < 100; ++i)
        static_cast<FloatAttr *>(at(left, "x"))->setValue(float(i));
    settle();
    EXPECT_EQ(floatAt(right, "x"), 99.f);
    EXPECT_EQ(count(toRight, UpdateType), 1);
    EXPECT_EQ(count(toLeft, UpdateType), 0);
    EXPECT_TRUE(problems().isEmpty()) << problems().join('\n').toStdString();
}

TEST_F(TwoTreesSyncTest, AdditionsAfterJoiningArriveAndAreAnsweredWithoutValue)
{
    join();
    settle();
    clearTraffic();

    auto *deep = new FloatAttr;
    ASSERT_TRUE(left.addDeepAttribute("a/b/late", deep));
    deep->setValue(5.f);
    settle();
    EXPECT_EQ(floatAt(right, "a/b/late"), 5.f);
    EXPECT_EQ(count(toRight, NewType), 1);
    EXPECT_EQ(count(toLeft, NewType), 1);
    EXPECT_EQ(count(toLeft, UpdateType), 0);
}

TEST_F(TwoTreesSyncTest, RemovalOfAnAttributeMadeForThePeerRemovesItThere)
{
    // One in the initial state, one added later.
    new FloatAttr(&left, "early", 1.f);
    join();
    settle();
    new FloatAttr(&left, "made", 1.f);
    new FloatAttr(&left, "kept", 1.f);
    settle();
    ASSERT_NE(at(right, "early"), nullptr);
    ASSERT_NE(at(right, "made"), nullptr);
    ASSERT_NE(at(right, "kept"), nullptr);
    clearTraffic();

    delete at(left, "made");
    delete at(left, "early");
    settle();
    EXPECT_EQ(at(right, "made"), nullptr);
    EXPECT_EQ(at(right, "early"), nullptr);
    EXPECT_EQ(count(toRight, RemoveType), 1);
    EXPECT_EQ(count(toLeft, RemoveType), 0);

    // The other way round: the copy made for the peer goes, the peer's own attribute stays.
    clearTraffic();
    delete at(right, "kept");
    settle();
    EXPECT_NE(at(left, "kept"), nullptr);
    EXPECT_EQ(count(toLeft, RemoveType), 1);
    EXPECT_EQ(count(toRight, RemoveType), 0);
    EXPECT_TRUE(problems().isEmpty()) << problems().join('\n').toStdString();
}

TEST_F(TwoTreesSyncTest, RemovalOfAnAttributeThePeerOwnsLeavesIt)
{
    new FloatAttr(&left, "both", 1.f);
    new FloatAttr(&right, "both", 1.f);
    join();
    settle();
    clearTraffic();

    delete at(left, "both");
    settle();
    ASSERT_NE(at(right, "both"), nullptr);
    // No longer exchanged: the right side's changes stay there.
    static_cast<FloatAttr *>(at(right, "both"))->setValue(4.f);
    settle();
    EXPECT_EQ(count(toLeft, UpdateType), 0);
    EXPECT_EQ(at(left, "both"), nullptr);
}

TEST_F(TwoTreesSyncTest, WithoutCreatingMissingAttributesOnlySharedPathsTravel)
{
    new FloatAttr(&left, "onlyLeft", 1.f);
    new FloatAttr(&left, "shared", 1.f);
    new FloatAttr(&right, "shared", 1.f);
    join(false);
    settle();

    EXPECT_EQ(at(right, "onlyLeft"), nullptr);
    static_cast<FloatAttr *>(at(left, "shared"))->setValue(6.f);
    static_cast<FloatAttr *>(at(left, "onlyLeft"))->setValue(6.f);
    settle();
    EXPECT_EQ(floatAt(right, "shared"), 6.f);
    EXPECT_EQ(at(right, "onlyLeft"), nullptr);
    EXPECT_TRUE(problems().isEmpty()) << problems().join('\n').toStdString();
}

TEST_F(TwoTreesSyncTest, IdAttributesStayLocal)
{
    new FloatAttr(&left, "id", 1.f);
    new FloatAttr(&left, "id2", 2.f);
    auto *deepId = new FloatAttr;
    deepId->setValue(3.f);
    left.addDeepAttribute("a/id", deepId);
    new FloatAttr(&right, "id", 9.f);
    join();
    settle();

    EXPECT_EQ(floatAt(right, "id"), 9.f);
    EXPECT_EQ(floatAt(right, "id2"), 2.f);
    EXPECT_EQ(at(right, "a/id"), nullptr);
    static_cast<FloatAttr *>(at(left, "id"))->setValue(5.f);
    static_cast<FloatAttr *>(at(right, "id"))->setValue(8.f);
    settle();
    EXPECT_EQ(floatAt(right, "id"), 8.f);
    EXPECT_EQ(floatAt(left, "id"), 5.f);
}

// --- events ---

TEST_F(TwoTreesSyncTest, EventsAndSlicedEventsArriveOnce)
{
    int initializedOnRight = 0;
    right.eventAddListener("initialized", [&initializedOnRight] { ++initializedOnRight; });
    join();
    settle();
    EXPECT_EQ(initializedOnRight, 1);
    clearTraffic();

    Kestrel::BinaryData small;
    small.writeBlob("hello", 5);
    left.eventProcess("greet", small);
    Kestrel::BinaryData empty;
    left.eventProcess("nudge", empty);
    Kestrel::BinaryData big;
    const QByteArray bigBytes = QByteArray("0123456789");
    big.writeBlob(bigBytes.constData(), bigBytes.size());
    left.eventProcessSlice("large", big, 4);
    settle();

    QByteArray smallHex = QByteArray(small.data(), int(small.total())).toHex();
    QByteArray bigHex = QByteArray(big.data(), int(big.total())).toHex();
    EXPECT_EQ(right.received, (QList<QByteArray>{"greet:" + smallHex, "nudge:", "large:" + bigHex}));
    EXPECT_TRUE(left.received.isEmpty());
    EXPECT_EQ(count(toRight, EventType), 1);
    EXPECT_EQ(count(toLeft, EventType), 0);
    EXPECT_EQ(initializedOnRight, 1);
    EXPECT_TRUE(problems().isEmpty()) << problems().join('\n').toStdString();
}

TEST_F(TwoTreesSyncTest, DebugDumpListsTheSessionsAttributes)
{
    new FloatAttr(&left, "x", 2.5f);
    join();
    settle();

    ::testing::internal::CaptureStdout();
    sessions.second->debugDump();
    frames(1);
    const std::string dump = ::testing::internal::GetCapturedStdout();
    EXPECT_NE(dump.find("x "), std::string::npos) << dump;
    EXPECT_NE(dump.find(" <2.5>\n"), std::string::npos) << dump;
}

// --- the connection itself ---

TEST_F(TwoTreesSyncTest, LocalConnectionCountsWhatCrossesAndDropsForAGoneReceiver)
{
    new FloatAttr(&left, "x", 1.f);
    join();
    settle();
    unsigned long bytes = 0;
    for (const Loomy::Bundle &bundle : toRight)
        bytes += unsigned(bundle.size());
    EXPECT_EQ(sessions.toSecond->bundlesSent(), toRight.size());
    EXPECT_EQ(sessions.toSecond->bytesSent(), bytes);

    // Idle passes hand over empty batches, which don't cross.
    const unsigned long batches = sessions.toSecond->batchesSent();
    frames(3);
    EXPECT_EQ(sessions.toSecond->batchesSent(), batches);

    // The receiving session is gone: the batch is counted and dropped.
    sessions.second.reset();
    frames(1);
    static_cast<FloatAttr *>(at(left, "x"))->setValue(2.f);
    frames(2);
    EXPECT_EQ(sessions.toSecond->batchesSent(), batches + 1);
    EXPECT_EQ(floatAt(right, "x"), 1.f);
}

// --- values that cross ---

struct CrossCase
{
    const char *name;
    bool dropStaleChanges;
    float leftAfter;
    float rightAfter;
};

const CrossCase s_crossCases[] = {
    // Each side keeps its own until the next change.
    {"DropStaleChangesDropsBoth", true, 1.f, 2.f},
    // Each side takes the other's: the last to arrive wins.
    {"WithoutTheRuleTheySwap", false, 2.f, 1.f},
};

class CrossingValues : public TwoTreesSyncTest, public ::testing::WithParamInterface<CrossCase>
{};

TEST_P(CrossingValues, TwoValuesWrittenInOneFrame)
{
    const CrossCase &c = GetParam();
    new FloatAttr(&left, "x", 0.f);
    join(true, c.dropStaleChanges);
    settle();
    ASSERT_EQ(floatAt(right, "x"), 0.f);

    static_cast<FloatAttr *>(at(left, "x"))->setValue(1.f);
    static_cast<FloatAttr *>(at(right, "x"))->setValue(2.f);
    settle();
    EXPECT_EQ(floatAt(left, "x"), c.leftAfter);
    EXPECT_EQ(floatAt(right, "x"), c.rightAfter);

    // The next change on one side, once the crossing is acknowledged, reaches the other.
    static_cast<FloatAttr *>(at(right, "x"))->setValue(3.f);
    settle();
    EXPECT_EQ(floatAt(left, "x"), 3.f);
    EXPECT_EQ(floatAt(right, "x"), 3.f);
}

INSTANTIATE_TEST_SUITE_P(Rule, CrossingValues, ::testing::ValuesIn(s_crossCases),
                         [](const auto &info) { return std::string(info.param.name); });

} // namespace
