#include "TamarackTestUtil.h"

#include "tamarack/AttributeAsset.h"
#include "tamarack/AttributeContainer.h"
#include "tamarack/AttributeGrid.h"
#include "tamarack/AttributeSpline.h"

// Containers, grids and splines have no layers: every assignment emits, an equal or empty one too.
TEST(LayerlessKinds, EveryAssignmentEmits)
{
    Tamarack::AttributeContainer<std::vector<float>> floats;
    Tamarack::AttributeGrid<unsigned char> grid;
    Tamarack::AttributeSpline spline;
    ChangeCount floatChanges(floats), gridChanges(grid), splineChanges(spline);
    floats.setValue({1.f, 2.f});
    floats.set(std::vector<float>{1.f, 2.f});
    Kestrel::MemGrid8u cells;
    cells.resize(3, 2);
    cells.data()[5] = 7;
    grid.setGrid(cells);
    grid.setGrid(cells);
    cells.data()[5] = 8; // the attribute holds a copy
    spline.setPoints({Wisket::Vector2f(0, 0), Wisket::Vector2f(1, 1)});
    spline.setPoints({});
    EXPECT_EQ(Ints({floatChanges.n, gridChanges.n, splineChanges.n}), Ints({2, 2, 2}));
    EXPECT_EQ(grid.grid().data()[5], 7);
    EXPECT_EQ(grid.type(), QByteArray("grid:unsigned char"));
    EXPECT_TRUE(floats.type().startsWith("Tamarack::AttributeContainer<std::vector<float")) << floats.type().data();
}

TEST(Asset, TextValueOnLayersUnderItsOwnSchemaText)
{
    Tamarack::AttributeAsset asset(nullptr, "file", QStringLiteral("/a.png"));
    EXPECT_TRUE(asset.set(QStringLiteral("/b.png")));
    EXPECT_TRUE(asset.isChanged());
    EXPECT_EQ(asset.type(), QByteArray("asset"));
}

TEST(StringList, TextFormIsOneElementPerLine)
{
    Tamarack::AttributeT<QStringList> list;
    EXPECT_TRUE(list.set(QStringLiteral("a\nb c")));
    EXPECT_EQ(list.value(), QStringList({"a", "b c"}));
    EXPECT_TRUE(list.set(QString()));
    EXPECT_TRUE(list.value().isEmpty());
}
