#pragma once
#include "loomy/bundle/BundleSender.h"
#include "loomy/loomy_export.h"

// Applies the peer's "Orchardlines.Loomy.AttributeUpdate" records: the peer's symbol, then the
// value, whose length follows from the type that the path's AttributeNew announced. So a symbol
// that no AttributeNew brought ends the bundle: nothing behind it can be parsed.
namespace Loomy {

class AttributeStorage;
class NodeChangeSender;

// Threads: the frame thread only, one bundle at a time. Both references must outlive the receiver.
class LOOMY_EXPORT AttributeUpdateReceiver : public BundleReceiver
{
public:
    AttributeUpdateReceiver(AttributeStorage &storage, NodeChangeSender &sender);

    void handleBundle(BundleReader &reader) override;

private:
    AttributeStorage &m_storage;
    NodeChangeSender &m_sender;

public:
    // Set by the session's initialisation before the first bundle: drop a value whose bundle
    // doesn't yet acknowledge this side's last send of the attribute.
    bool m_dropStaleChanges = false;
    // Frame thread: values applied from the peer's records, and values dropped as stale.
    unsigned long long m_valuesApplied = 0;
    unsigned long long m_staleDropped = 0;
};

} // namespace Loomy
