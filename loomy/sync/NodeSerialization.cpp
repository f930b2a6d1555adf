#include "loomy/sync/NodeSerialization.h"

#include "loomy/types/AliasDeserializer.h"

#include "tamarack/Node.h"

namespace Loomy {

QByteArray kidPath(const QByteArray &parent, const QByteArray &name)
{
    if (parent.isEmpty())
        return name;
    QByteArray path;
    path.reserve(parent.size() + 1 + name.size());
    path.append(parent).append('/').append(name);
    return path;
}

void walkAttributes(Tamarack::Node &node, const std::function<void(Tamarack::Attribute &)> &fn,
                    const std::function<bool(Tamarack::Attribute &)> &skip)
{
    for (const auto &entry : node.children()) {
        Tamarack::Attribute *target = followAliases(entry.second);
        if (!target)
            continue;
        if (skip && skip(*target))
            continue;
        if (auto *child = Tamarack::toNode(target))
            walkAttributes(*child, fn, {});
        else
            fn(*target);
    }
}

void walkAttributesWithPath(Tamarack::Node &node,
                            const std::function<void(Tamarack::Attribute &, const QByteArray &)> &fn)
{
    walkWithPathWorker(node, QByteArray(), fn);
}

void walkWithPathWorker(Tamarack::Node &node, const QByteArray &path,
                        const std::function<void(Tamarack::Attribute &, const QByteArray &)> &fn)
{
    for (const auto &entry : node.children()) {
        Tamarack::Attribute *target = followAliases(entry.second);
        if (!target)
            continue;
        // The key under which the entry is stored, so an alias's target takes the alias's path.
        const QByteArray childPath = kidPath(path, entry.first);
        if (auto *child = Tamarack::toNode(target))
            walkWithPathWorker(*child, childPath, fn);
        else
            fn(*target, childPath);
    }
}

} // namespace Loomy
