#include "kestrel/SymbolRegistry.h"

#include "common/TraceCapture.h"

#include <gtest/gtest.h>

#include <atomic>
#include <map>
#include <random>
#include <set>
#include <thread>
#include <vector>

using Kestrel::SymbolRegistry;

// The maps stay inverse: a define replaces whatever held its name or its number.
TEST(SymbolRegistry, DefineReplacesEitherSideRefusesZeroAndAllocationSkipsItsNumbers)
{
    TraceCapture trace;
    SymbolRegistry registry;
    registry.define("x", "second", 1);
    EXPECT_EQ(registry.second(1), "second");
    registry.define("x", "x", 2);
    EXPECT_EQ(registry.lookup("x"), 2u);
    EXPECT_TRUE(registry.name(1).isNull());
    registry.define("y", "y", 2);
    EXPECT_EQ(registry.name(2), "y");
    EXPECT_EQ(registry.lookup("x"), 0u);
    registry.define("z", "z", 1);
    registry.define("zero", "zero", 0);
    EXPECT_EQ(trace.lines(), QStringList{"SymbolRegistry::define # Refusing symbol 0 for 'zero'"});
    EXPECT_TRUE(registry.lookup("zero") == 0 && registry.name(0).isNull());
    EXPECT_EQ(registry.count(), 2u);
    const unsigned fresh = registry.lookupOrDefine(QByteArray());
    EXPECT_GT(fresh, 2u);
    EXPECT_EQ(registry.lookupOrDefine(""), fresh);   // a null and an empty array are the same name
    EXPECT_TRUE(registry.name(fresh).isNull());       // and a name defined null stays null
    EXPECT_EQ(registry.count(), 3u);
    registry.define("", "", fresh + 1);               // moves the name: the old number is free
    EXPECT_TRUE(registry.name(fresh).isNull() && registry.lookup(QByteArray()) == fresh + 1);
    EXPECT_EQ(QByteArray(registry.name(fresh + 1)), "");
    EXPECT_FALSE(registry.name(fresh + 1).isNull());
    EXPECT_EQ(registry.count(), 3u);
}

// Threads that meet the same new names at the same time must agree on one number per name, as
// the callers do: a read-locked miss, then lookupOrDefineImpl.
TEST(SymbolRegistry, RacingDefinitionsGiveOneNumberPerName)
{
    const int threads = 4, names = 2000;
    for (int round = 0; round < 5; ++round) {
        SymbolRegistry registry;
        std::vector<std::vector<unsigned>> results(threads, std::vector<unsigned>(names));
        std::atomic<int> started{0};
        std::vector<std::thread> workers;
        for (int t = 0; t < threads; ++t)
            workers.emplace_back([&, t] {
                for (++started; started < threads;) {
                }
                for (int i = 0; i < names; ++i) {
                    const int n = t % 2 ? names - 1 - i : i;   // half walk backwards, to collide all along
                    const QByteArray name = "node/" + QByteArray::number(n);
                    const unsigned symbol = registry.lookup(name);
                    results[t][n] = symbol ? symbol : registry.lookupOrDefineImpl(name, name);
                }
            });
        for (auto &w : workers)
            w.join();
        for (int t = 1; t < threads; ++t)
            ASSERT_EQ(results[t], results[0]) << "round " << round;
        const std::set<unsigned> distinct(results[0].begin(), results[0].end());
        EXPECT_EQ(distinct.size(), size_t(names));
        EXPECT_EQ(distinct.count(0), 0u);
        EXPECT_EQ(registry.count(), size_t(names));
    }
}

// Against a plain pair of maps, with a fixed seed: many names, redefinitions under other numbers
// (which drop entries from the middle of the name index), and numbers far beyond the allocated
// ones that the growing table later covers.
TEST(SymbolRegistry, StaysInverseThroughRandomDefinitions)
{
    SymbolRegistry registry;
    std::map<QByteArray, unsigned> byName;
    std::map<unsigned, QByteArray> bySymbol;
    std::mt19937 random(13);
    for (int step = 0; step < 20000; ++step) {
        const QByteArray name = "n" + QByteArray::number(int(random() % 3000));
        if (random() % 4 == 0) {
            const unsigned symbol = random() % 2 ? 1 + random() % 4000 : 1 + random() % 0x7fffffffu;
            if (byName.count(name))
                bySymbol.erase(byName[name]);
            if (bySymbol.count(symbol))
                byName.erase(bySymbol[symbol]);
            byName[name] = symbol;
            bySymbol[symbol] = name;
            registry.define(name, name, symbol);
        } else {
            const unsigned symbol = registry.lookupOrDefine(name);
            ASSERT_NE(symbol, 0u);
            if (byName.count(name)) {
                ASSERT_EQ(symbol, byName[name]) << step;
            } else {
                ASSERT_EQ(bySymbol.count(symbol), 0u) << step;
                byName[name] = symbol;
                bySymbol[symbol] = name;
            }
        }
    }
    ASSERT_EQ(registry.count(), byName.size());
    for (const auto &entry : byName) {
        EXPECT_EQ(registry.lookup(entry.first), entry.second);
        EXPECT_EQ(registry.name(entry.second), entry.first);
    }
    EXPECT_EQ(registry.lookup("absent"), 0u);
}

// Numbers that a peer chooses, each about twice the last, must not make the registry allocate
// a table as large as the largest number.
TEST(SymbolRegistry, FarNumbersStayCheap)
{
    SymbolRegistry registry;
    unsigned symbol = 1000;
    for (int i = 0; i < 21; ++i, symbol = 2 * symbol + 1000)
        registry.define("far" + QByteArray::number(i), "far", symbol);
    EXPECT_EQ(registry.name(symbol / 2 - 500), "far20");
    EXPECT_EQ(registry.count(), 21u);
}
