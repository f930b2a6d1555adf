#include "tamarack/Reference.h"

namespace Tamarack {

Reference::Reference()
    : m_self(static_cast<void *>(this), [](void *) {})
{
}

Reference::Reference(const Reference &)
    : Reference()
{
}

Reference &Reference::operator=(const Reference &)
{
    return *this;
}

Reference::~Reference() = default;

} // namespace Tamarack
