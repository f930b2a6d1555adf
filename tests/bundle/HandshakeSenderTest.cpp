#include "loomy/bundle/HandshakeSender.h"

#include "BundleTestUtil.h"

using namespace Loomy;

// Each record written before the first collection follows the "info" record in the first bundle;
// the collected bundle keeps its bytes while the sender writes its next records.
TEST(HandshakeSender, RecordsLeaveAsExactBytesBehindTheInfoRecord)
{
    const QByteArray info = unhex("40000000 04000000 696e666f 02000000"  // size 64, "info", 2 entries in key order
                                  "0b000000 6170706c69636174696f6e 00 05000000 4c6f6f6d79 000000"  // application=Loomy
                                  "07000000 76657273696f6e 00 06000000 322e31342e34 0000");        // version=2.14.4
    const QByteArray loadModule = unhex("0b000000 6c6f61642d6d6f64756c65 00");
    const QByteArray mAndDone = unhex("01000000 4d 000000 01000000 0b000000 6465736372697074696f6e 00 04000000"
                                      "646f6e65");
    struct Case { const char *name; std::function<void(HandshakeSender &)> write; QByteArray wire; };
    const Case cases[] = {  // "M" and a map of description=done follow "ok" and "error"
        {"InfoOnly", [](HandshakeSender &) {}, {}},
        {"LoadModule", [](HandshakeSender &s) { EXPECT_EQ(s.registerMessageType("Ab.C"), 1u); },
         unhex("20000000") + loadModule + unhex("01000000 04000000 41622e43 00000000")},
        {"Ok", [](HandshakeSender &s) { s.sendOk("load-module", "M", "done"); },
         unhex("3c000000 02000000 6f6b 0000") + loadModule + mAndDone},
        {"Error", [](HandshakeSender &s) { s.sendError("load-module", "M", "done"); },
         unhex("40000000 05000000 6572726f72 000000") + loadModule + mAndDone},
    };
    for (const Case &c : cases) {
        HandshakeSender sender;
        c.write(sender);
        std::vector<Bundle> bundles;
        unsigned nextId = 4;
        BundleOutput output(bundles, nextId, 9);
        sender.writeUpdates(output);
        sender.sendOk("c", "m", "d");
        ASSERT_EQ(bundles.size(), 1u) << c.name;
        const QByteArray body = info + c.wire;
        EXPECT_EQ(hex(bundles[0].data()), hex(char(body.size()) + unhex("000000 00000000 04000000 09000000") + body))
            << c.name;
    }
}
