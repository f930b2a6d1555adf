#include "loomy/bundle/SymbolRegistryHandler.h"

#include "kestrel/SymbolRegistry.h"

#include "BundleTestUtil.h"

#include <utility>
#include <vector>

using namespace Loomy;

namespace {

using Names = std::vector<std::pair<unsigned, QByteArray>>;

// The (symbol, name) pairs of `wanted` that the registry defines both ways.
Names defined(const Kestrel::SymbolRegistry &registry, const Names &wanted)
{
    Names found;
    for (const auto &entry : wanted)
        if (!registry.name(entry.first).isNull() && registry.lookup(registry.name(entry.first)) == entry.first)
            found.emplace_back(entry.first, registry.name(entry.first));
    return found;
}

// What handling `body` threw.
std::string receive(Kestrel::SymbolRegistry &registry, const QByteArray &body)
{
    SymbolRegistryReceiver receiver(registry);
    const Bundle bundle = withBody(body);
    BundleReader reader(bundle);
    return thrown([&] { receiver.handleBundle(reader); });
}

} // namespace

TEST(SymbolRegistryReceiver, DefinesNamesFromExactBytes)
{
    struct Case { const char *wire; Names names; };
    const Case cases[] = {
        {"", {}},
        {"07000000 00000000", {{7, ""}}},
        {"03000000 05000000 6162636465 000000 04000000 01000000 7a 000000", {{3, "abcde"}, {4, "z"}}},
        {"09000000 04000000 612f6263 0a000000 02000000 6464 0000", {{9, "a/bc"}, {10, "dd"}}},
        {"05000000 03000000 610062 00", {{5, QByteArray("a\0b", 3)}}},
        {"e8030000 01000000 78 000000 02000000 01000000 79 000000", {{1000, "x"}, {2, "y"}}},  // peer's numbers
    };
    for (const Case &c : cases) {
        Kestrel::SymbolRegistry registry;
        EXPECT_EQ(receive(registry, unhex(c.wire)), "nothing thrown") << c.wire;
        EXPECT_EQ(defined(registry, c.names), c.names) << c.wire;
        EXPECT_EQ(registry.count(), c.names.size()) << c.wire;
    }
}

// A cut anywhere before the end of the second name throws and keeps the first entry; a cut in
// the padding alone still defines the name, as only the name's bytes are checked. A hostile
// length throws before any byte outside the bundle is read.
TEST(SymbolRegistryReceiver, TruncatedOrHostileEntryThrowsAndKeepsEarlierEntries)
{
    const QByteArray second = unhex("02000000 05000000 6162636465 000000");
    const Names both{{1, "hi"}, {2, "abcde"}};
    for (int cut = 1; cut < second.size(); ++cut) {
        Kestrel::SymbolRegistry registry;
        EXPECT_EQ(receive(registry, unhex("01000000 02000000 6869 0000") + second.left(cut)),
                  cut < 13 ? s_readPastEnd : "nothing thrown") << cut;
        EXPECT_EQ(defined(registry, both), cut < 13 ? Names{both[0]} : both) << cut;
    }
    for (const char *length : {"fcffffff", "ffffffff", "00000080"}) {
        Kestrel::SymbolRegistry registry;
        EXPECT_EQ(receive(registry, unhex("01000000") + unhex(length) + unhex("61626364")), s_readPastEnd) << length;
        EXPECT_EQ(registry.count(), 0u) << length;
    }
}
