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
#include <algorithm>
#include <functional>
#include <numeric>
#include <random>
#include <tuple>
#include <utility>

using Loomy::RemoteNode;
using Tamarack::Attribute;
using Tamarack::Node;
using FloatAttr = Tamarack::AttributeT<float>;
using Crossed = std::pair<int, int>; // bundles of one type sent to the right, to the left

namespace {

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
using Make = std::function<void(Node *host, const QByteArray &name)>;
struct TypeCase { const char *name; unsigned typeId; Make make; };
template <typename T> Make plain(T value) { return [value](Node *host, const QByteArray &name) { new Tamarack::AttributeT<T>(host, name, value); }; }
template <typename C> Make container(C value) { return [value](Node *host, const QByteArray &name) { (new Tamarack::AttributeContainer<C>(host, name))->set(value); }; }
Kestrel::MemGrid8u grid3x2() { Kestrel::MemGrid8u grid(3, 2); std::iota(grid.data(), grid.data() + 6, static_cast<unsigned char>(10)); return grid; }
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

// The peer (left) to this side (right) passes through cutBytes: a bundle it gives a count for
// arrives that many bytes short, its header's size word matching.
class CutFromThePeer : public TwoTreesSyncTest
{
protected:
    void joinCutting(bool createMissing, std::function<int(const Loomy::Bundle &)> cutBytes)
    {
        join(createMissing);
        sessions.toSecond->setReceiver({});
        std::weak_ptr<Loomy::BundleController> receiver = sessions.second;
        sessions.toSecond->setObserver([this, receiver, cutBytes](const std::vector<Loomy::Bundle> &bundles) {
            std::vector<Loomy::Bundle> out;
            for (const Loomy::Bundle &bundle : bundles) {
                QByteArray bytes = bundle.data();
                bytes.chop(cutBytes(bundle));
                qToLittleEndian<quint32>(quint32(bytes.size()) - 16, bytes.data());
                out.emplace_back(bytes);
            }
            toRight.insert(toRight.end(), out.begin(), out.end());
            if (const auto controller = receiver.lock())
                controller->scheduleProcess(out);
        });
    }
    static QByteArray wire(Node &side, const QByteArray &path) { unsigned id = 0; return wireValue(at(side, path), id); }
    // A bundle that fails as cut is logged and dropped; with the re-addition, the peer's removal of
    // what this side never made is too. Anything else is a fault.
    void expectOnlyCutsLogged()
    {
        QStringList problems = trace.lines(Kestrel::Trace::Level::Warning) + trace.lines(Kestrel::Trace::Level::Error);
        problems = problems.filter(QRegExp("^(?!BundleController::process # Failed to process bundle|AttributeRemoveHandler::handleBundle # Attribute \\d+ already removed)"));
        EXPECT_TRUE(problems.isEmpty()) << problems.join('\n').toStdString();
        trace.clear();
    }
};

// Value kinds of fixed and dynamic size, each set to a value of its own for each generation g.
struct KindCase { const char *name; Make make; std::function<void(Attribute *, int)> set; };
template <typename A, typename F>
KindCase kind(const char *name, F value)
{
    return {name, [](Node *host, const QByteArray &n) { new A(host, n); },
            [value](Attribute *a, int g) { static_cast<A *>(a)->setValue(value(g)); }};
}
const KindCase s_kinds[] = {
    kind<FloatAttr>("Float", [](int g) { return g + 0.5f; }),
    kind<Tamarack::AttributeT<int>>("Int", [](int g) { return -7 * g; }),
    kind<Tamarack::AttributeT<Wisket::Vector3f>>("Vector", [](int g) { return Wisket::Vector3f(g, 2.f * g, 3.f * g); }),
    kind<Tamarack::AttributeT<QString>>("String", [](int g) { return QString(g % 5 + 1, QChar('a' + g % 26)); }),
    kind<Tamarack::AttributeT<QStringList>>("StringList", [](int g) { return QStringList{"x", QString::number(g), ""}; }),
    kind<Tamarack::AttributeContainer<std::vector<unsigned int>>>("Binary", [](int g) { return std::vector<unsigned int>(g % 3 + 1, 0xabcd0000u + g); }),
    {"Grid", [](Node *host, const QByteArray &n) { new Tamarack::AttributeGrid<unsigned char>(host, n); },
     [](Attribute *a, int g) {
         Kestrel::MemGrid8u grid(g % 3 + 1, 2);
         std::fill(grid.data(), grid.data() + grid.cellCount(), static_cast<unsigned char>(g));
         static_cast<Tamarack::AttributeGrid<unsigned char> *>(a)->setGrid(grid);
     }},
};
// Change: the peer changes an attribute made here for it. Shared: both had it at first contact,
// with or without createMissingAttributes. Missing: made here from the peer's first announcement.
enum RecordKind { Change, Shared, SharedNoCreate, Missing };
using CutCase = std::tuple<int, RecordKind, int>; // an index into s_kinds
class CutRecord : public CutFromThePeer, public ::testing::WithParamInterface<CutCase> {};

// Cut inside the value, which is at least 4 bytes: 1 and 3 bytes leave part of it, 4 all of a
// fixed one and the bytes of a short dynamic one. The cut value is lost or applied whole; then this side's change reaches the peer, and the peer's
// next change (or, for a lost addition, its next addition) arrives here. With the lost addition
// the peer's change of it costs no other value of its bundle.
TEST_P(CutRecord, CostsNoLaterChangeOnEitherSide)
{
    const KindCase &k = s_kinds[std::get<0>(GetParam())];
    const RecordKind record = std::get<1>(GetParam());
    k.make(&left, "v");
    k.set(at(left, "v"), 1);
    auto *w = new FloatAttr(&left, "w", 0.f);
    new FloatAttr(&right, "w", 0.f);
    if (record == Shared || record == SharedNoCreate) {
        k.make(&right, "v");
        k.set(at(right, "v"), 2);
    }
    bool cutting = record != Change;
    joinCutting(record != SharedNoCreate, [&](const Loomy::Bundle &b) {
        const bool cut = cutting && b.messageType() == (record == Change ? UpdateType : NewType);
        return cut ? (cutting = false, std::get<2>(GetParam())) : 0;
    });
    if (record == Change) {
        settle();
        cutting = true;
    }
    const QByteArray before = at(right, "v") ? wire(right, "v") : QByteArray();
    if (record == Change)
        k.set(at(left, "v"), 3);
    const QByteArray sent = wire(left, "v");
    settle();
    ASSERT_FALSE(cutting);
    const QByteArray here = at(right, "v") ? wire(right, "v") : QByteArray();
    EXPECT_TRUE(here == before || here == sent) << hex(here);
    if (!at(right, "v")) {
        k.set(at(left, "v"), 4);
        w->setValue(4.f);
        settle();
        EXPECT_EQ(value(right, "w"), 4.f);
        EXPECT_EQ(at(right, "v"), nullptr);
        delete at(left, "v");
        settle();
        k.make(&left, "v");
        k.set(at(left, "v"), 5);
        settle();
        ASSERT_NE(at(right, "v"), nullptr);
    }
    k.set(at(right, "v"), 6);
    settle();
    EXPECT_EQ(hex(wire(left, "v")), hex(wire(right, "v")));
    k.set(at(left, "v"), 7);
    settle();
    EXPECT_EQ(hex(wire(right, "v")), hex(wire(left, "v")));
    expectOnlyCutsLogged();
}
std::string cutName(const ::testing::TestParamInfo<CutCase> &i)
{
    static const char *const records[] = {"Change", "Shared", "SharedNoCreate", "Missing"};
    return std::string(s_kinds[std::get<0>(i.param)].name) + records[std::get<1>(i.param)] + "Cut" + std::to_string(std::get<2>(i.param));
}
INSTANTIATE_TEST_SUITE_P(Cuts, CutRecord,
                         ::testing::Combine(::testing::Range(0, int(std::size(s_kinds))), ::testing::Values(Change, Shared, SharedNoCreate, Missing),
                                            ::testing::Values(1, 3, 4)),
                         cutName);

// Hundreds of frames of changes on both sides while a third of the peer's bundles arrive 1 to 7
// bytes short (the header kept); once the cutting stops, every change this side makes reaches
// the peer.
class CutBundlesRandom : public CutFromThePeer, public ::testing::WithParamInterface<unsigned> {};
TEST_P(CutBundlesRandom, EveryLocalChangeReachesThePeerOnceCuttingStops)
{
    std::mt19937 rng(GetParam()), cuts(GetParam() + 1000);
    const KindCase *kinds[] = {&s_kinds[0], &s_kinds[3], &s_kinds[4]};
    QList<QByteArray> paths;
    int g = 0;
    for (int i = 0; i < 12; ++i) {
        paths << "a" + QByteArray::number(i);
        kinds[i % 3]->make(&left, paths.back());
        kinds[i % 3]->set(at(left, paths.back()), ++g);
    }
    bool cutting = false;
    joinCutting(true, [&](const Loomy::Bundle &b) {
        return cutting && b.size() > 16 && cuts() % 3 == 0 ? 1 + int(cuts() % unsigned(std::min(b.size() - 16, 7))) : 0;
    });
    settle();
    cutting = true;
    for (int frame = 0; frame < 300; ++frame) {
        for (int n = int(rng() % 8); n > 0; --n) {
            const int i = int(rng() % 12);
            // The last frames change the peer only, so that what a cut leaves behind is not
            // worn off by a later change here before the check.
            kinds[i % 3]->set(at(rng() % 2 || frame >= 270 ? left : right, paths[i]), ++g);
        }
        frames(1);
    }
    cutting = false;
    settle();
    for (int i = 0; i < 12; ++i)
        kinds[i % 3]->set(at(right, paths[i]), ++g);
    settle();
    for (const QByteArray &path : paths)
        EXPECT_EQ(hex(wire(left, path)), hex(wire(right, path))) << path.constData();
    EXPECT_GT(trace.lines().filter("BundleController::process # Failed to process bundle").size(), 30); // the cuts did bite
    trace.clear();
}
INSTANTIATE_TEST_SUITE_P(Seeds, CutBundlesRandom, ::testing::Range(1u, 17u));

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

// An addition removed again before the peer's answer came back: the answer, which carries no value,
// must not make the attribute again on the side that removed it, nor, through that, on the peer.
TEST_F(TwoTreesSyncTest, AdditionRemovedBeforeTheAnswerStaysRemoved)
{
    join();
    settle();
    new FloatAttr(&left, "x", 1.f);
    frames(1);
    delete at(left, "x");
    settle();
    EXPECT_EQ(at(left, "x"), nullptr);
    EXPECT_EQ(at(right, "x"), nullptr);
    new FloatAttr(&left, "x", 2.f); // and the path still works
    settle();
    EXPECT_EQ(value(right, "x"), 2.f);
}

// One node with a session per peer, as a server holds them. Each peer is a process of its own and
// numbers its sliced events from 0, so two peers' slices carry the same ids; sent in the same
// frames, each must arrive whole, as its peer sent it. A change on one peer reaches the other
// through the node.
TEST_F(TwoTreesSyncTest, TwoPeersOfOneNodeKeepTheirSlicedEventsApart)
{
    RecordingNode &other = *new RecordingNode(&rightApp, "other");
    new FloatAttr(&right, "x", 1.f);
    join();
    Loomy::BundleControllerParams params;
    params.createMissingAttributes = true;
    Loomy::LocalSessionPair second = Loomy::connectLocally(left, params, other, params);
    settle();
    ASSERT_EQ(value(other, "x"), 1.f);
    const QByteArray payloads[2] = {"first peer: 0123456789", "the other!: abcdefghij"};
    RecordingNode *peers[2] = {&right, &other};
    const int sliceSize = 8, slices = 3;
    for (int p = 0; p < 2; ++p) {
        Kestrel::BinaryData begin = build({'B', 0, 0, sliceSize, "big", payloads[p].size()});
        peers[p]->eventProcess("event-slice-begin", begin);
    }
    for (int i = 0; i < slices; ++i) {
        frames(1);
        for (int p = 0; p < 2; ++p) {
            Kestrel::BinaryData slice = build({'S', 0, 0, i, payloads[p].mid(i * sliceSize, sliceSize)});
            peers[p]->eventProcess("event-slice", slice);
        }
    }
    settle();
    QList<QByteArray> received = left.received;
    std::sort(received.begin(), received.end());
    EXPECT_EQ(received.join(' ').toStdString(), ("big:" + payloads[0].toHex() + " big:" + payloads[1].toHex()).toStdString());
    EXPECT_TRUE(right.received.isEmpty() && other.received.isEmpty());
    set(right, "x", 2.f);
    settle();
    EXPECT_EQ(value(other, "x"), 2.f);
    set(other, "x", 3.f);
    settle();
    EXPECT_EQ(value(right, "x"), 3.f);
}

// A session ends; while none runs, each side changes one of the attributes both hold and adds one
// of its own; then a new session joins the same trees, as at a reconnection, and both sides
// announce what they hold at once. The values of the authoritative side win on both sides,
// whatever the rule for stale values and whichever side runs its frames first; an attribute only
// one side holds arrives on the other; then changes travel as usual.
struct RestartCase { const char *name; bool leftRules, dropStaleChanges, leftFirst; };
const RestartCase s_restarts[] = {
    {"LeftRules", true, false, true},          {"LeftRulesRightFirst", true, false, false},
    {"LeftRulesDropStale", true, true, true},  {"LeftRulesDropStaleRightFirst", true, true, false},
    {"RightRules", false, false, true},        {"RightRulesRightFirst", false, false, false},
    {"RightRulesDropStale", false, true, true}, {"RightRulesDropStaleRightFirst", false, true, false},
};
void PrintTo(const RestartCase &c, std::ostream *os) { *os << c.name; }
class SessionRestart : public TwoTreesSyncTest, public ::testing::WithParamInterface<RestartCase>
{
protected:
    // Without the global loop: each pass updates the two sides in the case's order.
    void start(bool withAuthority)
    {
        Loomy::BundleControllerParams params;
        params.createMissingAttributes = true;
        params.dropStaleChanges = GetParam().dropStaleChanges;
        params.useGlobalUpdate = false;
        Loomy::BundleControllerParams leftParams = params, rightParams = params;
        leftParams.authoritative = withAuthority && GetParam().leftRules;
        rightParams.authoritative = withAuthority && !GetParam().leftRules;
        sessions = Loomy::connectLocally(left, leftParams, right, rightParams);
    }
    void passes()
    {
        for (int i = 0; i < 5; ++i) {
            (GetParam().leftFirst ? sessions.first : sessions.second)->update();
            (GetParam().leftFirst ? sessions.second : sessions.first)->update();
        }
    }
};
TEST_P(SessionRestart, AuthoritativeSideWinsAtFirstContact)
{
    using Values = std::pair<float, float>;
    new FloatAttr(&left, "x", 1.f);
    new FloatAttr(&left, "y", 1.f);
    start(false);
    passes();
    ASSERT_EQ(values("y"), Values(1.f, 1.f));
    sessions = Loomy::LocalSessionPair();
    set(left, "x", 5.f);
    set(right, "y", 7.f);
    new FloatAttr(&left, "onlyLeft", 3.f);
    new FloatAttr(&right, "onlyRight", 4.f);
    start(true);
    passes();
    const bool leftRules = GetParam().leftRules;
    EXPECT_EQ(values("x"), leftRules ? Values(5.f, 5.f) : Values(1.f, 1.f));
    EXPECT_EQ(values("y"), leftRules ? Values(1.f, 1.f) : Values(7.f, 7.f));
    EXPECT_EQ(values("onlyLeft"), Values(3.f, 3.f));
    EXPECT_EQ(values("onlyRight"), Values(4.f, 4.f));
    set(right, "x", 8.f);
    passes();
    EXPECT_EQ(values("x"), Values(8.f, 8.f));
    set(left, "y", 9.f);
    passes();
    EXPECT_EQ(values("y"), Values(9.f, 9.f));
    // A path announced again later is no first contact: its value is taken as usual.
    delete at(right, "onlyLeft"); // made for the left side, which keeps its own
    passes();
    new FloatAttr(&right, "onlyLeft", 6.f);
    passes();
    EXPECT_EQ(values("onlyLeft"), Values(6.f, 6.f));
}
INSTANTIATE_TEST_SUITE_P(Authority, SessionRestart, ::testing::ValuesIn(s_restarts), [](const auto &i) { return std::string(i.param.name); });

// A disabled session doesn't update its tree before it applies a batch, so an attribute added
// meanwhile meets the peer's announcement before its own has left: that one carries the value.
TEST_F(TwoTreesSyncTest, AuthoritativeSideWhoseAdditionHasNotLeftYetSendsItWithTheValue)
{
    new FloatAttr(&right, "x", 7.f);
    Loomy::BundleControllerParams leftParams, rightParams;
    leftParams.createMissingAttributes = rightParams.createMissingAttributes = true;
    leftParams.authoritative = true;
    leftParams.enabled = false;
    sessions = Loomy::connectLocally(left, leftParams, right, rightParams);
    frames(1);
    new FloatAttr(&left, "x", 1.f);
    frames(3);
    sessions.first->setEnabled(true);
    settle();
    EXPECT_EQ(values("x"), std::make_pair(1.f, 1.f));
}

} // namespace
