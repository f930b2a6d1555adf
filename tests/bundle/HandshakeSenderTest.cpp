#include "loomy/bundle/HandshakeSender.h"

#include "BundleTestUtil.h"

#include <gtest/gtest.h>

#include <functional>

using namespace Loomy;

namespace {

const char s_infoRecord[] =
    "40000000"                            // record size 64
    "04000000 696e666f"                   // "info"
    "02000000"                            // two entries, in key order
    "0b000000 6170706c69636174696f6e 00"  // "application"
    "05000000 4c6f6f6d79 000000"          // "Loomy"
    "07000000 76657273696f6e 00"          // "version"
    "06000000 322e31342e34 0000";         // "2.14.4"

// Collects once from a sender, with the id counter starting at `nextId`.
std::vector<Bundle> collect(HandshakeSender &sender, unsigned &nextId, unsigned ackId)
{
    std::vector<Bundle> bundles;
    BundleOutput output(bundles, nextId, ackId);
    sender.writeUpdates(output);
    return bundles;
}

} // namespace

TEST(HandshakeSender, FirstBundleHoldsOnlyTheInfoRecord)
{
    HandshakeSender sender;
    unsigned nextId = 1;
    const std::vector<Bundle> bundles = collect(sender, nextId, 0);
    ASSERT_EQ(bundles.size(), 1u);
    EXPECT_EQ(hex(bundles[0].data()), hex(unhex("44000000 00000000 01000000 00000000") + unhex(s_infoRecord)));
    EXPECT_EQ(nextId, 2u);
}

struct RecordCase { const char *name; std::function<void(HandshakeSender &)> write; const char *wire; };
const RecordCase s_records[] = {
    {"LoadModule", [](HandshakeSender &s) { EXPECT_EQ(s.registerMessageType("Ab.C"), 1u); },
     "20000000"                           // record size 32
     "0b000000 6c6f61642d6d6f64756c65 00" // "load-module"
     "01000000"                           // messageType 1
     "04000000 41622e43"                  // "Ab.C"
     "00000000"},                         // empty map
    {"Ok", [](HandshakeSender &s) { s.sendOk("load-module", "M", "done"); },
     "3c000000"                           // record size 60
     "02000000 6f6b 0000"                 // "ok"
     "0b000000 6c6f61642d6d6f64756c65 00" // "load-module"
     "01000000 4d 000000"                 // "M"
     "01000000"                           // one entry
     "0b000000 6465736372697074696f6e 00" // "description"
     "04000000 646f6e65"},                // "done"
    {"Error", [](HandshakeSender &s) { s.sendError("load-module", "M", "done"); },
     "40000000"                           // record size 64
     "05000000 6572726f72 000000"         // "error"
     "0b000000 6c6f61642d6d6f64756c65 00"
     "01000000 4d 000000"
     "01000000"
     "0b000000 6465736372697074696f6e 00"
     "04000000 646f6e65"},
};
class HandshakeRecord : public ::testing::TestWithParam<RecordCase> {};
TEST_P(HandshakeRecord, LeavesAsExactBytesInTheNextBundle)
{
    const RecordCase &c = GetParam();
    HandshakeSender sender;
    unsigned nextId = 4;
    collect(sender, nextId, 0);
    c.write(sender);
    const std::vector<Bundle> bundles = collect(sender, nextId, 9);
    ASSERT_EQ(bundles.size(), 1u);
    const QByteArray body = unhex(c.wire);
    const QByteArray header = unhex("00000000 00000000 05000000 09000000");
    EXPECT_EQ(hex(bundles[0].data().left(16)), hex(char(body.size()) + header.mid(1)));
    EXPECT_EQ(hex(bundles[0].data().mid(16)), hex(body));
}
INSTANTIATE_TEST_SUITE_P(Wire, HandshakeRecord, ::testing::ValuesIn(s_records),
                         [](const auto &i) { return std::string(i.param.name); });

TEST(HandshakeSender, NothingWrittenAddsNoBundleAndUsesNoId)
{
    HandshakeSender sender;
    unsigned nextId = 1;
    collect(sender, nextId, 0);
    EXPECT_TRUE(collect(sender, nextId, 0).empty());
    EXPECT_EQ(nextId, 2u);
}

TEST(HandshakeSender, CollectedBundleKeepsItsBytesWhileNewRecordsAreWritten)
{
    HandshakeSender sender;
    unsigned nextId = 1;
    const std::vector<Bundle> first = collect(sender, nextId, 0);
    const QByteArray firstBytes = first[0].data();
    sender.sendOk("c", "m", "d");
    EXPECT_EQ(hex(first[0].data()), hex(firstBytes));
    const std::vector<Bundle> second = collect(sender, nextId, 0);
    ASSERT_EQ(second.size(), 1u);
    EXPECT_EQ(handshakeRecords(second[0]), QStringList{"ok c m description=d"});
    EXPECT_EQ(second[0].bundleId(), 2u);
}
