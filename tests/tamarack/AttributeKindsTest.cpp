#include "tamarack/AttributeAsset.h"
#include "tamarack/AttributeContainer.h"
#include "tamarack/AttributeGrid.h"
#include "tamarack/AttributeT.h"
#include "tamarack/AttributeSpline.h"
#include "tamarack/Node.h"

#include "kestrel/BinaryData.h"

#include <gtest/gtest.h>

#include <QString>

#include <vector>

using Tamarack::Attribute;

namespace {

int countChanges(Attribute &a, int &counter)
{
    a.addListener([&counter] { ++counter; }, Attribute::CHANGE_ROLE);
    return counter;
}

} // namespace

TEST(Container, EveryAssignmentEmitsAlsoAnEqualOne)
{
    Tamarack::AttributeContainer<std::vector<float>> attr;
    int changes = 0;
    countChanges(attr, changes);
    attr.setValue({1.f, 2.f});
    attr.set(std::vector<float>{1.f, 2.f});
    EXPECT_EQ(changes, 2);
    EXPECT_EQ(attr.value(), std::vector<float>({1.f, 2.f}));
    EXPECT_FALSE(attr.isValueDefinedOnLayer(Attribute::LAYER_USER)); // no layers
}

TEST(Container, TypeIsTheDemangledClassNameUnlessSet)
{
    Tamarack::AttributeContainer<std::vector<int>> ints;
    const QByteArray type = ints.type();
    EXPECT_TRUE(type.startsWith("Tamarack::AttributeContainer<std::vector<int")) << type.constData();
    ints.setType("ints");
    EXPECT_EQ(ints.type(), QByteArray("ints"));
    Tamarack::AttributeContainer<std::vector<QString>> strings;
    EXPECT_TRUE(strings.type().contains("QString")) << strings.type().constData();
}

TEST(Grid, FilledInPlaceThenEmitted)
{
    Tamarack::AttributeGrid<unsigned char> grid;
    int changes = 0;
    countChanges(grid, changes);
    grid.grid().resize(3, 2);
    for (int i = 0; i < 6; ++i)
        grid.grid().data()[i] = static_cast<unsigned char>(i);
    EXPECT_EQ(changes, 0); // filling is silent until the owner says so
    grid.emitChange();
    EXPECT_EQ(changes, 1);
    EXPECT_EQ(grid.type(), QByteArray("grid:unsigned char"));

    Kestrel::MemGrid8u copy(grid.grid());
    grid.setGrid(copy);
    EXPECT_EQ(changes, 2);
    EXPECT_EQ(grid.grid(), copy);
}

TEST(Spline, SetPointsEmitsAlsoWhenEmpty)
{
    Tamarack::AttributeSpline spline;
    int changes = 0;
    countChanges(spline, changes);
    spline.setPoints({Wisket::Vector2f(0, 0), Wisket::Vector2f(1, 1)});
    spline.setPoints({});
    EXPECT_EQ(changes, 2);
    EXPECT_TRUE(spline.points().isEmpty());
}

TEST(Asset, TextOnLayers)
{
    Tamarack::Node root;
    auto *asset = new Tamarack::AttributeAsset(&root, "file", QStringLiteral("/a.png"));
    int changes = 0;
    countChanges(*asset, changes);
    EXPECT_TRUE(asset->set(QStringLiteral("/b.png")));
    EXPECT_EQ(asset->value(), QStringLiteral("/b.png"));
    EXPECT_EQ(asset->asString(), QStringLiteral("/b.png"));
    asset->clearValue(Attribute::LAYER_USER);
    EXPECT_EQ(asset->value(), QStringLiteral("/a.png"));
    EXPECT_EQ(changes, 2);

    Kestrel::BinaryData data;
    data.writeString("/c.png");
    data.rewind();
    root.eventProcess("file", data);
    EXPECT_EQ(asset->value(Attribute::LAYER_USER), QStringLiteral("/c.png"));
}

TEST(StringList, TextFormIsOneElementPerLine)
{
    Tamarack::AttributeT<QStringList> list;
    EXPECT_TRUE(list.set(QStringLiteral("a\nb c")));
    EXPECT_EQ(list.value(), QStringList({"a", "b c"}));
    EXPECT_TRUE(list.set(QString()));
    EXPECT_TRUE(list.value().isEmpty());
}
