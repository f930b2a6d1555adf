#pragma once
#include <QByteArray>
#include <QList>
#include <QString>

namespace Loomy { class RemoteNode; }
namespace Tamarack { class Attribute; class Node; }

// The trees the loomy command is given and prints:
//
//   --tree FILE   one JSON object. A member that is an object is a node (an empty one too),
//                 unless it has a "type" member: then it is a typed leaf {"type": T, "value": V},
//                 T a type name or id as ValueText takes them. Untyped leaves: a number is a
//                 double, true/false a bool, a string a string, an array of strings a string
//                 list (also when empty), an array of numbers a float list. null is refused.
//   --set         PATH=TYPE:VALUE, PATH with / between names.
//   --dump        the tree's leaves as PATH=TYPE:VALUE lines, sorted by path, which --set reads
//                 back; except where a name holds "=", which only a tree file can give.
//
// Threads: whichever thread owns the tree; nothing here keeps state.
namespace LoomyCli {

class ValueText;

// NAME=REST, split at the first "="; false without a name before it.
bool splitAssignment(const QString &text, QByteArray &left, QString &right);
// The attribute at the path below root, or null.
Tamarack::Attribute *findAttribute(Tamarack::Node &root, const QByteArray &path);

// One --set argument, read and checked to encode; false with the line the command prints.
bool parseSet(const ValueText &text, const QString &argument, QByteArray &path, unsigned &typeId, QString &value,
              QString &error);
// Gives the path that value: in place when the attribute there has the type, otherwise a new
// attribute replaces it (and the nodes on the way are made). False with a reason.
bool applySet(const ValueText &text, Loomy::RemoteNode &root, const QByteArray &path, unsigned typeId,
              const QString &value, QString &error);
// Adds what the JSON text describes below root. False with the reason, the failing path first;
// what was added before the failure stays.
bool loadTree(const ValueText &text, const QByteArray &json, Loomy::RemoteNode &root, QString &error);
// The --dump lines of the tree below root, without line ends.
QList<QByteArray> dumpTree(const ValueText &text, Tamarack::Node &root);

} // namespace LoomyCli
