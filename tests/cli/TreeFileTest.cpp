#include "cli/TreeFile.h"
#include "cli/ValueText.h"

#include "loomy/sync/RemoteNode.h"
#include "loomy/types/TypeRegistry.h"

#include <QFile>

#include <gtest/gtest.h>

#include <ostream>

namespace {

struct TreeCase
{
    const char *json;
    const char *result;   // the --dump lines joined by "|", or the error
};

void PrintTo(const TreeCase &c, std::ostream *os) { *os << c.json; }

// Untyped leaves take their type from JSON; typed leaves name theirs; the first refusal ends the
// load with the path and the reason.
const TreeCase s_trees[] = {
    {R"({"a": 1.5, "b": true, "c": "x", "d": ["p", "q"], "e": [1, 0.5], "f": []})",
     R"(a=double:1.5|b=bool:true|c=string:x|d=stringlist:["p","q"]|e=40:[1,0.5]|f=stringlist:[])"},
    {R"({"n": {"m": {"x": 1}}, "v": {"type": "vector3:float", "value": [0, 1.5, 8]}, "i": {"type": 9, "value": 3}})",
     "i=int:3|n/m/x=double:1|v=vector3:float:0,1.5,8"},
    {R"({"l": {"type": "40", "value": [2]}, "g": {"type": "grid:unsigned char", "value": "1:ff"}, "e": {}})",
     "g=grid:unsigned char:1:ff|l=40:[2]"},
    {"[1]", "not a JSON object (no error occurred)"},
    {"{", "not a JSON object (unterminated object)"},
    {R"({"a": null})", "a: null is not a value"},
    {R"({"n": {"a": [1, "x"]}})", "n/a: an array must hold only strings or only numbers"},
    {R"({"a": {"type": "nosuch", "value": 1}})", "a: unknown type"},
    {R"({"a": {"type": "int"}})", "a: a typed leaf needs a value"},
    {R"({"a": {"type": "int", "value": "x"}})", "a: 'x' is not a value of type int (1 component)"},
};

class TreeFileLoad : public ::testing::TestWithParam<TreeCase>
{
protected:
    Loomy::TypeRegistry m_types;
    LoomyCli::ValueText m_text{m_types};
    Tamarack::Node m_app;
    Loomy::RemoteNode *m_tree = new Loomy::RemoteNode(&m_app, "loomy");
};

} // namespace

TEST_P(TreeFileLoad, DumpsOrRefusesWithTheReason)
{
    QString error;
    const bool loaded = LoomyCli::loadTree(m_text, GetParam().json, *m_tree, error);
    const QByteArray dump = LoomyCli::dumpTree(m_text, *m_tree).join('|');
    EXPECT_EQ(loaded ? dump : error.toUtf8(), QByteArray(GetParam().result));
}

INSTANTIATE_TEST_SUITE_P(Json, TreeFileLoad, ::testing::ValuesIn(s_trees));

// --set: the texts the command prints for a bad argument; a value of the attribute's type is
// taken in place, another type replaces the attribute, a node is refused.
TEST_F(TreeFileLoad, SetParsesAndApplies)
{
    QByteArray path;
    unsigned id = 0;
    QString value, error;
    EXPECT_FALSE(LoomyCli::parseSet(m_text, "novalue", path, id, value, error));
    EXPECT_EQ(error, "--set novalue: expected PATH=TYPE:VALUE with a known TYPE");
    EXPECT_FALSE(LoomyCli::parseSet(m_text, "a=nosuchtype:1", path, id, value, error));
    EXPECT_EQ(error, "--set a=nosuchtype:1: expected PATH=TYPE:VALUE with a known TYPE");
    EXPECT_FALSE(LoomyCli::parseSet(m_text, "a=int:x", path, id, value, error));
    EXPECT_EQ(error, "--set a=int:x: 'x' is not a value of type int (1 component)");

    ASSERT_TRUE(LoomyCli::loadTree(m_text, R"({"n": {"a": 1, "b": 2}})", *m_tree, error));
    Tamarack::Attribute *a = LoomyCli::findAttribute(*m_tree, "n/a");
    for (const char *set : {"n/a=double:5", "n/b=int:7", "x/y/z=string:a=b:c"}) {
        ASSERT_TRUE(LoomyCli::parseSet(m_text, set, path, id, value, error)) << set;
        EXPECT_TRUE(LoomyCli::applySet(m_text, *m_tree, path, id, value, error)) << set << qPrintable(error);
    }
    EXPECT_EQ(LoomyCli::findAttribute(*m_tree, "n/a"), a) << "the same type is set in place";
    EXPECT_EQ(LoomyCli::dumpTree(m_text, *m_tree), (QList<QByteArray>{"n/a=double:5", "n/b=int:7", "x/y/z=string:a=b:c"}));
    EXPECT_FALSE(LoomyCli::applySet(m_text, *m_tree, "n", 9, "1", error));
    EXPECT_EQ(error, "n is a node");
}

// The example scene, dumped and given back line by line to an empty tree, dumps the same.
TEST_F(TreeFileLoad, DumpGivenBackWithSetBuildsTheSameTree)
{
    QFile scene(LOOMY_SCENE);
    ASSERT_TRUE(scene.open(QIODevice::ReadOnly));
    QString error;
    ASSERT_TRUE(LoomyCli::loadTree(m_text, scene.readAll(), *m_tree, error)) << qPrintable(error);
    const QList<QByteArray> dump = LoomyCli::dumpTree(m_text, *m_tree);
    ASSERT_EQ(dump.size(), 10);
    auto *copy = new Loomy::RemoteNode(&m_app, "copy");
    for (const QByteArray &line : dump) {
        QByteArray path;
        unsigned id = 0;
        QString value;
        ASSERT_TRUE(LoomyCli::parseSet(m_text, line, path, id, value, error)) << qPrintable(error);
        ASSERT_TRUE(LoomyCli::applySet(m_text, *copy, path, id, value, error)) << qPrintable(error);
    }
    EXPECT_EQ(LoomyCli::dumpTree(m_text, *copy), dump);
}
