#pragma once
// Shared by the receive fuzz target and the tool that records its seeds: the tree both sides of
// the recorded session hold, and the input format.
//
// Input: one byte of options (bit 0 createMissingAttributes, bit 1 dropStaleChanges), then steps
// up to the end, each a byte whose value modulo 3 selects:
//   0  a bundle from the peer: a 16-bit little-endian length, then that many bytes (cut at the end)
//   1  a local change: one byte picks an attribute of the tree in walk order
//   2  a frame: one update pass of the session
#include "loomy/bundle/Bundle.h"
#include "kestrel/MemGrid8u.h"
#include "tamarack/AttributeContainer.h"
#include "tamarack/AttributeGrid.h"
#include "tamarack/AttributeT.h"
#include "tamarack/Node.h"
#include "wisket/Vector.h"

#include <QByteArray>
#include <QStringList>

#include <vector>

namespace ReceiveFuzz {

enum Step : char { PeerBundle = 0, LocalChange = 1, Frame = 2 };
enum Option : char { CreateMissing = 1, DropStale = 2 };

// A value of each encoding family: fixed sizes, a string, a list, raw elements, a grid, a nested
// node, and an `id` that never travels.
inline void makeTree(Tamarack::Node &root)
{
    new Tamarack::AttributeT<float>(&root, "f", 1.f);
    new Tamarack::AttributeT<int>(&root, "i", 2);
    new Tamarack::AttributeT<Wisket::Vector3f>(&root, "v", Wisket::Vector3f(1.f, 2.f, 3.f));
    new Tamarack::AttributeT<QString>(&root, "s", QStringLiteral("text"));
    new Tamarack::AttributeT<QStringList>(&root, "l", QStringList{"a", "b"});
    (new Tamarack::AttributeGrid<unsigned char>(&root, "g"))->setGrid(Kestrel::MemGrid8u(2, 2));
    auto *nested = new Tamarack::Node(&root, "n");
    (new Tamarack::AttributeContainer<std::vector<unsigned int>>(nested, "u"))->set(std::vector<unsigned int>{1u, 2u});
    new Tamarack::AttributeT<float>(nested, "id", 0.f);
}

// A new value for any attribute of the tree, or at least a change event.
inline void change(Tamarack::Attribute &attribute, int value)
{
    if (!attribute.set(float(value)) && !attribute.set(QString::number(value)))
        attribute.emitChange();
}

inline void appendBundle(QByteArray &input, const Loomy::Bundle &bundle)
{
    const int size = bundle.size() > 0xffff ? 0xffff : bundle.size();
    input += char(PeerBundle);
    input += char(size & 0xff);
    input += char(size >> 8);
    input += bundle.data().left(size);
}

} // namespace ReceiveFuzz
