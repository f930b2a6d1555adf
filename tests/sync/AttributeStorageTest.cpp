#include "loomy/sync/AttributeStorage.h"

#include "loomy/bundle/BundleReader.h"
#include "loomy/sync/RemoteNode.h"

#include "common/TraceCapture.h"
#include "kestrel/SymbolRegistry.h"
#include "tamarack/AttributeT.h"

#include <gtest/gtest.h>

#include <stdexcept>
#include <string>

using Loomy::AttributeStorage;
using Loomy::BundleReaderCore;
using Loomy::LoomySessionAttribute;
using Loomy::RemoteNode;
using Tamarack::Node;

namespace {

class AttributeStorageTest : public ::testing::Test
{
protected:
    template <typename T>
    Tamarack::AttributeT<T> *add(const QByteArray &path, const T &value)
    {
        auto *attribute = new Tamarack::AttributeT<T>;
        attribute->setValue(value);
        EXPECT_TRUE(node.addDeepAttribute(path, attribute));
        node.update();
        return attribute;
    }
    std::string dump()
    {
        testing::internal::CaptureStdout();
        storage.debugDump();
        std::fflush(stdout);
        return testing::internal::GetCapturedStdout();
    }

    Node app;
    RemoteNode &node = *new RemoteNode(&app, "remote");
    AttributeStorage storage{node};
    TraceCapture trace;
};

TEST_F(AttributeStorageTest, NewStorageFindsNothing)
{
    EXPECT_EQ(storage.findByReadSymbol(0), nullptr);
    EXPECT_EQ(storage.findByWriteSymbol(0), nullptr);
    EXPECT_EQ(storage.findByName(""), nullptr);
}

TEST_F(AttributeStorageTest, CreateTakesTheNodesSymbolOrDefinesOne)
{
    add("known", 1);
    const unsigned known = node.symbols().lookup("known");
    ASSERT_NE(known, 0u);
    LoomySessionAttribute *first = storage.create("known");
    EXPECT_EQ(first->writeSymbol, known);

    ASSERT_EQ(node.symbols().lookup("fresh"), 0u);
    LoomySessionAttribute *second = storage.create("fresh");
    EXPECT_NE(second->writeSymbol, 0u);
    EXPECT_EQ(node.symbols().lookup("fresh"), second->writeSymbol);
    EXPECT_EQ(node.symbols().name(second->writeSymbol), QByteArray("fresh"));

    EXPECT_EQ(storage.findByName("fresh"), second);
    EXPECT_EQ(storage.findByWriteSymbol(second->writeSymbol), second);
    EXPECT_EQ(storage.findByReadSymbol(second->writeSymbol), nullptr); // only the peer's numbers
    EXPECT_TRUE(second->localOrigin);
    EXPECT_FALSE(second->removedByPeer);
    EXPECT_FALSE(second->resendValue);
    EXPECT_FALSE(second->serializer);
    EXPECT_FALSE(second->deserializer);
}

// Callers look the name up first; a second create shows why.
TEST_F(AttributeStorageTest, CreateTwiceWithOneNameSplitsTheIndexes)
{
    LoomySessionAttribute *first = storage.create("twice");
    LoomySessionAttribute *second = storage.create("twice");
    ASSERT_NE(first, second);
    EXPECT_EQ(first->writeSymbol, second->writeSymbol);
    EXPECT_EQ(storage.findByName("twice"), second);
    EXPECT_EQ(storage.findByWriteSymbol(first->writeSymbol), first);
    EXPECT_TRUE(trace.lines().isEmpty());
    // Both are released by the storage (checked under the address sanitizer's leak check).
}

TEST_F(AttributeStorageTest, ReadSymbolClashKeepsTheEarlierRecord)
{
    LoomySessionAttribute *a = storage.create("a");
    LoomySessionAttribute *b = storage.create("b");
    storage.indexByReadSymbol(40, a);
    storage.indexByReadSymbol(40, a); // the same pair again is harmless
    EXPECT_TRUE(trace.lines().isEmpty());

    storage.indexByReadSymbol(40, b);
    EXPECT_EQ(trace.lines(),
              QStringList{"AttributeStorage::indexByReadSymbol # Symbol already points to some other session attribute"});
    EXPECT_EQ(storage.findByReadSymbol(40), a);

    // One record may be reached by several read symbols; it is still deleted once.
    storage.indexByReadSymbol(41, a);
    EXPECT_EQ(storage.findByReadSymbol(41), a);
}

struct SkipCase
{
    const char *name;
    unsigned size;          // argument of createDummyDeserializer
    QByteArray wire;        // bytes from the cursor on
    unsigned position;      // where the cursor must stand afterwards; 0: throws
};

QByteArray le(quint32 word)
{
    return QByteArray(reinterpret_cast<const char *>(&word), 4);
}

const SkipCase s_skips[] = {
    {"FixedSixRoundsToEight", 6, QByteArray(12, 'x'), 8},
    {"FixedFour", 4, QByteArray(4, 'x'), 4},
    {"FixedSixExactlyAtTheEnd", 6, QByteArray(6, 'x'), 8},
    {"DynamicFiveIsWordAndEight", 0, le(5) + QByteArray(8, 'x') + le(99), 12},
    {"DynamicEmpty", 0, le(0) + le(99), 4},
    {"FixedSixOnFive", 6, QByteArray(5, 'x'), 0},
    {"DynamicFiveOnFour", 0, le(5) + QByteArray(4, 'x'), 0},
    {"DynamicWithoutLengthWord", 0, QByteArray(3, 'x'), 0},
    {"HostileLength", 0, le(0xfffffffdu) + QByteArray(8, 'x'), 0},
};

class DummyDeserializer : public ::testing::TestWithParam<SkipCase> {};

TEST_P(DummyDeserializer, StepsOverOneValue)
{
    const SkipCase &c = GetParam();
    const QByteArray wire = c.wire;
    BundleReaderCore reader(wire);
    auto skip = LoomySessionAttribute::createDummyDeserializer(c.size);
    if (c.position == 0) {
        try {
            skip(reader);
            FAIL() << "nothing thrown";
        } catch (const std::out_of_range &e) {
            EXPECT_STREQ(e.what(), "BundleReader::read # tried to read past the end");
        }
        return;
    }
    skip(reader);
    EXPECT_EQ(reader.position(), c.position);
}

INSTANTIATE_TEST_SUITE_P(Skips, DummyDeserializer, ::testing::ValuesIn(s_skips),
                         [](const auto &info) { return std::string(info.param.name); });

TEST_F(AttributeStorageTest, DebugDumpShowsSchemaEntriesAsProperties)
{
    add("a", 1.5f);
    add("schema/a/unit", QString("mm"));
    add("schema/a/max", 10);
    add("schema/a/deep/x", 1);   // a key may not contain "/"
    add("schema/ab/unit", QString("cm")); // a different path that begins with "a"
    add("b", 2);
    for (const char *path : {"a", "schema/a/unit", "schema/a/max", "schema/a/deep/x", "schema/ab/unit", "b"})
        storage.create(path);
    storage.create("schema/a/gone"); // a property whose attribute isn't there
    storage.create("gone");          // a record whose attribute isn't there

    const std::string expected =
        QString::asprintf("%-70s %s%s\n", "a", "Tamarack::AttributeT<float, void>", " <1.5>").toStdString()
        + "    gone                : -\n"
        + "    max                 : 10\n"
        + "    unit                : mm\n"
        + QString::asprintf("%-70s %s%s\n", "b", "Tamarack::AttributeT<int, void>", " <2>").toStdString()
        + QString::asprintf("%-70s %s\n", "gone", "-").toStdString();
    EXPECT_EQ(dump(), expected);
}

} // namespace
