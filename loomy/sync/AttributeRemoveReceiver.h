#pragma once
#include "loomy/bundle/BundleSender.h"
#include "loomy/loomy_export.h"

// Applies the peer's "Orchardlines.Loomy.AttributeRemove" records, one symbol each. An attribute
// that was made for the peer is deleted; one that this side had on its own account stays in the
// tree and only stops being exchanged until the peer announces the path again.
namespace Loomy {

class AttributeStorage;
class NodeChangeSender;
class RemoteNode;

// Threads: the frame thread only, one bundle at a time; the deletion of an attribute runs the
// tree's listeners on it. All references must outlive the receiver.
class LOOMY_EXPORT AttributeRemoveReceiver : public BundleReceiver
{
public:
    AttributeRemoveReceiver(RemoteNode &node, AttributeStorage &storage, NodeChangeSender &sender);

    void handleBundle(BundleReader &reader) override;

private:
    RemoteNode &m_node;
    AttributeStorage &m_storage;
    NodeChangeSender &m_sender;

public:
    // Frame thread: attributes deleted for the peer's records.
    unsigned long long m_removalsApplied = 0;
};

} // namespace Loomy
