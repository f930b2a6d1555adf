#include "tamarack/AttributeGrid.h"

namespace Tamarack {

AttributeGrid<unsigned char>::AttributeGrid() = default;

AttributeGrid<unsigned char>::AttributeGrid(Node *host, const QByteArray &name)
    : Attribute(host, name)
{
}

AttributeGrid<unsigned char>::~AttributeGrid() = default;

void AttributeGrid<unsigned char>::setGrid(const Kestrel::MemGrid8u &grid)
{
    m_grid = grid;
    emitChange();
}

QByteArray AttributeGrid<unsigned char>::type() const
{
    return QByteArrayLiteral("grid:unsigned char");
}

} // namespace Tamarack
