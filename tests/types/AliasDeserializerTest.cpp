#include "loomy/types/AliasDeserializer.h"

#include "TypesTestUtil.h"

#include "tamarack/AttributeAlias.h"
#include "tamarack/AttributeT.h"

#include <memory>
#include <tuple>

using namespace Loomy;
using namespace Tamarack;
using Level = Kestrel::Trace::Level;

const QString s_cache = "AliasDeserializer for 'alias' called but alias does not have a target. Will cache the value";
const QString s_switch = "AliasDeserializer for 'alias' found a target. Switching to normal deserializer. "
                         "Have cached value: %1";

class AliasDeserializerTest : public ::testing::Test
{
protected:
    Deserializer forFloat() { return m_registry.createDeserializer(3, &m_alias); }

    TypeRegistry m_registry;
    TraceCapture m_trace;
    AttributeAlias m_alias{nullptr, "alias"};
};

// Copies of the std::function share one object, and so one cache. The listener stands on the
// first alias: a new link that still ends in null keeps it waiting, and a target at the end of the
// chain comes as the first alias's change.
TEST_F(AliasDeserializerTest, OnlyTheLastOfThreeValuesReachesTheTarget)
{
    const Deserializer deserializer = forFloat(), copy = deserializer;
    EXPECT_EQ(m_trace.lines(Level::Warning),
              QStringList{"Loomy TypeRegistry asked to create deserializer for alias attribute 'alias' that "
                          "ultimately has a null target. Will create a smart deserializer that stores "
                          "changes and applies them when a target is set."});
    EXPECT_EQ(feed(deserializer, unhex("0000803f")), 4u);
    EXPECT_EQ(feed(copy, unhex("00000040")), 4u);
    EXPECT_EQ(feed(deserializer, unhex("00004040")), 4u);
    AttributeAlias second(nullptr, "second");
    m_alias.setAttribute(&second);
    EXPECT_EQ(m_trace.lines(Level::Info), (QStringList{s_cache, s_cache, s_cache}));

    AttributeT<float> target;
    ChangeCounter changes(target);
    second.setAttribute(&target);
    EXPECT_EQ(changes.count, 1);
    EXPECT_EQ(target.value(Attribute::LAYER_USER), 3.f);
    EXPECT_EQ(m_trace.lines(Level::Info).last(), s_switch.arg("yes"));

    m_trace.clear(); // from now on values go straight through
    EXPECT_EQ(feed(copy, unhex("00008040")), 4u);
    EXPECT_EQ(target.value(), 4.f);
    EXPECT_TRUE(m_trace.lines().isEmpty());
}

// The switch happens once: a later retargeting is not followed.
TEST_F(AliasDeserializerTest, NoValueBeforeTheTargetSaysNo)
{
    const Deserializer deserializer = forFloat();
    AttributeT<float> target(nullptr, "t", 8.f), later;
    ChangeCounter changes(target);
    m_alias.setAttribute(&target);
    m_alias.setAttribute(&later);
    EXPECT_EQ(m_trace.lines(Level::Info), QStringList{s_switch.arg("no")});
    EXPECT_EQ(changes.count, 0);
    feed(deserializer, unhex("0000a040"));
    EXPECT_EQ(std::make_pair(target.value(Attribute::LAYER_USER), later.value()), std::make_pair(5.f, 0.f));
}

// What arrives is what was cached: the value with its padding and nothing after it. An empty
// text is a value too.
TEST_F(AliasDeserializerTest, CachedValueReachesTheTargetExactly)
{
    const std::tuple<unsigned, const char *, const char *> cases[] = {
        {35, "05000000 61626364 65ffffff 99999999", "05000000 61626364 65000000"},
        {35, "00000000 99999999", "00000000"},
        {1, "01ffffff 99999999", "01000000"},
    };
    for (const auto &c : cases) {
        AttributeAlias alias(nullptr, "alias");
        const Deserializer deserializer = m_registry.createDeserializer(std::get<0>(c), &alias);
        const QByteArray canonical = unhex(std::get<2>(c));
        EXPECT_EQ(feed(deserializer, unhex(std::get<1>(c))), unsigned(canonical.size()));
        std::unique_ptr<Attribute> target(m_registry.createAttribute(std::get<0>(c)));
        alias.setAttribute(target.get());
        EXPECT_TRUE(target->isValueDefinedOnLayer(Attribute::LAYER_USER));
        EXPECT_EQ(hex(serialize(m_registry, target.get())), hex(canonical));
        EXPECT_EQ(m_trace.lines(Level::Info).last(), s_switch.arg("yes"));
    }
}

TEST_F(AliasDeserializerTest, ValueRunningPastTheEndThrowsAndDropsTheOlderOne)
{
    const Deserializer deserializer = m_registry.createDeserializer(35, &m_alias);
    feed(deserializer, unhex("02000000 41420000"));
    EXPECT_EQ(thrown([&] { feed(deserializer, unhex("05000000 4142")); }), s_readPastEnd);
    EXPECT_EQ(thrown([&] { feed(deserializer, unhex("fcffffff 41424344")); }), s_readPastEnd);
    AttributeT<QString> target(nullptr, "t", "x");
    m_alias.setAttribute(&target);
    EXPECT_EQ(target.value(), "x");
    EXPECT_EQ(m_trace.lines(Level::Info).last(), s_switch.arg("no"));
}

// Regression: the alias's listener holds a plain pointer, so it must go with the object.
TEST_F(AliasDeserializerTest, DestroyedDeserializerNoLongerListens)
{
    feed(forFloat(), unhex("0000803f"));
    AttributeT<float> target;
    m_alias.setAttribute(&target);
    EXPECT_EQ(target.value(), 0.f);
    EXPECT_EQ(m_trace.count(s_switch.arg("yes")), 0);
}

TEST_F(AliasDeserializerTest, NullFunctorLogsAndConsumesNothing)
{
    EXPECT_EQ(feed(FunctorWrap(nullptr), unhex("0000803f")), 0u);
    EXPECT_EQ(m_trace.lines(Level::Error), QStringList{"FunctorWrap::operator() # have no functor"});
}
