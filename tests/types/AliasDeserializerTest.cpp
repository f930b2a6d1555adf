#include "loomy/types/AliasDeserializer.h"

#include "loomy/types/TypeRegistry.h"

#include "TypesTestUtil.h"
#include "common/TraceCapture.h"

#include "tamarack/AttributeAlias.h"
#include "tamarack/AttributeT.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>

using namespace Loomy;
using Tamarack::Attribute;
using Tamarack::AttributeAlias;
using Tamarack::AttributeT;
using Level = Kestrel::Trace::Level;

namespace {

const QString s_cacheLine = "AliasDeserializer for 'alias' called but alias does not have a target. Will cache the value";
const QString s_switchYes =
    "AliasDeserializer for 'alias' found a target. Switching to normal deserializer. Have cached value: yes";
const QString s_switchNo =
    "AliasDeserializer for 'alias' found a target. Switching to normal deserializer. Have cached value: no";
const QString s_smartWarning = "Loomy TypeRegistry asked to create deserializer for alias attribute 'alias' that "
                               "ultimately has a null target. Will create a smart deserializer that stores "
                               "changes and applies them when a target is set.";

class AliasDeserializerTest : public ::testing::Test
{
protected:
    // Runs the deserialiser over `wire` and returns where the cursor ended.
    static unsigned feed(const Deserializer &deserializer, const QByteArray &wire)
    {
        BundleReaderCore reader(wire);
        deserializer(reader);
        return reader.position();
    }

    // One that only caches: its factory fits no target.
    std::shared_ptr<AliasDeserializer> waiting(unsigned size)
    {
        return std::make_shared<AliasDeserializer>([](Attribute *) { return Deserializer(); }, m_alias, size);
    }

    TypeRegistry m_registry;
    TraceCapture m_trace;
    AttributeAlias m_alias{nullptr, "alias"};
};

TEST_F(AliasDeserializerTest, RegistryMakesOneForAnAliasWithoutTarget)
{
    const Deserializer deserializer = m_registry.createDeserializer(3, &m_alias);
    ASSERT_TRUE(deserializer);
    EXPECT_NE(deserializer.target<FunctorWrap>(), nullptr);
    EXPECT_EQ(m_trace.lines(Level::Warning), QStringList{s_smartWarning});
}

TEST_F(AliasDeserializerTest, OnlyTheLastOfThreeValuesReachesTheTarget)
{
    const Deserializer deserializer = m_registry.createDeserializer(3, &m_alias);
    EXPECT_EQ(feed(deserializer, unhex("0000803f")), 4u); // 1
    EXPECT_EQ(feed(deserializer, unhex("00000040")), 4u); // 2
    EXPECT_EQ(feed(deserializer, unhex("00004040")), 4u); // 3
    EXPECT_EQ(m_trace.count(s_cacheLine), 3);

    AttributeT<float> target;
    QList<float> seen;
    target.addListener([&] { seen << target.value(); }, Attribute::CHANGE_ROLE);
    m_alias.setAttribute(&target);
    EXPECT_EQ(seen, QList<float>{3.f});
    EXPECT_EQ(target.value(Attribute::LAYER_USER), 3.f);
    EXPECT_EQ(m_trace.lines(Level::Info).last(), s_switchYes);

    // From now on values go straight through, without being cached.
    m_trace.clear();
    EXPECT_EQ(feed(deserializer, unhex("00008040")), 4u);
    EXPECT_EQ(target.value(), 4.f);
    EXPECT_TRUE(m_trace.lines().isEmpty());
}

TEST_F(AliasDeserializerTest, NoValueBeforeTheTargetSaysNo)
{
    const Deserializer deserializer = m_registry.createDeserializer(3, &m_alias);
    AttributeT<float> target(nullptr, "t", 8.f);
    ChangeCounter changes(target);
    m_alias.setAttribute(&target);
    EXPECT_EQ(m_trace.lines(Level::Info), QStringList{s_switchNo});
    EXPECT_EQ(changes.count, 0);
    EXPECT_EQ(target.value(), 8.f);
    feed(deserializer, unhex("0000a040"));
    EXPECT_EQ(target.value(Attribute::LAYER_USER), 5.f);
}

// The cache holds the value as it was on the wire: the length word, the bytes, the padding.
TEST_F(AliasDeserializerTest, DynamicValueIsCachedWithItsLengthWord)
{
    {
        const auto d = waiting(0);
        EXPECT_EQ(feed(FunctorWrap(d), unhex("05000000 61626364 65ffffff 99999999")), 12u);
        EXPECT_EQ(hex(d->cache), hex(unhex("05000000 61626364 65000000")));
    }

    const Deserializer deserializer = m_registry.createDeserializer(35, &m_alias);
    EXPECT_EQ(feed(deserializer, unhex("05000000 61626364 65ffffff 99999999")), 12u);
    AttributeT<QString> target;
    m_alias.setAttribute(&target);
    EXPECT_EQ(target.value(Attribute::LAYER_USER), "abcde");
    EXPECT_EQ(m_trace.lines(Level::Info).last(), s_switchYes);
}

TEST_F(AliasDeserializerTest, EmptyDynamicValueStillCountsAsCached)
{
    const Deserializer deserializer = m_registry.createDeserializer(35, &m_alias);
    EXPECT_EQ(feed(deserializer, unhex("00000000")), 4u);
    AttributeT<QString> target(nullptr, "t", "x");
    m_alias.setAttribute(&target);
    EXPECT_EQ(m_trace.lines(Level::Info).last(), s_switchYes);
    EXPECT_TRUE(target.isValueDefinedOnLayer(Attribute::LAYER_USER));
    EXPECT_EQ(target.value(), "");
}

TEST_F(AliasDeserializerTest, FixedValueIsCachedWithItsPadding)
{
    const auto d = waiting(1);
    EXPECT_EQ(feed(FunctorWrap(d), unhex("01ffffff")), 4u);
    EXPECT_EQ(hex(d->cache), "01 00 00 00");
}

TEST_F(AliasDeserializerTest, ValueRunningPastTheEndThrowsAndDropsTheOlderOne)
{
    const auto d = waiting(0);
    feed(FunctorWrap(d), unhex("02000000 41420000"));
    EXPECT_EQ(d->cache.size(), 8);
    EXPECT_EQ(thrown([&] { feed(FunctorWrap(d), unhex("05000000 4142")); }), s_readPastEnd);
    EXPECT_TRUE(d->cache.isEmpty());
    EXPECT_EQ(thrown([&] { feed(FunctorWrap(d), unhex("fcffffff 41424344")); }), s_readPastEnd);
}

// All copies of the std::function share one object, and so one cache.
TEST_F(AliasDeserializerTest, CopiesShareTheCache)
{
    const Deserializer original = m_registry.createDeserializer(3, &m_alias);
    Deserializer copy = original;
    feed(copy, unhex("0000e040"));
    AttributeT<float> target;
    m_alias.setAttribute(&target);
    EXPECT_EQ(target.value(), 7.f);
    feed(original, unhex("00000041"));
    EXPECT_EQ(target.value(), 8.f);
}

// The listener stands on the first alias only; the switch comes with its change.
TEST_F(AliasDeserializerTest, ChainOfTwoSwitchesWhenTheSecondLinkGetsATarget)
{
    AttributeAlias second(nullptr, "second");
    m_alias.setAttribute(&second);
    const Deserializer deserializer = m_registry.createDeserializer(3, &m_alias);
    feed(deserializer, unhex("0000c03f"));

    AttributeT<float> target;
    second.setAttribute(&target);
    EXPECT_EQ(target.value(Attribute::LAYER_USER), 1.5f);
    EXPECT_EQ(m_trace.lines(Level::Info).last(), s_switchYes);
}

TEST_F(AliasDeserializerTest, ChangeWithoutTargetKeepsWaiting)
{
    AttributeAlias second(nullptr, "second");
    const Deserializer deserializer = m_registry.createDeserializer(3, &m_alias);
    feed(deserializer, unhex("0000c03f"));
    m_alias.setAttribute(&second); // a change, but the chain still ends in null
    EXPECT_EQ(m_trace.count(s_switchYes), 0);
    AttributeT<float> target;
    second.setAttribute(&target);
    EXPECT_EQ(target.value(), 1.5f);
}

// There is no way back: a later retargeting is not followed.
TEST_F(AliasDeserializerTest, SwitchHappensOnce)
{
    const Deserializer deserializer = m_registry.createDeserializer(3, &m_alias);
    AttributeT<float> first, second;
    m_alias.setAttribute(&first);
    m_alias.setAttribute(&second);
    feed(deserializer, unhex("0000803f"));
    EXPECT_EQ(first.value(), 1.f);
    EXPECT_EQ(second.value(), 0.f);
    EXPECT_EQ(m_trace.count(s_switchNo), 1);
}

TEST_F(AliasDeserializerTest, TargetOfTheWrongClassKeepsCachingWithNobodyToUseIt)
{
    const Deserializer deserializer = m_registry.createDeserializer(3, &m_alias);
    AttributeT<QString> text;
    m_alias.setAttribute(&text);
    EXPECT_EQ(m_trace.lines(Level::Info).last(), s_switchNo);
    feed(deserializer, unhex("0000803f"));
    EXPECT_EQ(m_trace.count(s_cacheLine), 1);
    EXPECT_EQ(text.value(), "");
}

TEST_F(AliasDeserializerTest, CachedValueForTheWrongClassThrowsOutOfTheListener)
{
    const Deserializer deserializer = m_registry.createDeserializer(3, &m_alias);
    feed(deserializer, unhex("0000803f"));
    AttributeT<QString> text;
    EXPECT_THROW(m_alias.setAttribute(&text), std::bad_function_call);
}

// Regression guard: the alias's listener holds a plain pointer, so it must go with the object.
TEST_F(AliasDeserializerTest, DestroyedDeserializerNoLongerListens)
{
    {
        const Deserializer deserializer = m_registry.createDeserializer(3, &m_alias);
        feed(deserializer, unhex("0000803f"));
    }
    AttributeT<float> target;
    m_alias.setAttribute(&target);
    EXPECT_EQ(target.value(), 0.f);
    EXPECT_EQ(m_trace.count(s_switchYes), 0);
}

TEST_F(AliasDeserializerTest, NullFunctorLogsAndConsumesNothing)
{
    FunctorWrap wrap(nullptr);
    const QByteArray wire = unhex("0000803f");
    BundleReaderCore reader(wire);
    wrap(reader);
    EXPECT_EQ(reader.position(), 0u);
    EXPECT_EQ(m_trace.lines(Level::Error), QStringList{"FunctorWrap::operator() # have no functor"});
}

} // namespace
