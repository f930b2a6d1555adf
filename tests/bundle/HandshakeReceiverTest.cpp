#include "loomy/bundle/HandshakeReceiver.h"

#include "loomy/bundle/BundleDispatcher.h"
#include "loomy/bundle/BundleReader.h"
#include "loomy/bundle/BundleWriter.h"
#include "loomy/bundle/HandshakeSender.h"

#include "BundleTestUtil.h"
#include "common/TraceCapture.h"

#include <gtest/gtest.h>

using namespace Loomy;

namespace {

class Module : public BundleReceiver
{
public:
    using BundleReceiver::BundleReceiver;
    void handleBundle(BundleReader &) override {}
    void initialize(const QMap<QString, QString> &config) override { configs.push_back(config); }
    std::vector<QMap<QString, QString>> configs;
};

// "error" for module "M" with the given map, as the peer writes it.
QByteArray errorRecord(const QMap<QString, QString> &map)
{
    Bundle bundle;
    BundleWriter writer(bundle);
    SenderGuard record(writer);
    writeString(writer, "error");
    writeString(writer, "load-module");
    writeString(writer, "M");
    writer.write(quint32(map.size()));
    for (auto it = map.cbegin(); it != map.cend(); ++it) {
        writeString(writer, it.key());
        writeString(writer, it.value());
    }
    return bundle.data().mid(16);
}

const QByteArray s_unknownRecord = unhex("10000000 05000000 68656c6c6f 000000 deadbeef");  // "hello" + 4

class HandshakeReceiverTest : public ::testing::Test
{
protected:
    void SetUp() override { dispatcher.collectUpdates(); }  // drops the "info" bundle

    void handle(const QByteArray &body)
    {
        const Bundle bundle = withBody(body);
        BundleReader reader(bundle);
        receiver.handleBundle(reader);
    }
    // The records this side answers with, from the next collection.
    QStringList answers()
    {
        const std::vector<Bundle> bundles = dispatcher.collectUpdates();
        return bundles.empty() ? QStringList() : handshakeRecords(bundles.front());
    }

    TraceCapture trace;
    BundleDispatcher dispatcher;
    HandshakeReceiver receiver{dispatcher};
};

} // namespace

TEST_F(HandshakeReceiverTest, UnknownCommandIsSkippedByItsRecordSize)
{
    handle(s_unknownRecord + errorRecord({}));
    EXPECT_EQ(trace.lines(), (QStringList{
        "HandshakeReceiver::handleBundle # Unknown command 'hello'",
        "HandshakeReceiver::handleBundle # error, command: load-module, module: M, additional info: "}));
}

TEST_F(HandshakeReceiverTest, RecordSizeSmallerThanItsCommandIsCorrupted)
{
    const std::string corrupted = "out_of_range: HandshakeReceiver::handleBundle # Corrupted message";
    EXPECT_EQ(thrown([&] { handle(unhex("08000000 05000000 68656c6c6f 000000")); }), corrupted);
    EXPECT_EQ(thrown([&] { handle(unhex("0b000000 05000000 68656c6c6f 000000 00000000")); }), corrupted);
}

TEST_F(HandshakeReceiverTest, UnknownRecordReachingPastTheEndThrows)
{
    EXPECT_EQ(thrown([&] { handle(unhex("11000000 05000000 68656c6c6f 000000 deadbeef")); }), s_readPastEnd);
    EXPECT_EQ(thrown([&] { handle(unhex("ffffffff 05000000 68656c6c6f 000000 deadbeef")); }), s_readPastEnd);
}

TEST_F(HandshakeReceiverTest, ErrorLogsMapEntriesInKeyOrder)
{
    handle(errorRecord({{"z", "last"}, {"description", "Module not found"}}));
    EXPECT_EQ(trace.lines(Kestrel::Trace::Level::Error), QStringList{
        "HandshakeReceiver::handleBundle # error, command: load-module, module: M, "
        "additional info: description: Module not found, z: last"});
    EXPECT_TRUE(answers().isEmpty());
}

TEST_F(HandshakeReceiverTest, InfoAndOkAreDroppedSilently)
{
    HandshakeSender peer;  // its first bundle carries "info"
    peer.sendOk("load-module", "M", "Module loaded successfully");
    std::vector<Bundle> bundles;
    unsigned nextId = 1;
    BundleOutput output(bundles, nextId, 0);
    peer.writeUpdates(output);
    BundleReader reader(bundles.at(0));
    receiver.handleBundle(reader);
    EXPECT_EQ(reader.position(), unsigned(bundles[0].size()));
    EXPECT_TRUE(trace.lines().isEmpty());
    EXPECT_TRUE(answers().isEmpty());
}

TEST_F(HandshakeReceiverTest, TwoLoadModulesInOneBundleShareTheAnswerBundle)
{
    auto a = std::make_shared<Module>("Test.A");
    auto b = std::make_shared<Module>("Test.B");
    dispatcher.preloadReceiver(a);
    dispatcher.preloadReceiver(b);
    handle(unhex("24000000 0b000000 6c6f61642d6d6f64756c65 00 07000000 06000000 546573742e42 0000 00000000"
                 "34000000 0b000000 6c6f61642d6d6f64756c65 00 08000000 06000000 546573742e41 0000"
                 "01000000 01000000 6b000000 01000000 76000000"));
    EXPECT_EQ(answers(), (QStringList{"ok load-module Test.B description=Module loaded successfully",
                                      "ok load-module Test.A description=Module loaded successfully"}));
    ASSERT_EQ(a->configs.size(), 1u);
    EXPECT_EQ(a->configs[0], (QMap<QString, QString>{{"k", "v"}}));
    EXPECT_EQ(b->configs.size(), 1u);
}

// Every prefix that lacks a byte of a record other than its last padding throws, and only the
// reader's exception; none reads outside the bundle.
TEST_F(HandshakeReceiverTest, EveryTruncatedRecordPrefixThrows)
{
    HandshakeSender peer;
    peer.registerMessageType("Test.Name");
    std::vector<Bundle> bundles;
    unsigned nextId = 1;
    BundleOutput output(bundles, nextId, 0);
    peer.writeUpdates(output);
    const QByteArray infoAndLoad = bundles.at(0).data().mid(16);
    const int infoSize = 68;  // ends in "2.14.4" and 2 bytes of padding

    struct Case { const char *name; QByteArray record; int padding; };
    const Case cases[] = {
        {"info", infoAndLoad.left(infoSize), 2},
        {"load-module", infoAndLoad.mid(infoSize), 0},
        {"error", errorRecord({{"description", "done"}}), 0},
        {"unknown", s_unknownRecord, 0},
    };
    for (const Case &c : cases) {
        for (int len = 1; len < c.record.size(); ++len) {
            const std::string expected = len < c.record.size() - c.padding ? s_readPastEnd : "nothing thrown";
            EXPECT_EQ(thrown([&] { handle(c.record.left(len)); }), expected) << c.name << " " << len;
        }
    }
    // The load-module prefixes never reached the dispatcher.
    EXPECT_TRUE(answers().isEmpty());
}
