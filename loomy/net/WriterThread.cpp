#include "loomy/net/WriterThread.h"

#include "loomy/net/ConnectionThread.h"

#include "kestrel/BinaryData.h"
#include "kestrel/TCPSocket.h"
#include "kestrel/TimeStamp.h"
#include "kestrel/Trace.h"

#include <utility>

namespace Loomy {

namespace {

const int s_pieceSize = 16384;
const unsigned long s_idleWaitMs = 1000;
const double s_pingSilence = 5.0;           // seconds without a byte before a keep-alive ping

long long sizeOf(const QList<QByteArray> &blocks)
{
    long long total = 0;
    for (const QByteArray &block : blocks)
        total += block.size();
    return total;
}

} // namespace

WriterThread::WriterThread(ConnectionThread *owner)
    : Kestrel::Thread(QStringLiteral("LoomyWriter"))
    , m_owner(owner)
{
    eventAddOut("error");
    eventAddOut("data-written");
}

WriterThread::~WriterThread()
{
    stop();
    waitEnd(0);
}

void WriterThread::writeData(QList<QByteArray> blocks, QByteArray key)
{
    Kestrel::MutexLocker lock(m_writerMutex);
    m_bufferedSize += sizeOf(blocks);
    m_buffer.append(qMakePair(std::move(blocks), std::move(key)));
    m_writerCondition.wakeAll();
}

void WriterThread::writeData(QByteArray data, QByteArray key)
{
    writeData(QList<QByteArray>{std::move(data)}, std::move(key));
}

void WriterThread::update(QString name, std::function<void()> callback)
{
    Kestrel::MutexLocker lock(m_writerMutex);
    m_updates[name] = std::move(callback);
    m_writerCondition.wakeAll();
}

void WriterThread::removeFromBuffer(QByteArray key)
{
    Kestrel::MutexLocker lock(m_writerMutex);
    for (auto it = m_buffer.begin(); it != m_buffer.end();) {
        if (it->second == key) {
            m_bufferedSize -= sizeOf(it->first);
            it = m_buffer.erase(it);
        } else {
            ++it;
        }
    }
}

bool WriterThread::start()
{
    if (isRunning())
        return false;
    m_writerRunning = true;
    return run();
}

void WriterThread::stop()
{
    m_writerRunning = false;
    m_writerCondition.wakeAll(m_writerMutex);
}

void WriterThread::childLoop()
{
    Kestrel::MutexLocker lock(m_writerMutex);
    // Units left by the last connection stay and go out on this one; their sizes were counted
    // then, so the counter may now fall below zero.
    m_updates.clear();
    m_bufferedSize = 0;

    // Keep-alive state of this run.
    bool pingPending = false;
    Kestrel::TimeStamp lastPing;
    unsigned long long rxAtPing = 0;

    while (m_writerRunning) {
        if (!m_updates.isEmpty()) {
            const QMap<QString, std::function<void()>> updates = std::exchange(m_updates, {});
            lock.unlock();
            {
                Kestrel::MutexLocker send(m_owner->m_sendMutex);
                for (const auto &callback : updates)
                    callback();
            }
            lock.relock();
            continue;
        }

        if (!m_buffer.isEmpty()) {
            const QPair<QList<QByteArray>, QByteArray> unit = m_buffer.takeFirst();
            m_bufferedSize -= sizeOf(unit.first);
            lock.unlock();
            {
                // Held for the whole unit, so that nothing else reaches the socket inside it.
                Kestrel::MutexLocker send(m_owner->m_sendMutex);
                Kestrel::TCPSocket *socket = m_owner->socket();
                // Once the peer answers pings, a peer that stops reading is as dead as one that
                // stops talking: a write that makes no progress for the ping time-out ends the
                // connection, instead of blocking this thread for ever while the queue grows.
                const bool keepAlive = m_owner->m_usePing && m_owner->m_pingActive;
                if (socket)
                    socket->setWriteTimeout(keepAlive ? int(m_owner->m_pingTimeout * 1000) : 0);
                for (const QByteArray &block : unit.first) {
                    for (int offset = 0; m_writerRunning && offset < block.size(); offset += s_pieceSize) {
                        const int piece = qMin(s_pieceSize, block.size() - offset);
                        if ((socket ? socket->write(block.constData() + offset, piece) : 0) < piece) {
                            if (keepAlive && socket && socket->writeTimedOut()) {
                                Kestrel::Trace::error("%s:%d: Ping timeout, disconnecting",
                                                      qUtf8Printable(m_owner->host()), m_owner->port());
                                socket->close();   // wakes the connection thread's read
                            }
                            // Otherwise the connection thread notices by its next failed read.
                            Kestrel::Trace::debug("WriterThread::childLoop # Write error");
                            m_writerRunning = false;
                            eventSend("error");
                            break;
                        }
                        if (unit.second == "ping")
                            lastPing = Kestrel::TimeStamp::monotonicTime();
                        Kestrel::BinaryData written;
                        written.writeString(unit.second);
                        written.writeInt32(piece);
                        eventSend("data-written", written);
                    }
                }
            }
            lock.relock();
            continue;
        }

        // Keep-alive: only when idle, and only once the peer has shown that it answers pings.
        if (m_owner->m_usePing && m_owner->m_pingActive) {
            const Kestrel::TimeStamp now = Kestrel::TimeStamp::monotonicTime();
            const double silence = (now - m_owner->m_lastReceived.load()).seconds();
            const double timeout = m_owner->m_pingTimeout;
            Kestrel::TCPSocket *socket = m_owner->socket();
            const unsigned long long rx = socket ? socket->rxBytes() : 0;
            if (!pingPending) {
                if (silence > s_pingSilence) {
                    m_buffer.prepend(qMakePair(QList<QByteArray>{QByteArray("ping\n")}, QByteArray("ping")));
                    m_bufferedSize += 5;
                    lastPing = now;
                    rxAtPing = rx;
                    pingPending = true;
                    continue;
                }
            } else if (silence > timeout && (now - lastPing).seconds() + s_pingSilence > timeout && rx == rxAtPing) {
                Kestrel::Trace::error("%s:%d: Ping timeout, disconnecting", qUtf8Printable(m_owner->host()),
                                      m_owner->port());
                if (socket)
                    socket->close();
                m_writerRunning = false;
                // Not under the mutex: a listener may hand the writer more data.
                lock.unlock();
                eventSend("error");
                return;
            } else if (silence <= s_pingSilence || rx > rxAtPing) {
                pingPending = false;   // some sign of life came in
            }
        }
        m_writerCondition.wait(m_writerMutex, s_idleWaitMs);
    }
}

} // namespace Loomy
