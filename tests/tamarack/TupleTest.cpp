#include "tamarack/AttributeLocation2f.h"
#include "tamarack/AttributeT.h"
#include "tamarack/Node.h"

#include "kestrel/BinaryData.h"

#include <gtest/gtest.h>

#include <vector>

using Tamarack::Attribute;
using Tamarack::AttributeLocation2f;

namespace {

class Location : public ::testing::Test
{
protected:
    Location()
    {
        loc.addListener([this] { seen.push_back(loc.value()); }, Attribute::CHANGE_ROLE);
    }
    AttributeLocation2f loc{nullptr, "loc", Wisket::Vector2f(1, 2)};
    std::vector<Wisket::Vector2f> seen;
};

} // namespace

TEST_F(Location, ChangeOfBothComponentsIsOneChange)
{
    loc.setValue(Wisket::Vector2f(3, 4));
    ASSERT_EQ(seen.size(), 1u);
    EXPECT_EQ(seen[0], Wisket::Vector2f(3, 4)); // both components already in place
}

TEST_F(Location, ChangeOfOneComponentIsOneChangeAndNoChangeIsSilent)
{
    loc.setValue(Wisket::Vector2f(1, 5));
    loc.setValue(Wisket::Vector2f(1, 5));
    EXPECT_EQ(seen, std::vector<Wisket::Vector2f>({Wisket::Vector2f(1, 5)}));
}

TEST_F(Location, DirectComponentChangeIsATupleChange)
{
    loc.component(1).setValue(9.f);
    EXPECT_EQ(seen, std::vector<Wisket::Vector2f>({Wisket::Vector2f(1, 9)}));
    EXPECT_EQ(loc.component(0).ownerShorthand(), &loc);
    EXPECT_EQ(loc.component(0).host(), nullptr);
}

TEST_F(Location, ClearValueFallsBackWithOneChange)
{
    loc.setValue(Wisket::Vector2f(3, 4), Attribute::LAYER_USER);
    EXPECT_TRUE(loc.isChanged());
    EXPECT_TRUE(loc.isValueDefinedOnLayer(Attribute::LAYER_USER));
    loc.clearValue(Attribute::LAYER_USER);
    EXPECT_EQ(seen, std::vector<Wisket::Vector2f>({Wisket::Vector2f(3, 4), Wisket::Vector2f(1, 2)}));
    EXPECT_FALSE(loc.isChanged());
}

TEST_F(Location, EventProcessReadsAVectorOntoTheUserLayer)
{
    Kestrel::BinaryData data;
    data.writeVector2Float32(Wisket::Vector2f(-1, 0.5f));
    data.rewind();
    loc.eventProcess("loc", data);
    EXPECT_EQ(seen, std::vector<Wisket::Vector2f>({Wisket::Vector2f(-1, 0.5f)}));
    EXPECT_EQ(loc.component(0).currentLayer(), Attribute::LAYER_USER);
}

TEST_F(Location, ListenerThatSetsTheTupleAgainGetsItsOwnChange)
{
    bool again = true;
    loc.addListener([&] {
        if (again) {
            again = false;
            loc.setValue(Wisket::Vector2f(7, 7)); // re-entry from inside the tuple's own emission
        }
    }, Attribute::CHANGE_ROLE);
    loc.setValue(Wisket::Vector2f(5, 6));
    EXPECT_EQ(seen, std::vector<Wisket::Vector2f>({Wisket::Vector2f(5, 6), Wisket::Vector2f(7, 7)}));
}

TEST(Tuple, SchemaTexts)
{
    AttributeLocation2f loc;
    Tamarack::AttributeT<Wisket::SizeF> sizeF;
    Tamarack::AttributeT<Wisket::SizeI> sizeI;
    EXPECT_EQ(loc.type(), QByteArray("location2:float"));
    EXPECT_EQ(sizeF.type(), QByteArray("size2:float"));
    EXPECT_EQ(sizeI.type(), QByteArray("size2:int"));
}

TEST(Tuple, SizeWrapsWidthAndHeight)
{
    Tamarack::Node root;
    auto *size = new Tamarack::AttributeT<Wisket::SizeI>(&root, "size", Wisket::SizeI(640, 480));
    int changes = 0;
    size->addListener([&] { ++changes; }, Attribute::CHANGE_ROLE);
    EXPECT_EQ(size->component(0).value(), 640);
    EXPECT_EQ(size->component(1).value(), 480);
    EXPECT_TRUE(size->set(QStringLiteral("800, 600")));
    EXPECT_EQ(size->value(), Wisket::SizeI(800, 600));
    EXPECT_EQ(size->asString(), QStringLiteral("800, 600"));
    EXPECT_EQ(size->asString(nullptr, Attribute::LAYER_DEFAULT), QStringLiteral("640, 480"));
    EXPECT_EQ(changes, 1);
}
