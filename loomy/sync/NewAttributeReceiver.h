#pragma once
#include "loomy/bundle/BundleSender.h"
#include "loomy/loomy_export.h"

#include <QByteArray>
#include <QList>

#include <functional>

namespace Kestrel { class SymbolRegistry; }
namespace Tamarack { class Attribute; class Node; }

// Applies the peer's "Orchardlines.Loomy.AttributeNew" records: one per attribute,
//
//   offset  field
//        0  symbol   the peer's number for the path, named by an earlier symbol bundle
//        4  typeId   the peer's type id of the value
//        8  size     fixed size of the value, 0 for a dynamic one (which starts with its length)
//       12  flags    bit 0: a value follows; the other bits are not read
//       16  value    only with bit 0
//
// The first record for a symbol ties the peer's number to this session's record of the path;
// from then on the peer's updates and removals find the record by that number alone. A value is
// applied on LAYER_USER between the sender's ignoreOne and stopIgnoring, so it is not sent back.
namespace Loomy {

class AttributeStorage;
class BundleReaderCore;
class NodeChangeSender;
class RemoteNode;
class TypeRegistry;
struct LoomySessionAttribute;

// Threads: the frame thread only, one bundle at a time. All references must outlive the receiver.
class LOOMY_EXPORT NewAttributeReceiver : public BundleReceiver
{
public:
    NewAttributeReceiver(RemoteNode &node, AttributeStorage &storage, Kestrel::SymbolRegistry &recvSymbols,
                         TypeRegistry &types, NodeChangeSender &sender);

    void handleBundle(BundleReader &reader) override;

    // On: missing nodes and attributes of announced paths are made here, with the peer's value
    // as their default. Off: such paths are known but their values are skipped.
    void setCreateMissingAttributes(bool create);
    bool createMissingAttributes() const;

protected:
    // The node at the path below the watched root, following aliases; nodes that are missing
    // are made when createMissingAttributes is on. Null when a node is missing and may not be
    // made, or when a step is an attribute that isn't a node (that is logged).
    Tamarack::Node *createOrFindNode(const QList<QByteArray> &path);
    // A new attribute for the peer's type id, owned by the caller; null for an unknown id.
    Tamarack::Attribute *createAttribute(unsigned int typeId);
    // The deserialiser of the record's read type into the attribute, or, when the attribute
    // can't take that type, a warning and one that steps over values of `size`.
    std::function<void(BundleReaderCore &)> createDeserializer(LoomySessionAttribute &record,
                                                               Tamarack::Attribute *attribute, unsigned int size);

private:
    bool m_createMissingAttributes = false;
    RemoteNode &m_node;
    AttributeStorage &m_storage;
    Kestrel::SymbolRegistry &m_recvSymbols;   // the peer's numbers
    TypeRegistry &m_types;
    NodeChangeSender &m_sender;

public:
    // Set by the session's initialisation before the first bundle: drop a value whose bundle
    // doesn't yet acknowledge this side's last send of the attribute.
    bool m_dropStaleChanges = false;
    // Set likewise: at the peer's first announcement of a path that this side holds, refuse the
    // peer's value and send ours again.
    bool m_authoritative = false;
    // Frame thread: values applied from the peer's records, and values dropped as stale.
    unsigned long long m_valuesApplied = 0;
    unsigned long long m_staleDropped = 0;
};

} // namespace Loomy
