#pragma once
#include "loomy/bundle/BundleSender.h"
#include "loomy/loomy_export.h"

// The reading side of message type 0 (record layout in HandshakeSender.h), bound to 0 by its
// BundleDispatcher. "load-module" records go to BundleDispatcher::loadModule, whose answers
// leave with the next collection; "error" records are logged; "info" and "ok" are read and
// dropped. An unknown command is logged and skipped by its record size. Frame thread only.
namespace Loomy {

class LOOMY_EXPORT HandshakeReceiver : public BundleReceiver
{
public:
    // The dispatcher owns this receiver and outlives it.
    explicit HandshakeReceiver(BundleDispatcher &dispatcher);

    // Records ahead of a decode fault have taken effect when it is thrown.
    void handleBundle(BundleReader &reader) override;

private:
    BundleDispatcher &m_dispatcher;
};

} // namespace Loomy
