#pragma once
#include "loomy/bundle/BundleController.h"
#include "loomy/loomy_export.h"

#include <QString>

#include <memory>
#include <vector>

// Bundles over the line protocol of a ConnectionThread. One batch on the wire:
//
//   "loomy2 <count>\n"      the number of bundles, in decimal, UTF-8
//   <count> bundles         back to back, each its 16-byte header and body; nothing behind
//
// There is no batch length: each bundle's size is in its header. The application joins the two
// halves: a Loomy1Connection on its connection goes into BundleControllerParams::connection, and
// its ConnectionThread::parse() calls processLoomy2() with each line.
namespace Loomy {

class ConnectionThread;

/// Holds the connection weakly, so that a session doesn't keep it alive.
/// Threads: send() runs on the frame thread.
class LOOMY_EXPORT Loomy1Connection : public Connection
{
public:
    /// The connection must be the one whose parser hands its "loomy2" lines to processLoomy2(); it is held weakly.
    explicit Loomy1Connection(std::weak_ptr<ConnectionThread> connection);

    /// An empty batch writes nothing. While connected to a peer that can't take bundles the batch
    /// is dropped; a connection that isn't up gets it queued all the same. The batch is one unit
    /// of the writer, keyed "loomy2".
    ///
    /// The writer keeps what a lost connection left unsent for the next one. A session that lives
    /// as long as the connection doesn't want that: the next connection's peer would count the
    /// dropped session's announcements as the new session's first contact, and then take the new
    /// session's values as changes, even where its own should win. Such an application calls
    /// `writerThread()->removeFromBuffer("loomy2")` (WriterThread.h) in
    /// ConnectionThread::connected(), before it makes the new session; the writer starts only
    /// after connected() returns.
    void send(const std::vector<Bundle> &bundles) override;

private:
    std::weak_ptr<ConnectionThread> m_connection;
};

/// False if `line` isn't a bundle line ("loomy2 " and a decimal count, case sensitive). Otherwise
/// reads the bundles from the connection and schedules them on the controller as one batch, and
/// returns true; a short read logs a warning and drops the whole batch (the connection has ended
/// by then). A negative count throws std::length_error (ConnectionThread ends the connection on
/// it). A bundle over the connection's maxBundleSize() is refused before its body is allocated,
/// and one too large for one QByteArray is taken as a failed read: either way the batch is dropped
/// and the connection ended, since the stream can't be followed past it. On the connection's
/// thread, from its parse().
LOOMY_EXPORT bool processLoomy2(std::shared_ptr<BundleController> controller, ConnectionThread &connection,
                                const QString &line);

} // namespace Loomy
