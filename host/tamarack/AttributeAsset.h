#pragma once
#include "tamarack/AttributeBaseT.h"
#include "tamarack/tamarack_export.h"

#include <QString>

namespace Tamarack {

// The name of a file under the application's asset root, as a text value on layers.
class TAMARACK_EXPORT AttributeAsset : public AttributeBaseT<QString>
{
public:
    AttributeAsset();
    AttributeAsset(Node *host, const QByteArray &name, const QString &value = QString());
    ~AttributeAsset() override;

    QByteArray type() const override; // "asset"
};

} // namespace Tamarack
