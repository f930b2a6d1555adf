#include "loomy/bundle/SymbolRegistryHandler.h"

#include "kestrel/SymbolRegistry.h"

#include "BundleTestUtil.h"

using namespace Loomy;

namespace {
// What handling `body` threw, the count of names, and each test symbol defined both ways, as "n=name".
std::string receive(const QByteArray &body)
{
    Kestrel::SymbolRegistry registry;
    SymbolRegistryReceiver receiver(registry);
    const Bundle bundle = withBody(body);
    BundleReader reader(bundle);
    std::string out = thrown([&] { receiver.handleBundle(reader); });
    out += "; " + std::to_string(registry.count());
    for (unsigned symbol : {1, 2, 3, 4, 5, 7, 9, 10, 1000}) {
        const QByteArray name = registry.name(symbol);
        if (!name.isNull() && registry.lookup(name) == symbol)
            out += " " + std::to_string(symbol) + "=" + name.toPercentEncoding().toStdString();
    }
    return out;
}
} // namespace

TEST(SymbolRegistryReceiver, DefinesNamesFromExactBytes)
{
    const std::pair<const char *, const char *> cases[] = {
        {"", "nothing thrown; 0"},
        {"07000000 00000000", "nothing thrown; 1 7="},
        {"03000000 05000000 6162636465 000000 04000000 01000000 7a 000000", "nothing thrown; 2 3=abcde 4=z"},
        {"09000000 04000000 612f6263 0a000000 02000000 6464 0000", "nothing thrown; 2 9=a%2Fbc 10=dd"},
        {"05000000 03000000 610062 00", "nothing thrown; 1 5=a%00b"},
        {"e8030000 01000000 78 000000 02000000 01000000 79 000000", "nothing thrown; 2 2=y 1000=x"},  // any numbers
    };
    for (const auto &c : cases)
        EXPECT_EQ(receive(unhex(c.first)), c.second) << c.first;
}

// A cut before the end of the second name throws and keeps the first entry; a cut in its padding
// alone does not. A hostile length throws before any byte outside the bundle is read.
TEST(SymbolRegistryReceiver, TruncatedOrHostileEntryThrowsAndKeepsEarlierEntries)
{
    const QByteArray second = unhex("02000000 05000000 6162636465 000000");
    for (int cut = 1; cut < second.size(); ++cut)
        EXPECT_EQ(receive(unhex("01000000 02000000 6869 0000") + second.left(cut)),
                  cut < 13 ? s_readPastEnd + "; 1 1=hi" : "nothing thrown; 2 1=hi 2=abcde") << cut;
    for (const char *length : {"fcffffff", "ffffffff", "00000080"})
        EXPECT_EQ(receive(unhex("01000000") + unhex(length) + unhex("61626364")), s_readPastEnd + "; 0") << length;
}

// A name the local registry holds is stored as the local copy: one string for both registries.
TEST(SymbolRegistryReceiver, SharesTheLocalCopyOfAName)
{
    Kestrel::SymbolRegistry local, registry;
    local.lookupOrDefine("g1/a2");
    SymbolRegistryReceiver receiver(registry, &local);
    const Bundle bundle = withBody(unhex("05000000 05000000 67312f6132 000000 06000000 02000000 6262 0000"));
    BundleReader reader(bundle);
    receiver.handleBundle(reader);
    EXPECT_EQ(registry.name(5), "g1/a2");
    EXPECT_EQ(registry.name(5).constData(), local.name(local.lookup("g1/a2")).constData());
    EXPECT_EQ(registry.name(6), "bb");
    EXPECT_EQ(local.count(), 1u);
}
