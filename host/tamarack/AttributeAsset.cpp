#include "tamarack/AttributeAsset.h"

namespace Tamarack {

AttributeAsset::AttributeAsset() = default;

AttributeAsset::AttributeAsset(Node *host, const QByteArray &name, const QString &value)
    : AttributeBaseT<QString>(host, name, value)
{
}

AttributeAsset::~AttributeAsset() = default;

QByteArray AttributeAsset::type() const
{
    return QByteArrayLiteral("asset");
}

} // namespace Tamarack
