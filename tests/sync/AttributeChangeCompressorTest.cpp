#include "loomy/sync/AttributeChangeCompressor.h"

#include <gtest/gtest.h>

#include <vector>

using namespace Loomy;

namespace Loomy {
void PrintTo(const ChangeData &change, std::ostream *os) // as "added 7 +value"
{
    static const char *const names[] = {"added", "removed", "changed", "node-added", "node-removed"};
    *os << names[change.type] << ' ' << change.symbol << (change.sendValue ? " +value" : "");
}
} // namespace Loomy

namespace {

using Events = std::vector<NodeWatcher::Event>;
using Changes = std::vector<ChangeData>;
const unsigned A = 7, B = 9, C = 11;

NodeWatcher::Event added(unsigned s) { return {NodeWatcher::ATTRIBUTE_ADDED, s}; }
NodeWatcher::Event removed(unsigned s) { return {NodeWatcher::ATTRIBUTE_REMOVED, s}; }
NodeWatcher::Event changed(unsigned s) { return {NodeWatcher::ATTRIBUTE_CHANGED, s}; }
ChangeData addedOut(unsigned s, bool sendValue) { return {NodeWatcher::ATTRIBUTE_ADDED, s, sendValue}; }
ChangeData removedOut(unsigned s) { return {NodeWatcher::ATTRIBUTE_REMOVED, s, false}; }
ChangeData changedOut(unsigned s) { return {NodeWatcher::ATTRIBUTE_CHANGED, s, false}; }

struct CompressCase { const char *name; Events events; Changes expected; };
const CompressCase s_cases[] = {
    {"Nothing", {}, {}},
    {"ChangedThrice", {changed(A), changed(A), changed(A)}, {changedOut(A)}},
    {"Added", {added(A)}, {addedOut(A, false)}},
    {"AddedChanged", {added(A), changed(A)}, {addedOut(A, true)}},
    {"AddedRemoved", {added(A), removed(A)}, {}},
    {"AddedChangedRemoved", {added(A), changed(A), removed(A)}, {}},
    {"Removed", {removed(A)}, {removedOut(A)}},
    {"ChangedRemoved", {changed(A), removed(A)}, {removedOut(A)}},
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
    {"ThousandChanges", Events(1000, changed(A)), {changedOut(A)}},
    // A change takes the place of its symbol's last event; an addition keeps its own place.
    {"ChangeMovesToItsLastEvent", {changed(A), changed(B), changed(A)}, {changedOut(B), changedOut(A)}},
    {"ChangeFoldsIntoAnEarlierAddition", {added(A), changed(B), changed(A)}, {addedOut(A, true), changedOut(B)}},
    {"RemovalTakesOnlyItsOwnAddition", {added(A), added(B), removed(A), changed(B)}, {addedOut(B, true)}},
    {"AdditionOfAnotherSymbolKeepsTheRemoval", {added(B), removed(A)}, {addedOut(B, false), removedOut(A)}},
    {"FarSymbol", {added(0xfffffff0u), removed(A), changed(0xfffffff0u)}, {addedOut(0xfffffff0u, true), removedOut(A)}},
    {"NodeEventsPassInPlace",
     {{NodeWatcher::NODE_ADDED, B}, changed(A), {NodeWatcher::NODE_ADDED, B}, {NodeWatcher::NODE_REMOVED, B}},
     {{NodeWatcher::NODE_ADDED, B, false}, changedOut(A), {NodeWatcher::NODE_ADDED, B, false}, {NodeWatcher::NODE_REMOVED, B, false}}},
};

class CompressTable : public ::testing::TestWithParam<CompressCase> {};
TEST_P(CompressTable, GivesTheShortestEquivalentList)
{
    AttributeChangeCompressor compressor;
    Changes result{removedOut(C)}; // an old result is replaced
    compressor.compress(GetParam().events, result);
    EXPECT_EQ(result, GetParam().expected);
}
// What one call learns of a symbol must not leak into the next.
TEST(CompressReuse, OneCompressorGivesEveryRowItsOwnResult)
{
    AttributeChangeCompressor compressor;
    for (int pass = 0; pass < 2; ++pass) {
        for (const CompressCase &c : s_cases) {
            Changes result;
            compressor.compress(c.events, result);
            EXPECT_EQ(result, c.expected) << c.name;
        }
    }
}
INSTANTIATE_TEST_SUITE_P(Rows, CompressTable, ::testing::ValuesIn(s_cases), [](const auto &i) { return std::string(i.param.name); });

// Reused from update to update, it keeps nothing of a call but the capacity of its scratch list.
TEST(AttributeChangeCompressor, KeepsOnlyTheCapacityOfItsScratchList)
{
    AttributeChangeCompressor compressor;
    Events many;
    for (unsigned symbol = 1; symbol <= 200; ++symbol)
        many.push_back(changed(symbol));
    Changes result;
    compressor.compress(many, result);
    const std::size_t capacity = compressor.scratchCapacity();
    EXPECT_GE(capacity, 200u);
    compressor.compress({added(A)}, result);
    compressor.compress({changed(A)}, result);
    EXPECT_EQ(result, Changes{changedOut(A)}); // the earlier addition doesn't absorb it
    EXPECT_EQ(compressor.scratchCapacity(), capacity);
}

} // namespace
