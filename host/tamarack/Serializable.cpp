#include "tamarack/Serializable.h"

namespace Tamarack {

Serializable::~Serializable() = default;

bool Serializable::serialize(Archive &) const
{
    return false;
}

bool Serializable::deserialize(const ArchiveElement &)
{
    return false;
}

bool Serializable::deserializeXML(const DOMElement &)
{
    return false;
}

} // namespace Tamarack
