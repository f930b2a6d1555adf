#include "loomy/sync/RemoteNode.h"
#include "loomy/sync/SyncFlags.h"

#include "tamarack/AttributeAlias.h"
#include "tamarack/AttributeT.h"

#include <gtest/gtest.h>

using Loomy::RemoteNode;
using Loomy::SyncFlags;
using IntAttr = Tamarack::AttributeT<int>;

namespace {

TEST(SyncFlags, OnlyExceptionsAreStored)
{
    SyncFlags flags;
    EXPECT_EQ(flags.getFlags(5), SyncFlags::SYNC_DEFAULT);
    flags.setFlags(5, SyncFlags::SYNC_NONE);
    EXPECT_EQ(flags.getFlags(5), SyncFlags::SYNC_NONE);
    EXPECT_EQ(flags.getFlags(6), SyncFlags::SYNC_DEFAULT);
    flags.setFlags(5, SyncFlags::SYNC_DEFAULT);
    EXPECT_EQ(flags.getFlags(5), SyncFlags::SYNC_DEFAULT);
}

TEST(SyncFlags, ClearKeepsStoredFlags)
{
    SyncFlags flags;
    flags.setFlags(5, SyncFlags::SYNC_NONE);
    flags.clear();
    EXPECT_EQ(flags.getFlags(5), SyncFlags::SYNC_NONE);
}

struct GlobCase { const char *name; const char *glob; const char *pattern; QStringList matches; QStringList misses; };
const GlobCase s_globs[] = {
    {"Plain", "a/b", "^a/b$", {"a/b"}, {"x/a/b", "a/b/c"}},
    {"StarIsOneComponent", "a/*", "^a/[^/]+$", {"a/b"}, {"a", "a/", "a/b/c"}},
    {"DoubleStarCrossesSlashes", "a/**", "^a/.+$", {"a/b", "a/b/c"}, {"a", "a/"}},
    {"StarFirst", "*/id", "^[^/]+/id$", {"a/id"}, {"id", "a/b/id"}},
    {"StarNeedsOneCharacter", "a*", "^a[^/]+$", {"ab"}, {"a"}},
    {"DotIsADot", "a.b", "^a\\.b$", {"a.b"}, {"axb"}},
    {"DoubleStarAlone", "**", "^.+$", {"a", "a/b/c"}, {""}},
    {"OtherMetacharactersStandForThemselves", "a+(b)", "^a\\+\\(b\\)$", {"a+(b)"}, {"aab", "a+b"}},
};
class MakeRegExp : public ::testing::TestWithParam<GlobCase> {};
TEST_P(MakeRegExp, BuildsAnAnchoredCaseSensitivePattern)
{
    const QRegExp rx = RemoteNode::makeRegExp(QString::fromUtf8(GetParam().glob));
    EXPECT_EQ(rx.pattern(), QString::fromUtf8(GetParam().pattern));
    EXPECT_EQ(rx.caseSensitivity(), Qt::CaseSensitive);
    EXPECT_EQ(rx.patternSyntax(), QRegExp::RegExp);
    for (const QString &path : GetParam().matches)
        EXPECT_GE(QRegExp(rx).indexIn(path), 0) << qPrintable(path);
    for (const QString &path : GetParam().misses)
        EXPECT_LT(QRegExp(rx).indexIn(path), 0) << qPrintable(path);
}
INSTANTIATE_TEST_SUITE_P(Globs, MakeRegExp, ::testing::ValuesIn(s_globs),
                         [](const auto &i) { return std::string(i.param.name); });

class SyncFlagRules : public ::testing::Test
{
protected:
    unsigned flagsOf(const QByteArray &path) { return node.syncFlags().getFlags(node.symbols().lookup(path)); }
    IntAttr *add(const QByteArray &path)
    {
        auto *a = new IntAttr;
        EXPECT_TRUE(node.addDeepAttribute(path, a));
        node.update();
        return a;
    }
    RemoteNode node{nullptr, "remote"};
};

TEST_F(SyncFlagRules, AttributesNamedIdAtAnyDepthAreNotSent)
{
    for (const char *path : {"id", "a/b/id", "grid", "id2", "a/idx"})
        add(path);
    EXPECT_EQ(flagsOf("id"), SyncFlags::SYNC_NONE);
    EXPECT_EQ(flagsOf("a/b/id"), SyncFlags::SYNC_NONE);
    EXPECT_EQ(flagsOf("grid"), SyncFlags::SYNC_DEFAULT);
    EXPECT_EQ(flagsOf("id2"), SyncFlags::SYNC_DEFAULT);
    EXPECT_EQ(flagsOf("a/idx"), SyncFlags::SYNC_DEFAULT);
}

TEST_F(SyncFlagRules, RuleAppliesAtOnceToMatchesAndLaterAtAddition)
{
    add("cam/pos");
    node.setSyncFlags(RemoteNode::makeRegExp("cam/*"), SyncFlags::SYNC_NONE);
    EXPECT_EQ(flagsOf("cam/pos"), SyncFlags::SYNC_NONE);
    add("cam/zoom");
    EXPECT_EQ(flagsOf("cam/zoom"), SyncFlags::SYNC_NONE);
    add("light/pos");
    EXPECT_EQ(flagsOf("light/pos"), SyncFlags::SYNC_DEFAULT);
}

TEST_F(SyncFlagRules, LaterMatchingRuleWinsAtAddition)
{
    node.setSyncFlags(RemoteNode::makeRegExp("keep/**"), SyncFlags::SYNC_DEFAULT);
    add("keep/id");
    EXPECT_EQ(flagsOf("keep/id"), SyncFlags::SYNC_DEFAULT); // brings back what "(^|/)id$" excluded
    add("other/id");
    EXPECT_EQ(flagsOf("other/id"), SyncFlags::SYNC_NONE);
}

TEST_F(SyncFlagRules, UpdateSyncFlagsAloneKeepsNoRule)
{
    add("a/x");
    node.updateSyncFlags(RemoteNode::makeRegExp("a/*"), SyncFlags::SYNC_NONE);
    EXPECT_EQ(flagsOf("a/x"), SyncFlags::SYNC_NONE);
    add("a/y");
    EXPECT_EQ(flagsOf("a/y"), SyncFlags::SYNC_DEFAULT);
}

TEST_F(SyncFlagRules, AttributeReachedThroughAnAliasCountsUnderTheAliasPath)
{
    IntAttr *x = add("a/x");
    ASSERT_TRUE(node.addDeepAttribute("b/al", new Tamarack::AttributeAlias(nullptr, "", x)));
    node.update();
    node.updateSyncFlags(RemoteNode::makeRegExp("b/*"), SyncFlags::SYNC_NONE);
    EXPECT_EQ(flagsOf("b/al"), SyncFlags::SYNC_NONE);
    EXPECT_EQ(flagsOf("a/x"), SyncFlags::SYNC_DEFAULT);
}

TEST_F(SyncFlagRules, FlagsAreSetBeforeAnyLaterListenerHearsTheAddition)
{
    std::vector<unsigned> seen;
    node.addAttributeChangeListener([&](const Loomy::NodeWatcher::Event &event) {
        if (event.type == Loomy::NodeWatcher::ATTRIBUTE_ADDED)
            seen.push_back(node.syncFlags().getFlags(event.symbol));
    });
    add("n/id");
    EXPECT_EQ(seen, std::vector<unsigned>{SyncFlags::SYNC_NONE});
}

} // namespace
