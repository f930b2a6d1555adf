#pragma once
#include "loomy/loomy_export.h"

#include <QByteArray>

#include <functional>

namespace Tamarack {
class Attribute;
class Node;
}

// Paths and walks over a watched tree. A path is the names from the watched root down, joined
// by "/", without a leading "/"; the root's path is empty.
//
// The walkers run synchronously on the caller's thread and take no lock of their own. They report
// neither the node they start from nor any node below it, and an alias only as its final target
// (skipped when the chain ends in null); a target reached through two aliases is reported twice.
namespace Loomy {

// The one rule by which paths are built: name alone under the root, else parent "/" name.
LOOMY_EXPORT QByteArray kidPath(const QByteArray &parent, const QByteArray &name);

// fn on each non-node attribute below node, depth first in stored order. skip (may be empty)
// filters the first level only: a rejected child node leaves out its subtree, but skip is not
// handed down to the levels below.
LOOMY_EXPORT void walkAttributes(Tamarack::Node &node, const std::function<void(Tamarack::Attribute &)> &fn,
                                 const std::function<bool(Tamarack::Attribute &)> &skip);

// fn on each non-node attribute below node, with its path from node. An attribute reached through
// an alias is reported under the alias's path.
LOOMY_EXPORT void walkAttributesWithPath(Tamarack::Node &node,
                                         const std::function<void(Tamarack::Attribute &, const QByteArray &)> &fn);
// The recursion of walkAttributesWithPath, for a node at the given path.
LOOMY_EXPORT void walkWithPathWorker(Tamarack::Node &node, const QByteArray &path,
                                     const std::function<void(Tamarack::Attribute &, const QByteArray &)> &fn);

} // namespace Loomy
