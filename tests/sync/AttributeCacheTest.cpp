#include "loomy/sync/AttributeCache.h"

#include "common/TraceCapture.h"
#include "tamarack/AttributeT.h"

#include <gtest/gtest.h>

using Loomy::AttributeCache;
using IntAttr = Tamarack::AttributeT<int>;

namespace {

class AttributeCacheTest : public ::testing::Test
{
protected:
    AttributeCache cache;
    IntAttr a;
    IntAttr b;
    TraceCapture trace;
};

TEST_F(AttributeCacheTest, AddingTheSameAttributeTwiceKeepsOneEntry)
{
    EXPECT_TRUE(cache.add(7, &a));
    EXPECT_TRUE(cache.add(7, &a));
    EXPECT_TRUE(cache.remove(7));
    EXPECT_FALSE(cache.remove(7)); // there was only one entry to remove
}

TEST_F(AttributeCacheTest, AddingAnotherAttributeUnderATakenSymbolIsRefused)
{
    ASSERT_TRUE(cache.add(7, &a));
    EXPECT_FALSE(cache.add(7, &b));
    EXPECT_EQ(trace.lines(), QStringList{"AttributeCache::ensureExists # Found an existing symbol (7) pointing to a different attribute"});
    EXPECT_EQ(cache.find(7), &a);
}

TEST_F(AttributeCacheTest, RemoveErasesTheNodeMark)
{
    cache.add(3, &a);
    cache.setIsNode(3, true);
    ASSERT_TRUE(cache.remove(3));
    EXPECT_FALSE(cache.isNode(3));
    EXPECT_EQ(cache.find(3), nullptr);
}

TEST_F(AttributeCacheTest, RemovingAnAbsentSymbolReportsOnceAndChangesNothing)
{
    cache.add(1, &a);
    cache.setIsNode(2, true);
    EXPECT_FALSE(cache.remove(2));
    EXPECT_EQ(trace.lines(), QStringList{"AttributeCache::remove # Trying to remove missing symbol: 2"});
    EXPECT_EQ(cache.find(1), &a);
    EXPECT_TRUE(cache.isNode(2));
}

TEST_F(AttributeCacheTest, NodeMarkWorksForASymbolNotYetCached)
{
    cache.setIsNode(9, true);
    EXPECT_TRUE(cache.isNode(9));
    EXPECT_EQ(cache.find(9), nullptr);
    cache.add(9, &a);
    EXPECT_TRUE(cache.isNode(9));
    cache.setIsNode(9, false);
    EXPECT_FALSE(cache.isNode(9));
    EXPECT_EQ(cache.find(9), &a);
}

TEST_F(AttributeCacheTest, OneAttributeUnderTwoSymbolsStaysFindableByEach)
{
    ASSERT_TRUE(cache.add(1, &a));
    ASSERT_TRUE(cache.add(2, &a));
    ASSERT_TRUE(cache.remove(1));
    EXPECT_EQ(cache.find(2), &a);
    EXPECT_TRUE(trace.lines().isEmpty());
}

} // namespace
