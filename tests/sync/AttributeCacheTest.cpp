#include "loomy/sync/AttributeCache.h"

#include "common/TraceCapture.h"
#include "tamarack/AttributeT.h"

#include <gtest/gtest.h>

// Refusals are logged and change nothing; a node mark may precede its attribute and goes with it;
// one attribute may stand under two symbols, as through an alias.
TEST(AttributeCache, EntriesRefusalsAndNodeMarks)
{
    TraceCapture trace;
    Loomy::AttributeCache cache;
    Tamarack::AttributeT<int> a, b;
    ASSERT_TRUE(cache.add(7, &a));
    EXPECT_TRUE(cache.add(7, &a));
    EXPECT_FALSE(cache.add(7, &b));
    cache.setIsNode(2, true);
    EXPECT_FALSE(cache.remove(2));
    EXPECT_EQ(trace.lines(), (QStringList{"AttributeCache::ensureExists # Found an existing symbol (7) pointing to a different attribute",
                                          "AttributeCache::remove # Trying to remove missing symbol: 2"}));
    EXPECT_EQ(cache.find(7), &a);
    EXPECT_TRUE(cache.isNode(2));
    ASSERT_TRUE(cache.add(2, &a));
    EXPECT_TRUE(cache.remove(7));
    EXPECT_FALSE(cache.remove(7)); // the same pair twice was one entry
    EXPECT_EQ(cache.find(2), &a);
    EXPECT_TRUE(cache.remove(2));
    EXPECT_FALSE(cache.isNode(2));
}
