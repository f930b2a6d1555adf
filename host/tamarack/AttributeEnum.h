#pragma once
#include "tamarack/AttributeT.h"
#include "tamarack/tamarack_export.h"

#include <QStringList>

namespace Tamarack {

// An int value whose numbers have names (value i is named names()[i]).
class TAMARACK_EXPORT AttributeEnum : public AttributeT<int>
{
public:
    AttributeEnum();
    AttributeEnum(Node *host, const QByteArray &name, int value = 0, const QStringList &names = QStringList());
    ~AttributeEnum() override;

    // Set before the attribute is shared with other threads.
    void setEnumNames(const QStringList &names) { m_names = names; }
    const QStringList &enumNames() const { return m_names; }

    QByteArray type() const override; // "enum"

private:
    QStringList m_names;
};

} // namespace Tamarack
