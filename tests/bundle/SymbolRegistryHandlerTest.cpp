#include "loomy/bundle/SymbolRegistryHandler.h"

#include "loomy/bundle/BundleReader.h"
#include "kestrel/SymbolRegistry.h"

#include "BundleTestUtil.h"

#include <gtest/gtest.h>

#include <utility>
#include <vector>

using namespace Loomy;

namespace {

using Names = std::vector<std::pair<unsigned, QByteArray>>;

// Every (symbol, name) of the registry that `expected` mentions, read back by symbol and by name.
Names defined(const Kestrel::SymbolRegistry &registry, const Names &expected)
{
    Names found;
    for (const auto &entry : expected) {
        const QByteArray name = registry.name(entry.first);
        if (!name.isNull() && registry.lookup(name) == entry.first)
            found.emplace_back(entry.first, name);
    }
    return found;
}

void receive(Kestrel::SymbolRegistry &registry, const QByteArray &body)
{
    SymbolRegistryReceiver receiver(registry);
    const Bundle bundle = withBody(body);
    BundleReader reader(bundle);
    receiver.handleBundle(reader);
    EXPECT_EQ(reader.position(), unsigned(bundle.size()));
}

} // namespace

struct EntryCase { const char *name; QByteArray body; Names names; };

namespace {

const EntryCase s_entries[] = {
    {"EmptyName", unhex("07000000 00000000"), {{7, QByteArray("")}}},
    {"FiveBytesTakeSixteen", unhex("03000000 05000000 6162636465 000000" "04000000 01000000 7a 000000"),
     {{3, "abcde"}, {4, "z"}}},
    {"AlignedNameHasNoPadding", unhex("09000000 04000000 612f6263" "0a000000 02000000 6464 0000"),
     {{9, "a/bc"}, {10, "dd"}}},
    {"RawBytesWithZero", unhex("05000000 03000000 610062 00"), {{5, QByteArray("a\0b", 3)}}},
    {"PeerNumbersKeptAsGiven", unhex("e8030000 01000000 78 000000" "02000000 01000000 79 000000"),
     {{1000, "x"}, {2, "y"}}},
};

class SymbolEntries : public ::testing::TestWithParam<EntryCase> {};

} // namespace

TEST_P(SymbolEntries, DefinesNamesFromExactBytes)
{
    Kestrel::SymbolRegistry registry;
    receive(registry, GetParam().body);
    EXPECT_EQ(defined(registry, GetParam().names), GetParam().names);
    EXPECT_EQ(registry.count(), GetParam().names.size());
}

INSTANTIATE_TEST_SUITE_P(Wire, SymbolEntries, ::testing::ValuesIn(s_entries),
                         [](const auto &i) { return std::string(i.param.name); });

TEST(SymbolRegistryReceiver, BindsUnderTheSymbolModuleName)
{
    Kestrel::SymbolRegistry registry;
    EXPECT_EQ(SymbolRegistryReceiver(registry).moduleName(), QByteArray("Orchardlines.Loomy.SymbolRegistry"));
}

TEST(SymbolRegistryReceiver, EmptyBodyDefinesNothing)
{
    Kestrel::SymbolRegistry registry;
    receive(registry, QByteArray());
    EXPECT_EQ(registry.count(), 0u);
}

// A cut anywhere before the end of the second name throws and keeps the first entry; a cut in
// the padding alone still defines the name, as only the name's bytes are checked.
TEST(SymbolRegistryReceiver, TruncatedEntryThrowsAndKeepsEarlierEntries)
{
    const QByteArray first = unhex("01000000 02000000 6869 0000");
    const QByteArray second = unhex("02000000 05000000 6162636465 000000");
    for (int cut = 1; cut < second.size(); ++cut) {
        Kestrel::SymbolRegistry registry;
        SymbolRegistryReceiver receiver(registry);
        const Bundle bundle = withBody(first + second.left(cut));
        BundleReader reader(bundle);
        if (cut < 13) {
            EXPECT_EQ(thrown([&] { receiver.handleBundle(reader); }), s_readPastEnd) << cut;
            EXPECT_EQ(defined(registry, {{1, "hi"}, {2, "abcde"}}), (Names{{1, "hi"}})) << cut;
        } else {
            EXPECT_EQ(thrown([&] { receiver.handleBundle(reader); }), "nothing thrown") << cut;
            EXPECT_EQ(defined(registry, {{1, "hi"}, {2, "abcde"}}), (Names{{1, "hi"}, {2, "abcde"}})) << cut;
        }
    }
}

TEST(SymbolRegistryReceiver, HostileLengthThrowsWithoutReadingPastTheBundle)
{
    for (const char *length : {"fcffffff", "ffffffff", "00000080"}) {
        Kestrel::SymbolRegistry registry;
        SymbolRegistryReceiver receiver(registry);
        const Bundle bundle = withBody(unhex("01000000") + unhex(length) + unhex("61626364"));
        BundleReader reader(bundle);
        EXPECT_EQ(thrown([&] { receiver.handleBundle(reader); }), s_readPastEnd) << length;
        EXPECT_EQ(registry.count(), 0u) << length;
    }
}
