#pragma once
#include "loomy/bundle/BundleSender.h"
#include "loomy/loomy_export.h"

#include <QByteArray>
#include <QString>

#include <memory>

// The writing side of message type 0, the control channel of a session. Its body is a run of
// records (32-bit size, then content); each content is a command string and its arguments:
//
//   "info"         string map {"application": "Loomy", "version": "2.14.4"}
//   "load-module"  32-bit messageType, module name, empty string map
//   "ok", "error"  command, module name, string map {"description": text}
//
// Records collect in a pending bundle between collections and leave as one bundle. Frame
// thread only; owned by the BundleDispatcher.
namespace Loomy {

class BundleWriter;

class LOOMY_EXPORT HandshakeSender : public BundleSender
{
public:
    // Writes the "info" record, so it stands first in the first bundle.
    HandshakeSender();
    ~HandshakeSender() override;

    // Announces the next free number for `name` and returns it; numbers start at 1.
    // Only BundleDispatcher::lookupOrRegisterMessageType calls this.
    unsigned registerMessageType(const QByteArray &name);
    void sendOk(const QString &command, const QString &module, const QString &description);
    void sendError(const QString &command, const QString &module, const QString &description);

    // Adds the pending bundle, stamped as type 0, unless no record was written since the last
    // call; then starts a new one. The added copy keeps its bytes.
    void writeUpdates(BundleOutput &output) override;

private:
    class D;
    std::unique_ptr<D> m_d;
};

// One "ok" or "error" record (`status`), answering `command` for `module`.
LOOMY_EXPORT void sendOkError(const QString &status, BundleWriter &writer, const QString &command,
                              const QString &module, const QString &description);

} // namespace Loomy
