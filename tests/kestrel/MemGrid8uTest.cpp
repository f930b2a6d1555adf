#include "kestrel/MemGrid8u.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>
#include <new>

using Kestrel::MemGrid8u;

namespace {

bool pageAligned(const void *p)
{
    return reinterpret_cast<uintptr_t>(p) % 4096 == 0;
}

void fill(MemGrid8u &grid, unsigned char seed)
{
    for (std::size_t i = 0; i < grid.cellCount(); ++i)
        grid.data()[i] = static_cast<unsigned char>(seed + i);
}

} // namespace

TEST(MemGrid8u, CapacityIsTheCellCountRoundedUpToFour)
{
    struct Case { unsigned width, height; std::size_t capacity; };
    const Case cases[] = {{1, 1, 4}, {3, 3, 12}, {4, 1, 4}, {5, 1, 8}, {7, 3, 24}};
    for (const Case &c : cases) {
        MemGrid8u grid;
        grid.resize(c.width, c.height);
        EXPECT_EQ(grid.capacity(), c.capacity) << c.width << "x" << c.height;
        EXPECT_TRUE(pageAligned(grid.data()));
    }
}

TEST(MemGrid8u, ResizeReusesABlockThatIsLargeEnough)
{
    MemGrid8u grid;
    grid.resize(10, 10);
    unsigned char *const block = grid.data();
    fill(grid, 1);
    grid.resize(5, 4);
    EXPECT_EQ(grid.data(), block);
    EXPECT_EQ(grid.capacity(), 100u);
    EXPECT_EQ(grid.width(), 5u);
    EXPECT_EQ(grid.height(), 4u);
    EXPECT_EQ(grid.data()[0], 1);   // contents of a reused block are left alone
    grid.resize(25, 4);             // exactly the capacity again
    EXPECT_EQ(grid.data(), block);
    grid.resize(11, 10);
    EXPECT_NE(grid.capacity(), 100u);
    EXPECT_EQ(grid.capacity(), 112u);
    EXPECT_TRUE(pageAligned(grid.data()));
}

TEST(MemGrid8u, EmptyGridNeedsNoStorage)
{
    MemGrid8u grid;
    grid.resize(0, 0);
    EXPECT_EQ(grid.data(), nullptr);
    EXPECT_EQ(grid.cellCount(), 0u);
    grid.resize(7, 0);
    EXPECT_EQ(grid.width(), 7u);
    EXPECT_EQ(grid.cellCount(), 0u);
}

TEST(MemGrid8u, UnservableSizeThrowsBadAllocAndKeepsTheGrid)
{
    MemGrid8u grid(2, 2);
    fill(grid, 9);
    EXPECT_THROW(grid.resize(0xffffffffu, 0xffffffffu), std::bad_alloc);
    EXPECT_EQ(grid.width(), 2u);
    EXPECT_EQ(grid.height(), 2u);
    EXPECT_EQ(grid.data()[3], 12);
}

TEST(MemGrid8u, CopiesAreDeepAndCompareByCells)
{
    MemGrid8u a(3, 2);
    fill(a, 0);
    MemGrid8u b(a);
    EXPECT_NE(b.data(), a.data());
    EXPECT_EQ(a, b);
    b.data()[5] = 99;
    EXPECT_NE(a, b);

    MemGrid8u big(20, 20);   // capacity doesn't count, dimensions do
    big = a;
    EXPECT_EQ(big, a);
    EXPECT_EQ(big.capacity(), 400u);
    MemGrid8u transposed(2, 3);
    std::memcpy(transposed.data(), a.data(), 6);
    EXPECT_NE(transposed, a);
}

TEST(MemGrid8u, MoveTakesTheBlock)
{
    MemGrid8u a(4, 4);
    unsigned char *const block = a.data();
    MemGrid8u b(std::move(a));
    EXPECT_EQ(b.data(), block);
    EXPECT_EQ(a.data(), nullptr);
    EXPECT_EQ(a.width(), 0u);
    MemGrid8u c;
    c = std::move(b);
    EXPECT_EQ(c.data(), block);
    EXPECT_EQ(c.cellCount(), 16u);
}
