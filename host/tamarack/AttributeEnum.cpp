#include "tamarack/AttributeEnum.h"

namespace Tamarack {

AttributeEnum::AttributeEnum() = default;

AttributeEnum::AttributeEnum(Node *host, const QByteArray &name, int value, const QStringList &names)
    : AttributeT<int>(host, name, value)
    , m_names(names)
{
}

AttributeEnum::~AttributeEnum() = default;

QByteArray AttributeEnum::type() const
{
    return QByteArrayLiteral("enum");
}

} // namespace Tamarack
