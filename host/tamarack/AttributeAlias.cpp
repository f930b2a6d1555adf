#include "tamarack/AttributeAlias.h"

#include <mutex>

namespace Tamarack {

// Shared with the listeners on the target, so that a listener that runs late (from an emission
// copy taken before it was removed) finds a consistent state instead of a deleted alias.
struct AttributeAlias::Link
{
    // Guards retargeting: target, changeId, deleteId change together under it. A leaf lock: never
    // held while listeners run.
    std::mutex mutex;
    std::atomic<Attribute *> target{nullptr};
    std::atomic<AttributeAlias *> alias{nullptr}; // null once the alias is being destroyed
    long changeId = 0;
    long deleteId = 0;
};

namespace {

// Registers the alias's listeners on target. Under link.mutex.
template <typename LinkPtr>
void attach(const LinkPtr &link, Attribute *target)
{
    link->target.store(target);
    if (!target)
        return;
    // Runs on the thread that changed the target. A change of a former target is dropped.
    link->changeId = target->addListener([link, target] {
        AttributeAlias *alias = link->alias.load();
        if (alias && link->target.load() == target)
            alias->emitChange();
    }, Attribute::CHANGE_ROLE);
    // Runs inside the target's deletion: the target's listeners go with it, nothing to remove.
    link->deleteId = target->addListener([link, target] {
        {
            std::lock_guard<std::mutex> lock(link->mutex);
            if (link->target.load() != target)
                return;
            link->target.store(nullptr);
        }
        if (AttributeAlias *alias = link->alias.load())
            alias->emitChange();
    }, Attribute::DELETE_ROLE);
}

// Removes the alias's listeners from the current target. Under link.mutex, which also keeps a
// target that is being deleted alive here: its DELETE_ROLE listener waits for the mutex.
template <typename LinkPtr>
void detach(const LinkPtr &link)
{
    if (Attribute *old = link->target.load()) {
        old->removeListener(link->changeId);
        old->removeListener(link->deleteId);
    }
    link->target.store(nullptr);
}

} // namespace

AttributeAlias::AttributeAlias()
    : m_link(std::make_shared<Link>())
{
    m_link->alias.store(this);
}

AttributeAlias::AttributeAlias(Node *host, const QByteArray &name, Attribute *target)
    : Attribute(host, name)
    , m_link(std::make_shared<Link>())
{
    m_link->alias.store(this);
    std::lock_guard<std::mutex> lock(m_link->mutex);
    attach(m_link, target);
}

AttributeAlias::~AttributeAlias()
{
    // Removed from the host while still an alias, so the host's listeners can tell.
    beginDestruction();
    m_link->alias.store(nullptr);
    std::lock_guard<std::mutex> lock(m_link->mutex);
    detach(m_link);
}

Attribute *AttributeAlias::attribute() const
{
    return m_link->target.load();
}

void AttributeAlias::setAttribute(Attribute *target)
{
    {
        std::lock_guard<std::mutex> lock(m_link->mutex);
        if (m_link->target.load() == target)
            return;
        detach(m_link);
        attach(m_link, target);
    }
    emitChange();
}

QByteArray AttributeAlias::type() const
{
    return QByteArrayLiteral("alias");
}

} // namespace Tamarack
