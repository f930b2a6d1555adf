#include "TamarackTestUtil.h"

#include "tamarack/AttributeLocation2f.h"

#include <functional>

using Tamarack::AttributeLocation2f;
using V = Wisket::Vector2f;

// Each case acts on a location of (1, 2) and lists the values its CHANGE_ROLE listeners saw: a
// tuple emits once per real change, with both components already in place.
TEST(Location, OneChangePerTupleChange)
{
    const struct { const char *name; std::function<void(AttributeLocation2f &)> act; std::vector<V> seen; } cases[] = {
        {"BothComponents", [](auto &l) { l.setValue(V(3, 4)); }, {V(3, 4)}},
        {"OneComponentThenEqual", [](auto &l) { l.setValue(V(1, 5)); l.setValue(V(1, 5)); }, {V(1, 5)}},
        {"DirectComponentSet", [](auto &l) { l.component(1).setValue(9.f); }, {V(1, 9)}},
        {"ClearValue", [](auto &l) { l.setValue(V(3, 4)); l.clearValue(Attribute::LAYER_USER); }, {V(3, 4), V(1, 2)}},
        {"EventProcessReadsAVector", [](auto &l) {
             Kestrel::BinaryData data;
             data.writeVector2Float32(V(-1, 0.5f));
             data.rewind();
             l.eventProcess("loc", data);
             EXPECT_EQ(l.component(0).currentLayer(), Attribute::LAYER_USER);
         }, {V(-1, 0.5f)}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.name);
        AttributeLocation2f loc(nullptr, "loc", V(1, 2));
        ValueLog<AttributeLocation2f> log(loc);
        c.act(loc);
        EXPECT_EQ(log.seen, c.seen);
        EXPECT_EQ(loc.isChanged(), loc.value() != V(1, 2));
    }
}

// Re-entry from inside the tuple's own emission must produce its own change.
TEST(Location, ListenerThatSetsTheTupleAgainGetsItsOwnChange)
{
    AttributeLocation2f loc;
    ValueLog<AttributeLocation2f> log(loc);
    loc.addListener([&] { loc.setValue(V(7, 7)); }, Attribute::CHANGE_ROLE);
    loc.setValue(V(5, 6));
    EXPECT_EQ(log.seen, std::vector<V>({V(5, 6), V(7, 7)}));
    EXPECT_EQ(loc.component(1).ownerShorthand(), &loc); // owned by the tuple, not hosted
    EXPECT_EQ(loc.component(1).host(), nullptr);
    EXPECT_EQ(loc.type(), QByteArray("location2:float"));
}

TEST(Size, WrapsWidthAndHeightWithATextForm)
{
    Tamarack::AttributeT<Wisket::SizeI> size(nullptr, "size", Wisket::SizeI(640, 480));
    ChangeCount changes(size);
    EXPECT_EQ(size.component(1).value(), 480);
    EXPECT_TRUE(size.set(QStringLiteral("800, 600")));
    EXPECT_EQ(size.value(), Wisket::SizeI(800, 600));
    EXPECT_EQ(size.asString(nullptr, Attribute::LAYER_DEFAULT), QStringLiteral("640, 480"));
    EXPECT_EQ(changes.n.load(), 1);
}
