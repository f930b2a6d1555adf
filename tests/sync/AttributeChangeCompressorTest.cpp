#include "loomy/sync/AttributeChangeCompressor.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <vector>

using namespace Loomy;

namespace Loomy {
// Failed comparisons print entries as "added 7 +value".
void PrintTo(const ChangeData &change, std::ostream *os)
{
    static const char *const names[] = {"added", "removed", "changed", "node-added", "node-removed"};
    *os << names[change.type] << ' ' << change.symbol << (change.sendValue ? " +value" : "");
}
} // namespace Loomy

namespace {

using Events = std::vector<NodeWatcher::Event>;
using Changes = std::vector<ChangeData>;

const unsigned A = 7;
const unsigned B = 9;

NodeWatcher::Event added(unsigned symbol) { return {NodeWatcher::ATTRIBUTE_ADDED, symbol}; }
NodeWatcher::Event removed(unsigned symbol) { return {NodeWatcher::ATTRIBUTE_REMOVED, symbol}; }
NodeWatcher::Event changed(unsigned symbol) { return {NodeWatcher::ATTRIBUTE_CHANGED, symbol}; }

ChangeData addedOut(unsigned symbol, bool sendValue) { return {NodeWatcher::ATTRIBUTE_ADDED, symbol, sendValue}; }
ChangeData removedOut(unsigned symbol) { return {NodeWatcher::ATTRIBUTE_REMOVED, symbol, false}; }
ChangeData changedOut(unsigned symbol) { return {NodeWatcher::ATTRIBUTE_CHANGED, symbol, false}; }

Changes compress(const Events &events)
{
    AttributeChangeCompressor compressor;
    Changes result;
    compressor.compress(events, result);
    return result;
}

// One symbol, events in time order.
struct CompressCase
{
    const char *name;
    Events events;
    Changes expected;
};

const CompressCase s_cases[] = {
    {"ChangedThrice", {changed(A), changed(A), changed(A)}, {changedOut(A)}},
    {"AddedChanged", {added(A), changed(A)}, {addedOut(A, true)}},
    {"AddedChangedTwice", {added(A), changed(A), changed(A)}, {addedOut(A, true)}},
    {"Added", {added(A)}, {addedOut(A, false)}},
    {"AddedRemoved", {added(A), removed(A)}, {}},
    {"AddedChangedRemoved", {added(A), changed(A), removed(A)}, {}},
    {"ChangedRemoved", {changed(A), removed(A)}, {removedOut(A)}},
    {"Removed", {removed(A)}, {removedOut(A)}},
    {"RemovedAdded", {removed(A), added(A)}, {removedOut(A), addedOut(A, false)}},
    {"RemovedAddedChanged", {removed(A), added(A), changed(A)}, {removedOut(A), addedOut(A, true)}},
    {"AddedRemovedAdded", {added(A), removed(A), added(A)}, {addedOut(A, false)}},
    {"AddedRemovedAddedChanged", {added(A), removed(A), added(A), changed(A)}, {addedOut(A, true)}},
    {"ChangedAdded", {changed(A), added(A)}, {changedOut(A), addedOut(A, false)}},
    // The second removal finds the addition and goes with it; the first one stays.
    {"RemovedAddedRemoved", {removed(A), added(A), removed(A)}, {removedOut(A)}},
    // Only changes are reduced to one: a duplicate addition stays, with the same flag.
    {"AddedTwice", {added(A), added(A)}, {addedOut(A, false), addedOut(A, false)}},
    {"AddedTwiceChanged", {added(A), added(A), changed(A)}, {addedOut(A, true), addedOut(A, true)}},
    {"Nothing", {}, {}},
};

class CompressTable : public ::testing::TestWithParam<CompressCase> {};

TEST_P(CompressTable, GivesTheShortestEquivalentList)
{
    EXPECT_EQ(compress(GetParam().events), GetParam().expected);
}

// The same rows with an unrelated symbol around them: other symbols neither disturb the result
// nor get lost, and keep the place of their last event.
TEST_P(CompressTable, IsUndisturbedByAnotherSymbol)
{
    Events events{changed(B)};
    events.insert(events.end(), GetParam().events.begin(), GetParam().events.end());
    events.push_back(changed(B));
    Changes expected = GetParam().expected;
    expected.push_back(changedOut(B));
    EXPECT_EQ(compress(events), expected);
}

INSTANTIATE_TEST_SUITE_P(OneSymbol, CompressTable, ::testing::ValuesIn(s_cases),
                         [](const auto &info) { return std::string(info.param.name); });

TEST(AttributeChangeCompressor, EmptyInputClearsAnOldResult)
{
    AttributeChangeCompressor compressor;
    Changes result{changedOut(A), removedOut(B)};
    compressor.compress({}, result);
    EXPECT_TRUE(result.empty());
}

TEST(AttributeChangeCompressor, ThousandChangesGiveOne)
{
    EXPECT_EQ(compress(Events(1000, changed(A))), Changes{changedOut(A)});
}

TEST(AttributeChangeCompressor, ChangeTakesThePlaceOfItsLastEvent)
{
    EXPECT_EQ(compress({changed(A), changed(B), changed(A)}), (Changes{changedOut(B), changedOut(A)}));
    EXPECT_EQ(compress({added(A), changed(B), changed(A)}), (Changes{addedOut(A, true), changedOut(B)}));
    EXPECT_EQ(compress({added(A), added(B), removed(A), changed(B)}), (Changes{addedOut(B, true)}));
}

// A removal looks back for an addition of its own symbol only.
TEST(AttributeChangeCompressor, AdditionOfAnotherSymbolKeepsTheRemoval)
{
    EXPECT_EQ(compress({added(B), removed(A)}), (Changes{addedOut(B, false), removedOut(A)}));
    EXPECT_EQ(compress({added(A), changed(B), removed(B)}), (Changes{addedOut(A, false), removedOut(B)}));
}

TEST(AttributeChangeCompressor, OtherEventTypesPassInPlace)
{
    const NodeWatcher::Event nodeAdded{NodeWatcher::NODE_ADDED, B};
    const NodeWatcher::Event nodeRemoved{NodeWatcher::NODE_REMOVED, B};
    EXPECT_EQ(compress({nodeAdded, changed(A), nodeAdded, nodeRemoved}),
              (Changes{{NodeWatcher::NODE_ADDED, B, false}, changedOut(A), {NodeWatcher::NODE_ADDED, B, false},
                       {NodeWatcher::NODE_REMOVED, B, false}}));
}

// The compressor is reused from update to update: nothing of one call shows in the next.
TEST(AttributeChangeCompressor, KeepsNothingButScratchCapacity)
{
    AttributeChangeCompressor compressor;
    Changes result;
    Events many;
    for (unsigned symbol = 1; symbol <= 200; ++symbol)
        many.push_back(changed(symbol));
    compressor.compress(many, result);
    EXPECT_EQ(result.size(), 200u);
    const std::size_t capacity = compressor.scratchCapacity();
    EXPECT_GE(capacity, 200u);

    compressor.compress({added(A)}, result);
    EXPECT_EQ(result, Changes{addedOut(A, false)});
    compressor.compress({changed(A)}, result);
    EXPECT_EQ(result, Changes{changedOut(A)}); // the earlier addition doesn't absorb it
    compressor.compress({removed(B)}, result);
    EXPECT_EQ(result, Changes{removedOut(B)});
    EXPECT_EQ(compressor.scratchCapacity(), capacity);
}

} // namespace
