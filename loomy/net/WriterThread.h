#pragma once
#include "loomy/loomy_export.h"

#include "kestrel/Condition.h"
#include "kestrel/Mutex.h"
#include "kestrel/Thread.h"
#include "tamarack/Node.h"

#include <QByteArray>
#include <QList>
#include <QMap>
#include <QPair>
#include <QString>

#include <atomic>
#include <functional>

// The one thread that writes to a connection's socket once the handshake is over ("LoomyWriter").
//
// Producers on any thread hand it units, a list of byte blocks sent back to back plus a key that
// tags the unit's kind (empty for plain lines, "loomy2" for bundles, "ping" for its own pings;
// never sent). The thread sends deferred updates first, then units oldest first, each in pieces
// of at most 16384 bytes under the owner's send mutex, so a unit is never interleaved with
// another; only the owner's ping reply can come between two units. After each piece it sends
// the event "data-written" (the key as a string, the piece's size as an int32); after a short
// write, the event "error", once, and it stops.
//
// When idle and the owner has seen a pong, it keeps the connection alive: one "ping" per silence
// of over 5.0 seconds, and after the owner's ping time-out with no byte received since the ping,
// it closes the socket and sends "error".
//
// Each run starts with no updates and a zero counter but keeps queued units, so what the last
// connection left unsent goes out on the next one (and bufferedDataSize() may then fall below 0).
namespace Loomy {

class ConnectionThread;

class LOOMY_EXPORT WriterThread : public Kestrel::Thread, public Tamarack::Node
{
public:
    // `owner` isn't owned and outlives the writer.
    explicit WriterThread(ConnectionThread *owner);
    // Stops, joins, and drops what is queued unsent.
    ~WriterThread() override;

    void writeData(QList<QByteArray> blocks, QByteArray key);
    void writeData(QByteArray data, QByteArray key);
    // Runs `callback` under the owner's send mutex before the next unit; a later call with the
    // same name replaces one that hasn't run yet. Callbacks run in name order.
    void update(QString name, std::function<void()> callback);
    // Drops every queued unit with this key; a unit being sent goes on to its end.
    void removeFromBuffer(QByteArray key);
    // Bytes queued; read without a lock, a threshold for producers.
    long long bufferedDataSize() const { return m_bufferedSize.load(std::memory_order_relaxed); }
    // Starts a run (Kestrel::Thread::run) with the loop armed before the thread exists, so that
    // a stop() right behind it isn't lost. False if a run is still going.
    bool start();
    // Asks the loop to end; doesn't join.
    void stop();

protected:
    void childLoop() override;

private:
    // Lock order: m_writerMutex and the owner's m_sendMutex are never held together.
    Kestrel::Mutex m_writerMutex;
    Kestrel::Condition m_writerCondition;                      // woken by producers and stop()
    QList<QPair<QList<QByteArray>, QByteArray>> m_buffer;      // guarded by m_writerMutex
    QMap<QString, std::function<void()>> m_updates;            // guarded by m_writerMutex
    ConnectionThread *m_owner;
    std::atomic<bool> m_writerRunning{true};
    std::atomic<long long> m_bufferedSize{0};                  // written under m_writerMutex
};

} // namespace Loomy
