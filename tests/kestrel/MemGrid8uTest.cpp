#include "kestrel/MemGrid8u.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <new>
#include <numeric>

using Kestrel::MemGrid8u;

namespace {

bool pageAligned(const void *p) { return reinterpret_cast<uintptr_t>(p) % 4096 == 0; }

MemGrid8u filled(unsigned width, unsigned height)   // cells 1, 2, 3, ...
{ MemGrid8u grid(width, height); std::iota(grid.data(), grid.data() + grid.cellCount(), static_cast<unsigned char>(1)); return grid; }

} // namespace

TEST(MemGrid8u, CapacityIsTheCellCountRoundedUpToFourInAPageAlignedBlock)
{
    const unsigned cases[][3] = {{0, 0, 0}, {7, 0, 0}, {1, 1, 4}, {3, 3, 12}, {4, 1, 4}, {5, 1, 8}, {7, 3, 24}};
    for (const auto &c : cases) {
        MemGrid8u grid;
        grid.resize(c[0], c[1]);
        EXPECT_EQ(grid.capacity(), c[2]) << c[0] << "x" << c[1];
        EXPECT_EQ(grid.data() == nullptr, c[2] == 0) << c[0] << "x" << c[1];
        EXPECT_TRUE(pageAligned(grid.data()));
    }
}

TEST(MemGrid8u, ResizeReusesABlockThatIsLargeEnoughAndKeepsTheGridWhenItCantAllocate)
{
    MemGrid8u grid = filled(10, 10);
    unsigned char *const block = grid.data();
    grid.resize(5, 4);
    grid.resize(25, 4);   // exactly the capacity again
    EXPECT_EQ(grid.data(), block);
    EXPECT_EQ(grid.data()[0], 1);   // contents of a reused block are left alone
    EXPECT_THROW(grid.resize(0xffffffffu, 0xffffffffu), std::bad_alloc);
    EXPECT_EQ(grid.width(), 25u);
    EXPECT_EQ(grid.data(), block);
    grid.resize(11, 10);
    EXPECT_EQ(grid.capacity(), 112u);
    EXPECT_TRUE(pageAligned(grid.data()));
}

TEST(MemGrid8u, CopiesAreDeepAndEqualityIsByDimensionsAndCells)
{
    const MemGrid8u a = filled(3, 2), transposed = filled(2, 3);
    MemGrid8u b(a), big(20, 20);
    big = a;
    EXPECT_EQ(big, a);   // capacity doesn't count
    b.data()[5] = 99;
    EXPECT_NE(a, b);
    EXPECT_NE(transposed, a);
}
