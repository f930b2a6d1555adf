#include "SyncTestUtil.h"

#include <stdexcept>

using Loomy::LoomySessionAttribute;

namespace {

// No session here: the storage holds only the records a test creates.
class AttributeStorageTest : public ::testing::Test
{
protected:
    template <typename T>
    void add(const QByteArray &path, const T &value) { EXPECT_TRUE(node.addDeepAttribute(path, new Tamarack::AttributeT<T>(nullptr, "", value))); }

    Tamarack::Node app;
    Loomy::RemoteNode &node = *new Loomy::RemoteNode(&app, "remote");
    Loomy::AttributeStorage storage{node};
};

// A dummy reader steps over one value: a fixed size rounded up to 4, or a length word and padded
// bytes. Past the end (position 0 below) it throws.
TEST(DummyDeserializer, StepsOverOneValue)
{
    struct { unsigned size; QByteArray wire; unsigned position; } const cases[] = {
        {6, QByteArray(12, 'x'), 8}, {4, QByteArray(4, 'x'), 4}, {6, QByteArray(6, 'x'), 8},
        {0, (Body() << 5 << 0 << 0 << 99).bytes(), 12}, {0, (Body() << 0 << 99).bytes(), 4},
        {6, QByteArray(5, 'x'), 0}, {0, (Body() << 5 << 0).bytes(), 0}, {0, QByteArray(3, 'x'), 0},
        {0, (Body() << 0xfffffffdu << 0 << 0).bytes(), 0}, // a hostile length
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(hex(c.wire) + " size " + std::to_string(c.size));
        LoomySessionAttribute record;
        record.deserializer = LoomySessionAttribute::createDummyDeserializer(c.size);
        try {
            EXPECT_EQ(skipped(record, c.wire), c.position);
        } catch (const std::out_of_range &e) {
            EXPECT_EQ(c.position, 0u);
            EXPECT_STREQ(e.what(), "BundleReader::read # tried to read past the end");
        }
    }
}

// Entries under "schema/<path>/<key>" print as properties of <path>; a key may not contain "/".
TEST_F(AttributeStorageTest, DebugDumpShowsSchemaEntriesAsProperties)
{
    add("a", 1.5f);
    add("schema/a/unit", QString("mm"));
    add("schema/a/max", 10);
    add("schema/a/deep/x", 1);
    add("schema/ab/unit", QString("cm")); // another path that begins with "a"
    add("b", 2);
    node.update();
    for (const char *path : {"a", "schema/a/unit", "schema/a/max", "schema/a/deep/x", "schema/ab/unit", "b", "schema/a/gone", "gone"})
        storage.create(path); // the last two have no attribute
    testing::internal::CaptureStdout();
    storage.debugDump();
    std::fflush(stdout);
    EXPECT_EQ(testing::internal::GetCapturedStdout(),
              QString::asprintf("%-70s %s\n", "a", "Tamarack::AttributeT<float, void> <1.5>").toStdString()
                  + "    gone                : -\n    max                 : 10\n    unit                : mm\n"
                  + QString::asprintf("%-70s %s\n%-70s -\n", "b", "Tamarack::AttributeT<int, void> <2>", "gone").toStdString());
}

// findOrCreate takes a name's record or makes one under the name's symbol; createForSymbol makes
// one for a symbol the caller has, filed by name as create() files it.
TEST_F(AttributeStorageTest, FindOrCreateAndCreateForSymbolFileUnderTheNamesSymbol)
{
    LoomySessionAttribute *made = storage.findOrCreate("a/b");
    EXPECT_NE(made->writeSymbol, 0u);
    EXPECT_EQ(made->writeSymbol, node.symbols().lookup("a/b"));
    EXPECT_EQ(storage.findOrCreate("a/b"), made);
    EXPECT_EQ(storage.findByWriteSymbol(made->writeSymbol), made);
    const unsigned symbol = node.symbols().lookupOrDefine("c");
    LoomySessionAttribute *known = storage.createForSymbol(symbol);
    EXPECT_EQ(known->writeSymbol, symbol);
    EXPECT_EQ(storage.findByName("c"), known);
    EXPECT_EQ(storage.findOrCreate("c"), known);
}

// A second create() of a name takes the name index; the first record keeps the symbol index.
TEST_F(AttributeStorageTest, ASecondRecordOfANameTakesTheNameButNotTheSymbol)
{
    LoomySessionAttribute *first = storage.create("n");
    LoomySessionAttribute *second = storage.create("n");
    ASSERT_NE(first, second);
    EXPECT_EQ(second->writeSymbol, first->writeSymbol);
    EXPECT_EQ(storage.findByWriteSymbol(first->writeSymbol), first);
    EXPECT_EQ(storage.findByName("n"), second);
    EXPECT_EQ(storage.findOrCreate("n"), second);
    EXPECT_EQ(storage.findByName("m"), nullptr);
}

} // namespace
