#pragma once
#include "loomy/bundle/BundleSender.h"
#include "loomy/loomy_export.h"

#include <QByteArray>

#include <functional>

namespace Kestrel { class BinaryData; class SymbolRegistry; }

// Hands the peer's "Orchardlines.Loomy.OneWayEvent" records to a handler: the peer's symbol of
// the event name, the payload's length, the payload, padding to 4.
namespace Loomy {

// Threads: the frame thread only, one bundle at a time. The registry must outlive the receiver.
class LOOMY_EXPORT OneWayEventReceiver : public BundleReceiver
{
public:
    explicit OneWayEventReceiver(Kestrel::SymbolRegistry &recvSymbols);

    void handleBundle(BundleReader &reader) override;

private:
    Kestrel::SymbolRegistry &m_recvSymbols;   // the peer's numbers

public:
    // Set by the session's initialisation; empty drops every event. The data is linked to a
    // buffer that lives for the call only: a handler that keeps it must copy it.
    std::function<void(const QByteArray &, Kestrel::BinaryData &)> m_handler;
};

} // namespace Loomy
