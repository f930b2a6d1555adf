#pragma once
#include "tamarack/Attribute.h"
#include "tamarack/tamarack_export.h"

#include <memory>

namespace Tamarack {

// A reference to another attribute. attribute() is the direct target, which may be null and may
// itself be an alias. The alias emits a change when it is pointed at another target, when its
// target emits a change, and when its target is deleted (the target is then dropped: null).
//
// Ownership: the alias never owns its target. The target may be deleted at any time.
// Threads: setAttribute may run while the target emits on another thread; a change of a target
// that was replaced meanwhile is not passed on. Deleting the alias itself while its target emits
// on another thread is not supported.
class TAMARACK_EXPORT AttributeAlias : public Attribute
{
public:
    AttributeAlias();
    AttributeAlias(Node *host, const QByteArray &name, Attribute *target = nullptr);
    ~AttributeAlias() override;

    Attribute *attribute() const;
    using Attribute::attribute;
    // Retargets and emits a change; nothing when the target is the same. target must be alive.
    void setAttribute(Attribute *target);

    QByteArray type() const override; // "alias"
    AttributeAlias *asAlias() override { return this; }

private:
    struct Link;
    std::shared_ptr<Link> m_link;
};

} // namespace Tamarack
