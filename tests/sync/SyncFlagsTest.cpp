#include "SyncTestUtil.h"

#include "loomy/sync/SyncFlags.h"
#include "tamarack/AttributeAlias.h"

#include <map>

using Loomy::RemoteNode;
using Loomy::SyncFlags;

namespace {

TEST(MakeRegExp, BuildsAnAnchoredCaseSensitivePatternFromAGlob)
{
    struct { const char *glob, *pattern; QStringList matches, misses; } const cases[] = {
        {"a/b", "^a/b$", {"a/b"}, {"x/a/b", "a/b/c"}},
        {"a/*", "^a/[^/]+$", {"a/b"}, {"a", "a/", "a/b/c"}},
        {"a/**", "^a/.+$", {"a/b", "a/b/c"}, {"a", "a/"}},
        {"*/id", "^[^/]+/id$", {"a/id"}, {"id", "a/b/id"}},
        {"a*", "^a[^/]+$", {"ab"}, {"a"}},
        {"a.b", "^a\\.b$", {"a.b"}, {"axb"}},
        {"**", "^.+$", {"a", "a/b/c"}, {""}},
        {"a+(b)", "^a\\+\\(b\\)$", {"a+(b)"}, {"aab", "a+b"}},
    };
    for (const auto &c : cases) {
        SCOPED_TRACE(c.glob);
        const QRegExp rx = RemoteNode::makeRegExp(QString::fromUtf8(c.glob));
        EXPECT_EQ(rx.pattern(), QString::fromUtf8(c.pattern));
        EXPECT_EQ(rx.caseSensitivity(), Qt::CaseSensitive);
        EXPECT_EQ(rx.patternSyntax(), QRegExp::RegExp);
        for (const QString &path : c.matches)
            EXPECT_GE(QRegExp(rx).indexIn(path), 0) << qPrintable(path);
        for (const QString &path : c.misses)
            EXPECT_LT(QRegExp(rx).indexIn(path), 0) << qPrintable(path);
    }
}

class SyncFlagRules : public ::testing::Test
{
protected:
    void add(const QByteArray &path, Tamarack::Attribute *a = new Tamarack::AttributeT<int>) { EXPECT_TRUE(node.addDeepAttribute(path, a)); node.update(); }
    void expectFlags(std::initializer_list<const char *> paths, unsigned flags)
    {
        for (const char *path : paths)
            EXPECT_EQ(node.syncFlags().getFlags(node.symbols().lookup(path)), flags) << path;
    }
    RemoteNode node{nullptr, "remote"};
};

// "(^|/)id$" is built in; a later matching rule wins; flags are set before a listener hears of it.
TEST_F(SyncFlagRules, AttributesNamedIdAreNotSentUnlessALaterRuleSaysSo)
{
    std::map<unsigned, unsigned> heard;
    node.addAttributeChangeListener([&](const Loomy::NodeWatcher::Event &e) { heard[e.symbol] = node.syncFlags().getFlags(e.symbol); });
    node.setSyncFlags(RemoteNode::makeRegExp("keep/**"), SyncFlags::SYNC_DEFAULT);
    for (const char *path : {"id", "a/b/id", "keep/id", "grid", "id2", "a/idx"})
        add(path);
    expectFlags({"id", "a/b/id"}, SyncFlags::SYNC_NONE);
    expectFlags({"keep/id", "grid", "id2", "a/idx"}, SyncFlags::SYNC_DEFAULT);
    for (const auto &symbolFlags : heard)
        EXPECT_EQ(symbolFlags.second, node.syncFlags().getFlags(symbolFlags.first)) << symbolFlags.first;
}

// Rules of the built-in rule's form are tested by name, the rest by their expression: either
// way a rule matches exactly the paths its expression finds.
TEST_F(SyncFlagRules, RulesOnALastComponentMatchAsTheirExpression)
{
    node.setSyncFlags(QRegExp("(^|/)speed$"), SyncFlags::SYNC_NONE);
    node.setSyncFlags(QRegExp("(^|/)zoom$", Qt::CaseInsensitive), SyncFlags::SYNC_NONE);
    node.setSyncFlags(QRegExp("(^|/)po.$"), SyncFlags::SYNC_NONE);
    node.setSyncFlags(QRegExp("(^|/)rot$", Qt::CaseSensitive, QRegExp::Wildcard), SyncFlags::SYNC_NONE);
    for (const char *path : {"speed", "a/speed", "a/xspeed", "n/speed/x", "b/ZOOM", "pos", "a/(^|/)rot$", "a/rot"})
        add(path);
    expectFlags({"speed", "a/speed", "b/ZOOM", "pos", "a/(^|/)rot$"}, SyncFlags::SYNC_NONE);
    expectFlags({"a/xspeed", "n/speed/x", "a/rot"}, SyncFlags::SYNC_DEFAULT);
}

// setSyncFlags applies at once and keeps the rule for later additions; updateSyncFlags only
// applies, to paths as the tree shows them (through an alias, the alias's path).
TEST_F(SyncFlagRules, SetKeepsTheRuleAndUpdateDoesNot)
{
    for (const char *path : {"set/pos", "upd/pos", "x"})
        add(path);
    add("b/al", new Tamarack::AttributeAlias(nullptr, "", node.attribute("x")));
    node.setSyncFlags(RemoteNode::makeRegExp("set/*"), SyncFlags::SYNC_NONE);
    node.updateSyncFlags(RemoteNode::makeRegExp("upd/*"), SyncFlags::SYNC_NONE);
    node.updateSyncFlags(RemoteNode::makeRegExp("b/*"), SyncFlags::SYNC_NONE);
    add("set/zoom");
    add("upd/zoom");
    expectFlags({"set/pos", "upd/pos", "b/al", "set/zoom"}, SyncFlags::SYNC_NONE);
    expectFlags({"upd/zoom", "x"}, SyncFlags::SYNC_DEFAULT);
}

} // namespace
