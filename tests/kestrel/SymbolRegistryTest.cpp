#include "kestrel/SymbolRegistry.h"

#include "common/TraceCapture.h"

#include <gtest/gtest.h>

#include <QReadLocker>

#include <atomic>
#include <set>
#include <thread>
#include <vector>

using Kestrel::SymbolRegistry;

TEST(SymbolRegistry, AllocatedSymbolsAreNonZeroAndDistinct)
{
    SymbolRegistry registry;
    std::set<unsigned> seen;
    for (const QByteArray &name : {QByteArray(), QByteArray(""), QByteArray("a"), QByteArray("a/b"), QByteArray("b")}) {
        const unsigned symbol = registry.lookupOrDefine(name);
        EXPECT_NE(symbol, 0u) << name.constData();
        EXPECT_EQ(registry.lookupOrDefine(name), symbol) << "stable for " << name.constData();
        seen.insert(symbol);
    }
    // A null and an empty array are the same name.
    EXPECT_EQ(seen.size(), 4u);
}

TEST(SymbolRegistry, MissesGiveZeroAndNull)
{
    SymbolRegistry registry;
    EXPECT_EQ(registry.lookup("nothing"), 0u);
    EXPECT_TRUE(registry.name(1).isNull());
    registry.lookupOrDefine("x");
    EXPECT_TRUE(registry.name(0).isNull());
}

TEST(SymbolRegistry, DefineEntersBothDirections)
{
    SymbolRegistry registry;
    registry.define("root/attr", "second", 40);
    EXPECT_EQ(registry.lookup("root/attr"), 40u);
    EXPECT_EQ(registry.name(40), QByteArray("root/attr"));
    EXPECT_EQ(registry.second(40), QByteArray("second"));
    EXPECT_EQ(registry.lookupOrDefine("root/attr"), 40u);
}

TEST(SymbolRegistry, AllocationSkipsNumbersTakenByDefine)
{
    SymbolRegistry registry;
    registry.define("one", "one", 1);
    registry.define("two", "two", 2);
    const unsigned fresh = registry.lookupOrDefine("three");
    EXPECT_NE(fresh, 0u);
    EXPECT_NE(fresh, 1u);
    EXPECT_NE(fresh, 2u);
    EXPECT_EQ(registry.name(1), QByteArray("one"));
}

TEST(SymbolRegistry, RedefinitionKeepsTheMapsInverse)
{
    SymbolRegistry registry;
    registry.define("x", "x", 5);
    registry.define("x", "x", 7);      // the name moves to another number
    EXPECT_EQ(registry.lookup("x"), 7u);
    EXPECT_TRUE(registry.name(5).isNull());
    registry.define("y", "y", 7);      // the number goes to another name
    EXPECT_EQ(registry.name(7), QByteArray("y"));
    EXPECT_EQ(registry.lookup("x"), 0u);
    EXPECT_EQ(registry.count(), 1u);
}

TEST(SymbolRegistry, DefineRefusesSymbolZero)
{
    TraceCapture trace;
    SymbolRegistry registry;
    registry.define("zero", "zero", 0);
    EXPECT_EQ(registry.lookup("zero"), 0u);
    EXPECT_EQ(trace.lines(Kestrel::Trace::Level::Warning),
              QStringList{"SymbolRegistry::define # Refusing symbol 0 for 'zero'"});
}

TEST(SymbolRegistry, UnlockedFormsWorkUnderTheCallersReadLock)
{
    SymbolRegistry registry;
    const unsigned symbol = registry.lookupOrDefine("p");
    QReadLocker locker(&registry.lock());
    EXPECT_EQ(registry.lookupUnlocked("p"), symbol);
    EXPECT_EQ(registry.nameUnlocked(symbol), QByteArray("p"));
    EXPECT_EQ(registry.lookupUnlocked("q"), 0u);
    // Other readers aren't blocked meanwhile.
    unsigned fromOther = 0;
    std::thread reader([&] { fromOther = registry.lookup("p"); });
    reader.join();
    EXPECT_EQ(fromOther, symbol);
}

// Threads that meet the same new names at the same time must agree on one number per name, as
// the callers do: a read-locked miss, then lookupOrDefineImpl.
TEST(SymbolRegistry, RacingDefinitionsGiveOneNumberPerName)
{
    const int threads = 4;
    const int names = 2000;
    for (int round = 0; round < 5; ++round) {
        SymbolRegistry registry;
        std::vector<std::vector<unsigned>> results(threads, std::vector<unsigned>(names));
        std::atomic<int> ready{0};
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t) {
            workers.emplace_back([&, t] {
                ++ready;
                while (ready.load() < threads) {
                }
                for (int i = 0; i < names; ++i) {
                    // Half the threads walk backwards, so that they collide all along.
                    const int n = t % 2 ? names - 1 - i : i;
                    const QByteArray name = "node/" + QByteArray::number(n);
                    unsigned symbol = registry.lookup(name);
                    if (!symbol)
                        symbol = registry.lookupOrDefineImpl(name, name);
                    results[t][n] = symbol;
                }
            });
        }
        for (auto &w : workers)
            w.join();
        std::set<unsigned> distinct;
        for (int n = 0; n < names; ++n) {
            for (int t = 1; t < threads; ++t)
                ASSERT_EQ(results[t][n], results[0][n]) << "name " << n << " round " << round;
            ASSERT_NE(results[0][n], 0u);
            distinct.insert(results[0][n]);
        }
        EXPECT_EQ(distinct.size(), size_t(names));
        EXPECT_EQ(registry.count(), size_t(names));
    }
}
