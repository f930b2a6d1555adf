#pragma once
#include "loomy/bundle/BundleSender.h"
#include "loomy/loomy_export.h"

namespace Kestrel { class SymbolRegistry; }

// The receiving end of the symbol exchange: the peer tells the name of each number before the
// first body that uses it. Body: entries up to the end of the bundle, each
//
//   offset  size    field
//        0     4    symbol   the peer's number
//        4     4    length   of the name in bytes
//        8     n    name     raw bytes, no terminator
//      8+n   0..3   padding  zero up to a multiple of 4
//
// Names are raw byte strings, not text. Entries are defined in the receive registry as they are
// read, so a truncated bundle keeps the entries ahead of the fault.
namespace Loomy {

class LOOMY_EXPORT SymbolRegistryReceiver : public BundleReceiver
{
public:
    // The registry is the session's receive registry; local, if given, is the node's own, whose
    // copy of a name the receive registry then shares. Both must outlive the receiver.
    explicit SymbolRegistryReceiver(Kestrel::SymbolRegistry &registry, const Kestrel::SymbolRegistry *local = nullptr);

    void handleBundle(BundleReader &reader) override;

private:
    Kestrel::SymbolRegistry &m_registry;
    const Kestrel::SymbolRegistry *m_local;
};

} // namespace Loomy
