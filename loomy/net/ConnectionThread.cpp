#include "loomy/net/ConnectionThread.h"

#include "loomy/net/WriterThread.h"

#include "kestrel/BinaryData.h"
#include "kestrel/TCPSocket.h"
#include "kestrel/Trace.h"

#include <QCryptographicHash>
#include <QRegExp>

#include <cstdint>
#include <exception>
#include <new>
#include <random>

namespace Loomy {

namespace {

const char s_banner[] = "Lanternwick 2.14.4";
const char s_bannerPattern[] = "^Lanternwick (1|2)\\.(\\d+)\\.(\\d+)(-(.+))?$";
const char s_login[] = "tolly";
const char s_secret[] = "tollytolly";   // login name followed by the password
const int s_secretSize = 10;
const char s_failureReply[] = "Wrong username or password";
const char s_pingPattern[] = "^ping(?: .+)?$";
const char s_pongPattern[] = "^pong(?: (.+))?$";

const double s_retryPeriod = 3.0;          // seconds from the start of one attempt to the next
const int s_skipChunk = 512;

Kestrel::TimeStamp now()
{
    return Kestrel::TimeStamp::monotonicTime();
}

} // namespace

ConnectionThread::ConnectionThread(Kestrel::TCPSocket *socket, bool accepted)
    : Kestrel::Thread(QStringLiteral("LoomyConn"))
    , m_socket(socket)
    , m_acceptedSocket(accepted)
    , m_writer(new WriterThread(this))
{
    eventAddIn("write-error");
    eventAddIn("data-written");
    eventAddOut("connected");
    eventAddOut("disconnected");
    m_writer->eventAddListener("error", "write-error", this, Tamarack::Node::DIRECT, nullptr);
    m_writer->eventAddListener("data-written", "data-written", this, Tamarack::Node::DIRECT, nullptr);
}

ConnectionThread::~ConnectionThread()
{
    // The thread must be out of every read before the socket goes; closing the socket is what
    // gets it out of a blocked one.
    ConnectionThread::stop();
    waitEnd(0);
    m_writer->waitEnd(0);
    delete m_writer;
    delete m_socket.load();
}

void ConnectionThread::childLoop()
{
    if (m_acceptedSocket) {
        handleConnection();
        return;
    }
    if (m_stopped) {
        m_running = false;
        return;
    }
    // Counts every attempt, successful ones included; never reset.
    int attempt = 0;
    for (;;) {
        if (!m_running && !m_reconnect) {
            m_running = false;
            return;
        }
        if (attempt >= 4)
            Kestrel::Trace::debug("ConnectionThread::childLoop# %d connection retries to %s", attempt,
                                  qUtf8Printable(host()));
        const Kestrel::TimeStamp start = now();
        if (m_reconnect)
            m_running = true;
        if (!openConnection() || !m_running)
            connectionFailed();
        else
            handleConnection();
        if (!m_stopped)
            m_running = true;
        if (!m_reconnect)
            m_running = false;

        // The rest of the period since this attempt started: a connection that lasted longer is
        // retried at once.
        const auto left = [start] { return s_retryPeriod - (now() - start).seconds(); };
        Kestrel::MutexLocker lock(m_retryMutex);
        for (double secondsLeft = left(); secondsLeft > 0 && !m_stopped && (m_running || m_reconnect);) {
            m_retryCondition.wait(m_retryMutex, secondsLeft > 1.0 ? 1001 : (unsigned long)(secondsLeft * 1000) + 1);
            secondsLeft = left();
            if (secondsLeft > 0) {
                // Not under the lock: the hook may call stop(), which takes it.
                lock.unlock();
                retryProgress(secondsLeft);
                lock.relock();
            }
        }
        lock.unlock();
        ++attempt;
        if (m_stopped) {
            m_running = false;
            return;
        }
    }
}

void ConnectionThread::stop()
{
    m_stopped = true;
    m_running = false;
    m_writer->stop();
    m_retryCondition.wakeAll(m_retryMutex);
    Kestrel::MutexLocker lock(m_connectingMutex);
    if (m_connecting)
        m_connecting->close();
    if (Kestrel::TCPSocket *s = socket())
        s->close();
}

void ConnectionThread::eventProcess(const QByteArray &id, Kestrel::BinaryData &data)
{
    if (id == "write-error")
        m_running = false;
    else if (id != "data-written")
        Tamarack::Node::eventProcess(id, data);
}

void ConnectionThread::connectToHost(const QString &host, int port)
{
    {
        Kestrel::MutexLocker lock(m_addressMutex);
        m_host = host;
        m_port = port;
    }
    m_stopped = false;
    if (isRunning()) {
        // The read in progress fails, and the loop opens the new address.
        m_writer->stop();
        Kestrel::MutexLocker lock(m_connectingMutex);
        if (Kestrel::TCPSocket *s = socket())
            s->close();
        m_running = false;
    } else {
        run();
    }
}

bool ConnectionThread::isConnected() const
{
    return m_running && m_connected;
}

unsigned long long ConnectionThread::rxBytes() const
{
    Kestrel::TCPSocket *s = socket();
    return s ? s->rxBytes() : 0;
}

unsigned long long ConnectionThread::txBytes() const
{
    Kestrel::TCPSocket *s = socket();
    return s ? s->txBytes() : 0;
}

long long ConnectionThread::bufferedDataSize() const
{
    return m_writer->bufferedDataSize();
}

QString ConnectionThread::host() const
{
    Kestrel::MutexLocker lock(m_addressMutex);
    return m_host;
}

int ConnectionThread::port() const
{
    Kestrel::MutexLocker lock(m_addressMutex);
    return m_port;
}

void ConnectionThread::setRemoteVersion(int major, int minor, int patch, QString suffix)
{
    m_remoteMajor = major;
    m_remoteMinor = minor;
    m_remotePatch = patch;
    m_remoteSuffix = suffix;
    m_remoteVersionText = suffix.isEmpty() ? QStringLiteral("%1.%2.%3").arg(major).arg(minor).arg(patch)
                                           : QStringLiteral("%1.%2.%3-%4").arg(major).arg(minor).arg(patch).arg(suffix);
}

bool ConnectionThread::remoteVersion(int major, int minor, int patch) const
{
    if (m_remoteMajor != major)
        return m_remoteMajor > major;
    if (m_remoteMinor != minor)
        return m_remoteMinor > minor;
    return m_remotePatch >= patch;
}

bool ConnectionThread::isLoomy15Supported() const
{
    return remoteVersion(2, 2, 0)
           || (remoteVersion(2, 0, 4) && m_remoteSuffix.contains(QLatin1String("bramble"), Qt::CaseSensitive));
}

bool ConnectionThread::readExactly(char *target, int count)
{
    Kestrel::TCPSocket *s = socket();
    return (s ? s->read(target, count, true) : 0) == count;
}

QString ConnectionThread::line()
{
    QByteArray bytes;
    for (;;) {
        char c = 0;
        if (!readExactly(&c, 1)) {
            Kestrel::Trace::debug("ConnectionThread::line # no reply from %s:%d (could not read from socket)",
                                  qUtf8Printable(host()), port());
            abortRead();
            return QString();
        }
        m_lastReceived = now();
        if (c == '\r' || c == '\n') {
            if (bytes.isEmpty())
                continue;   // an empty line, or the LF of a CR LF
            return QString::fromUtf8(bytes);
        }
        if (!withinLimit("ConnectionThread::line", bytes.size() + 1LL, m_maxValueLength))
            return QString();
        bytes.append(c);
    }
}

QByteArray ConnectionThread::readData(int count)
{
    if (count <= 0 || !withinLimit("ConnectionThread::readData", count, m_maxValueLength))
        return QByteArray();
    // The count may come from the wire: a size no array can take is a failed read, not a crash.
    QByteArray data;
    int got = 0;
    try {
        data.resize(count);
        Kestrel::TCPSocket *s = socket();
        got = s ? s->read(data.data(), count, true) : 0;
    } catch (const std::bad_alloc &) {
    }
    if (got != count) {
        if (!m_stopped)
            Kestrel::Trace::error("ConnectionThread::readData # Read error (%s:%d expected %d bytes, got %d bytes",
                                  qUtf8Printable(host()), port(), count, got);
        abortRead();
        return QByteArray();
    }
    return data;
}

bool ConnectionThread::readData(unsigned char *target, int count)
{
    if (count < 1)
        return true;
    if (readExactly(reinterpret_cast<char *>(target), count))
        return true;
    Kestrel::Trace::error("ConnectionThread::readData # Read error");
    abortRead();
    return false;
}

void ConnectionThread::skip(int count)
{
    char chunk[s_skipChunk];
    while (count > 0) {
        const int step = qMin(count, s_skipChunk);
        if (!readExactly(chunk, step)) {
            Kestrel::Trace::error("ConnectionThread::skip # Read error");
            abortRead();
            return;
        }
        count -= step;
    }
}

QMap<QString, QString> ConnectionThread::readMap(int count)
{
    QMap<QString, QString> map;
    if (!remoteVersion(1, 9, 1)) {
        for (int i = 0; i < count; ++i) {
            const QString key = line();
            map[key] = line();
        }
        return map;
    }
    QByteArray buffer(8, '\0');
    if (!readExactly(buffer.data(), 8)) {
        if (!m_stopped)
            Kestrel::Trace::error("ConnectionThread::readMap # error while reading data");
        abortRead();
        return map;
    }
    Kestrel::BinaryData header;
    header.linkTo(buffer.data(), 8);
    header.setTotal(8);
    const int total = header.readInt32();
    if (!withinLimit("ConnectionThread::readMap", total, m_maxValueLength))
        return map;
    if (total > 8) {
        try {
            buffer.append(total - 8, '\0');
        } catch (const std::bad_alloc &) {
            Kestrel::Trace::error("ConnectionThread::readMap # error while reading data");
            abortRead();
            return map;
        }
        // The result is ignored on purpose: after a failure the pairs are read from what came
        // and the zeroed rest, and the connection ends at the next line.
        readExactly(buffer.data() + 8, total - 8);
    }
    Kestrel::BinaryData block;
    block.linkTo(buffer.data(), buffer.size());
    block.setTotal(unsigned(buffer.size()));
    block.readInt32();
    for (int i = 0; i < count; ++i) {
        QString key, value;
        if (!block.readString(key) || !block.readString(value))
            break;
        map[key] = value;
    }
    return map;
}

void ConnectionThread::abortRead()
{
    m_writer->stop();
    m_running = false;
}

bool ConnectionThread::withinLimit(const char *operation, long long size, long long limit)
{
    if (limit <= 0 || size <= limit)
        return true;
    Kestrel::Trace::error("%s # %lld bytes exceed the limit of %lld, closing connection", operation, size, limit);
    abortRead();
    return false;
}

bool ConnectionThread::writeData(const void *data, int size)
{
    if (size < 1)
        return true;
    Kestrel::TCPSocket *s = socket();
    if ((s ? s->write(data, size) : 0) == size)
        return true;
    Kestrel::Trace::error("ConnectionThread::writeData # Write error");
    m_writer->stop();
    m_running = false;
    return false;
}

bool ConnectionThread::puts(QString text)
{
    const QByteArray bytes = (text + QLatin1Char('\n')).toUtf8();
    return writeData(bytes.constData(), bytes.size());
}

void ConnectionThread::writeBufferData(QByteArray data, QByteArray key)
{
    if (!data.isEmpty())
        m_writer->writeData(data, key);
}

void ConnectionThread::writeBuffer(QString text, QByteArray key)
{
    writeBufferData(text.toUtf8(), key);
}

void ConnectionThread::writeBuffer(const QList<QByteArray> &blocks, QByteArray key)
{
    if (!blocks.isEmpty())
        m_writer->writeData(blocks, key);
}

void ConnectionThread::queue(QString line)
{
    if (isConnected()) {
        writeBufferData(line.toUtf8(), QByteArray());
        return;
    }
    Kestrel::MutexLocker lock(m_pendingMutex);
    m_pending.append(line.toUtf8());
}

void ConnectionThread::ping(const QByteArray &payload)
{
    writeBufferData(payload.isEmpty() ? QByteArray("ping\n") : "ping " + payload + '\n', QByteArray());
}

QByteArray ConnectionThread::buildMapBuffer(const QString &command, const QMap<QString, QString> &map) const
{
    QByteArray out = QStringLiteral("%1 %2\n").arg(command).arg(map.size()).toUtf8();
    if (remoteVersion(1, 9, 1)) {
        Kestrel::BinaryData block;
        block.writeInt32(0);
        for (auto it = map.cbegin(); it != map.cend(); ++it) {
            block.writeString(it.key());
            block.writeString(it.value());
        }
        // Patch the size item in place: an int32 item keeps its 8 bytes whatever its value.
        const unsigned total = block.total();
        block.rewind();
        block.writeInt32(int(total));
        out.append(block.data(), int(total));
    } else {
        for (auto it = map.cbegin(); it != map.cend(); ++it) {
            QString key = it.key(), value = it.value();
            key.remove(QLatin1Char('\n'));
            value.remove(QLatin1Char('\n'));
            out += QStringLiteral("%1\n%2\n").arg(key, value).toUtf8();
        }
    }
    return out;
}

void ConnectionThread::writeMapBuffer(const QString &command, const QMap<QString, QString> &map)
{
    // A map is a plain command of the embedding protocol, so it carries the producers' empty key.
    writeBufferData(buildMapBuffer(command, map), QByteArray());
}

void ConnectionThread::handleConnection()
{
    Kestrel::TCPSocket *s = socket();
    if (!s) {
        m_running = false;
        return;
    }
    if (!s->setNoDelay(true))
        Kestrel::Trace::error("Failed to set TCP_NODELAY");
    m_lastReceived = now();
    bool ok;
    {
        // Nothing of the writer may come between the handshake's lines.
        Kestrel::MutexLocker lock(m_sendMutex);
        ok = handshake();
    }
    if (!ok) {
        Kestrel::Trace::error("Handshake failed, closing connection");
        s->close();
        m_writer->stop();
        m_running = false;
        return;
    }

    m_connected = true;
    connected();
    m_writer->start();
    eventSend("connected");
    if (m_usePing)
        ping("initialized");
    while (m_running) {
        QByteArray pending;
        {
            Kestrel::MutexLocker lock(m_pendingMutex);
            if (m_pending.isEmpty())
                break;
            pending = m_pending.takeFirst();
        }
        writeBufferData(pending, QByteArray());
    }

    // Patterns of this thread alone: a QRegExp keeps its captures and can't be shared.
    QRegExp pingPattern(QLatin1String(s_pingPattern), Qt::CaseSensitive, QRegExp::RegExp);
    QRegExp pongPattern(QLatin1String(s_pongPattern), Qt::CaseSensitive, QRegExp::RegExp);
    while (m_running) {
        const QString text = line();
        if (text.isEmpty())
            break;
        m_lastReceived = now();
        if (m_usePing && pingPattern.exactMatch(text)) {
            QString reply = text;
            reply[1] = QLatin1Char('o');
            // Ahead of whatever stands in the writer's queue, but never inside one of its units.
            Kestrel::MutexLocker lock(m_sendMutex);
            puts(reply);
        } else if (m_usePing && pongPattern.exactMatch(text)) {
            m_pingActive = true;
            pong(pongPattern.cap(1).toUtf8());
        } else {
            // The boundary of this thread: whatever a parser lets through (a std::length_error
            // for a negative bundle count, an allocation that fails) ends this connection only.
            bool parsed = false;
            try {
                parsed = parse(text);
            } catch (const std::exception &e) {
                Kestrel::Trace::error("ConnectionThread::handleConnection # %s while parsing '%s', closing connection",
                                      e.what(), qUtf8Printable(text.left(80)));
                abortRead();
                break;
            }
            if (!parsed)
                Kestrel::Trace::error("Failed to parse command '%s'", qUtf8Printable(text));
        }
    }

    m_connected = false;
    disconnected();
    eventSend("disconnected");
    s->close();
    // Joined here, so that once this thread has ended no event of the writer reaches this object.
    m_writer->stop();
    m_writer->waitEnd(0);
}

bool ConnectionThread::handshake()
{
    QCryptographicHash hash(QCryptographicHash::Md5);
    QRegExp banner(QLatin1String(s_bannerPattern), Qt::CaseSensitive, QRegExp::RegExp);
    const auto takeVersion = [this, &banner] {
        setRemoteVersion(banner.cap(1).toInt(), banner.cap(2).toInt(), banner.cap(3).toInt(), banner.cap(5));
    };

    if (m_acceptedSocket) {
        // A challenge that differs per connection and per object; it needs to be unpredictable
        // for a replay, not secret.
        const uint64_t mixed = uint64_t(Kestrel::TimeStamp::currentTime().raw()) ^ uint64_t(uintptr_t(this));
        std::mt19937_64 random(uint32_t(mixed >> 32) ^ uint32_t(mixed));
        char challenge[64];
        for (char &c : challenge)
            c = char(random() >> 56);
        hash.addData(challenge, 32);
        hash.addData(s_secret, s_secretSize);
        hash.addData(challenge + 32, 32);
        puts(QLatin1String(s_banner));
        writeData(challenge, sizeof challenge);

        QString user = line();
        if (user == QLatin1String(s_login)) {
            setRemoteVersion(1, 9, 0, QString());   // a client that sends no banner
        } else if (banner.exactMatch(user)) {
            takeVersion();
            user = line();
        } else {
            puts(QLatin1String(s_failureReply));
            return false;
        }
        // Read whatever the user, so that the client hears the one reply after its digest.
        const QByteArray digest = readData(16);
        if (user != QLatin1String(s_login) || digest != hash.result()) {
            puts(QLatin1String(s_failureReply));
            return false;
        }
        puts(QStringLiteral("ok"));
        m_remoteUser = user;
        return true;
    }

    const QString serverBanner = line();
    if (!banner.exactMatch(serverBanner)) {
        Kestrel::Trace::error("Unknown server version '%s', expected \"Lanternwick (1|2).*.*\"",
                              qUtf8Printable(serverBanner));
        return false;
    }
    takeVersion();
    const QByteArray first = readData(32);
    const QByteArray second = readData(32);
    if (first.size() != 32 || second.size() != 32)
        return false;
    hash.addData(first);
    hash.addData(s_secret, s_secretSize);
    hash.addData(second);
    if (remoteVersion(1, 9, 1))
        puts(QLatin1String(s_banner));
    puts(QLatin1String(s_login));
    const QByteArray digest = hash.result();
    writeData(digest.constData(), digest.size());
    const QString reply = line();
    if (reply == QLatin1String("ok"))
        return true;
    Kestrel::Trace::error("Remote host sent handshake error: %s", qUtf8Printable(reply));
    return false;
}

bool ConnectionThread::openConnection()
{
    m_writer->stop();
    m_writer->waitEnd(0);
    const QByteArray address = host().toUtf8();
    const int to = port();
    // A connect gives up within the retry period rather than stretching it.
    const int timeoutMs = int(s_retryPeriod * 1000);
    if (Kestrel::TCPSocket *s = socket())
        return s->open(address.constData(), to, timeoutMs) == 0;

    // The first socket isn't m_socket until it is connected; stop() reaches it here meanwhile.
    auto *fresh = new Kestrel::TCPSocket;
    {
        Kestrel::MutexLocker lock(m_connectingMutex);
        if (m_stopped) {
            delete fresh;
            return false;
        }
        m_connecting = fresh;
    }
    const bool ok = fresh->open(address.constData(), to, timeoutMs) == 0;
    Kestrel::MutexLocker lock(m_connectingMutex);
    m_connecting = nullptr;
    if (!ok) {
        delete fresh;
        return false;
    }
    m_socket = fresh;
    return true;
}

} // namespace Loomy
