#pragma once
#include "tamarack/Attribute.h"
#include "tamarack/tamarack_export.h"

#include "kestrel/MemGrid8u.h"

namespace Tamarack {

template <typename T>
class AttributeGrid; // only unsigned char cells exist

// A grid of bytes as one value, without layers. Fill it in place through grid() and then call
// emitChange(), or replace it with setGrid().
// Threads: the grid is not guarded; one thread at a time changes or reads it.
template <>
class TAMARACK_EXPORT AttributeGrid<unsigned char> : public Attribute
{
public:
    AttributeGrid();
    AttributeGrid(Node *host, const QByteArray &name);
    ~AttributeGrid() override;

    Kestrel::MemGrid8u &grid() { return m_grid; }
    const Kestrel::MemGrid8u &grid() const { return m_grid; }
    void setGrid(const Kestrel::MemGrid8u &grid); // copies and emits a change

    QByteArray type() const override; // "grid:unsigned char"

private:
    Kestrel::MemGrid8u m_grid;
};

} // namespace Tamarack
