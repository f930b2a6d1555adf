#include "loomy/bundle/HandshakeReceiver.h"

#include "loomy/bundle/HandshakeSender.h"

#include "BundleTestUtil.h"
#include "common/TraceCapture.h"

using namespace Loomy;

namespace {
const QByteArray s_unknownRecord = unhex("10000000 05000000 68656c6c6f 000000 deadbeef");  // "hello" + 4 bytes
const int s_infoSize = 68;  // the peer's "info" record, which ends in 2 bytes of padding

class HandshakeReceiverTest : public ::testing::Test
{
protected:
    void SetUp() override { dispatcher.collectUpdates(); }  // drops this side's "info"
    void handle(const QByteArray &body)
    {
        const Bundle bundle = withBody(body);
        BundleReader reader(bundle);
        receiver.handleBundle(reader);
    }
    // The body of a peer's first bundle: its "info" record, then the records `write` adds.
    static QByteArray peerBody(const std::function<void(HandshakeSender &)> &write)
    {
        HandshakeSender peer;
        write(peer);
        std::vector<Bundle> bundles;
        unsigned nextId = 1;
        BundleOutput output(bundles, nextId, 0);
        peer.writeUpdates(output);
        return bundles.at(0).data().mid(16);
    }
    TraceCapture trace;
    BundleDispatcher dispatcher;
    HandshakeReceiver receiver{dispatcher};
};
} // namespace

// Unknown commands are skipped by record size, "info" and "ok" silently; "error" logs its map in key
// order, not wire order; the "load-module" records bind with their config and share one answer.
TEST_F(HandshakeReceiverTest, HandlesEveryRecordOfABundleInOrder)
{
    auto a = std::make_shared<WordReceiver>("Test.A"), b = std::make_shared<WordReceiver>("Test.B");
    dispatcher.preloadReceiver(a);
    dispatcher.preloadReceiver(b);
    handle(s_unknownRecord
           + peerBody([](HandshakeSender &peer) { peer.sendOk("load-module", "M", "Module loaded successfully"); })
           + unhex("5c000000 05000000 6572726f72 000000 0b000000 6c6f61642d6d6f64756c65 00 01000000 4d 000000"
                   "02000000 01000000 7a 000000 04000000 6c617374"
                   "0b000000 6465736372697074696f6e 00 10000000 4d6f64756c65206e6f7420666f756e64"
                   "24000000 0b000000 6c6f61642d6d6f64756c65 00 07000000 06000000 546573742e42 0000 00000000"
                   "34000000 0b000000 6c6f61642d6d6f64756c65 00 08000000 06000000 546573742e41 0000"
                   "01000000 01000000 6b000000 01000000 76000000"));
    EXPECT_EQ(trace.lines(), (QStringList{"HandshakeReceiver::handleBundle # Unknown command 'hello'",
                                          "HandshakeReceiver::handleBundle # error, command: load-module, module: M, "
                                          "additional info: description: Module not found, z: last"}));
    EXPECT_EQ(describe(dispatcher.collectUpdates()),
              QStringList{"0 2 0: ok load-module Test.B" + s_loaded + " | ok load-module Test.A" + s_loaded});
    EXPECT_EQ(a->configs, (std::vector<QMap<QString, QString>>{{{"k", "v"}}}));
}

// A record size smaller than its command, or reaching past the end, throws. So does every prefix
// that lacks a byte of a record other than its last padding, and only with the reader's exception.
TEST_F(HandshakeReceiverTest, BadRecordSizesAndEveryTruncatedRecordPrefixThrow)
{
    const std::string corrupted = "out_of_range: HandshakeReceiver::handleBundle # Corrupted message";
    const std::pair<const char *, std::string> sizes[] = {
        {"08000000 05000000 68656c6c6f 000000", corrupted},
        {"0b000000 05000000 68656c6c6f 000000 00000000", corrupted},
        {"11000000 05000000 68656c6c6f 000000 deadbeef", s_readPastEnd},
        {"ffffffff 05000000 68656c6c6f 000000 deadbeef", s_readPastEnd},
    };
    for (const auto &c : sizes)
        EXPECT_EQ(thrown([&] { handle(unhex(c.first)); }), c.second) << c.first;
    const QByteArray infoAndLoad = peerBody([](HandshakeSender &peer) { peer.registerMessageType("Test.Name"); });
    struct Case { const char *name; QByteArray record; int padding; };
    const Case cases[] = {
        {"info", infoAndLoad.left(s_infoSize), 2},
        {"load-module", infoAndLoad.mid(s_infoSize), 0},
        {"error", peerBody([](HandshakeSender &p) { p.sendError("load-module", "M", "done"); }).mid(s_infoSize), 0},
        {"unknown", s_unknownRecord, 0},
    };
    for (const Case &c : cases) {
        for (int len = 1; len < c.record.size(); ++len) {
            const std::string expected = len < c.record.size() - c.padding ? s_readPastEnd : "nothing thrown";
            EXPECT_EQ(thrown([&] { handle(c.record.left(len)); }), expected) << c.name << " " << len;
        }
    }
    EXPECT_TRUE(dispatcher.collectUpdates().empty());  // no load-module prefix reached the dispatcher
}
