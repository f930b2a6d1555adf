#include "loomy/assets/ServerBase.h"

#include "loomy/net/ConnectionThread.h"

#include "kestrel/BGThread.h"
#include "kestrel/Condition.h"
#include "kestrel/Mutex.h"
#include "kestrel/PlatformUtils.h"
#include "kestrel/Task.h"
#include "kestrel/TimeStamp.h"
#include "kestrel/Trace.h"
#include "tamarack/Node.h"

#include <atomic>

namespace Loomy {

namespace {

const double s_bindRetrySeconds = 5.0;
const unsigned s_acceptPollMicroseconds = 50000;

} // namespace

class ServerBase::D
{
public:
    Kestrel::Mutex listenMutex;                // guards the wait between two attempts to bind
    Kestrel::Condition listenCondition;        // woken by stop()
    QString host;                              // written by run() while the thread isn't running
    int port = 0;
    std::atomic<bool> serverRunning{false};    // the accept loop goes on

    Kestrel::Mutex instancesMutex;             // guards the next two; held around a connection's start
    QList<std::shared_ptr<ConnectionThread>> instances;     // started and not removed yet
    QList<std::shared_ptr<Kestrel::Task>> removalTasks;     // removals under way

    std::atomic<bool> autoFirewall{false};
    QString firewallRule;                      // written with autoFirewall, before run()
};

ServerBase::ServerBase()
    : Kestrel::Thread(QStringLiteral("LoomyServerBase")), m_d(std::make_unique<D>())
{
}

ServerBase::~ServerBase()
{
    shutdown();
}

void ServerBase::shutdown()
{
    // The accept thread runs members of this object and calls createConnection: it goes first.
    stop(false);
    waitEnd(0);
    closeConnections();
    QList<std::shared_ptr<Kestrel::Task>> tasks;
    {
        Kestrel::MutexLocker lock(m_d->instancesMutex);
        tasks.swap(m_d->removalTasks);
    }
    // With no mutex held: each removal takes instancesMutex itself.
    for (const auto &task : tasks)
        task->runNow(true);
}

void ServerBase::run(QString host, int port)
{
    if (isRunning())
        return;
    m_d->serverRunning = true;
    m_d->host = host;
    m_d->port = port;
    Kestrel::Thread::run();
}

void ServerBase::stop(bool closeInstances)
{
    m_d->serverRunning = false;
    m_d->listenCondition.wakeAll(m_d->listenMutex);
    close();
    if (!closeInstances)
        return;
    Kestrel::MutexLocker lock(m_d->instancesMutex);
    const auto connections = m_d->instances;
    for (const auto &connection : connections)
        connection->stop();
}

void ServerBase::closeConnections()
{
    if (m_d->serverRunning)
        return;
    QList<std::shared_ptr<ConnectionThread>> connections;
    {
        Kestrel::MutexLocker lock(m_d->instancesMutex);
        connections.swap(m_d->instances);
    }
    for (const auto &connection : connections)
        connection->stop();
    for (const auto &connection : connections)
        connection->waitEnd(0);
}

QList<std::shared_ptr<ConnectionThread>> ServerBase::instances()
{
    // An element-wise copy, not a shared one: the caller's list must not share its storage with
    // the one removals edit on the background pool. Qt decides whether a list is still shared
    // with a relaxed load of its reference count, which orders nothing between threads.
    Kestrel::MutexLocker lock(m_d->instancesMutex);
    QList<std::shared_ptr<ConnectionThread>> copy;
    copy.reserve(m_d->instances.size());
    for (const auto &connection : qAsConst(m_d->instances))
        copy.append(connection);
    return copy;
}

void ServerBase::removeInstance(std::shared_ptr<ConnectionThread> connection)
{
    if (!connection)
        return;
    // A thread can't join itself, and this is called on the connection's thread: the join and the
    // rest of the removal run on the background pool.
    auto task = std::make_shared<Kestrel::FunctionTask>([this, connection](Kestrel::Task &self) mutable {
        connection->waitEnd(0);
        {
            Kestrel::MutexLocker lock(m_d->instancesMutex);
            // Each hit is replaced by the last entry, so the order isn't kept.
            for (int i = 0; i < m_d->instances.size();) {
                if (m_d->instances.at(i) != connection) {
                    ++i;
                    continue;
                }
                m_d->instances[i] = m_d->instances.last();
                m_d->instances.removeLast();
            }
        }
        removedInstance(connection);
        self.setState(Kestrel::Task::Done);
        {
            Kestrel::MutexLocker lock(m_d->instancesMutex);
            for (int i = m_d->removalTasks.size() - 1; i >= 0; --i) {
                if (m_d->removalTasks.at(i).get() == &self)
                    m_d->removalTasks.removeAt(i);
            }
        }
        // The last reference goes at a safe point of the frame loop, where the connection's
        // listeners and nodes may be torn down.
        Tamarack::Node::invokeAfterUpdate([last = std::move(connection)]() mutable { last.reset(); });
    });
    Kestrel::MutexLocker lock(m_d->instancesMutex);
    m_d->removalTasks.append(task);
    Kestrel::BGThread::instance()->addTask(task);
}

void ServerBase::setAutoFirewallRules(bool enable, const QString &ruleName)
{
    m_d->firewallRule = ruleName;
    m_d->autoFirewall = enable;
}

void ServerBase::removedInstance(std::shared_ptr<ConnectionThread>) {}
void ServerBase::connected(std::shared_ptr<ConnectionThread>) {}
void ServerBase::disconnected(std::shared_ptr<ConnectionThread>) {}

void ServerBase::childLoop()
{
    const QByteArray host = m_d->host.toUtf8();
    for (;;) {
        if (!m_d->serverRunning)
            return;
        if (m_d->autoFirewall)
            Kestrel::PlatformUtils::openFirewallPortTCP(m_d->port, m_d->firewallRule);
        const Kestrel::TimeStamp start = Kestrel::TimeStamp::monotonicTime();
        if (open(host.constData(), m_d->port, 2) == 0)
            break;
        Kestrel::MutexLocker lock(m_d->listenMutex);
        for (;;) {
            const double left = s_bindRetrySeconds - (Kestrel::TimeStamp::monotonicTime() - start).seconds();
            if (left <= 0 || !m_d->serverRunning)
                break;
            m_d->listenCondition.wait(m_d->listenMutex, (unsigned long)(left * 1000) + 1);
        }
    }
    // The bound port, which differs from the configured one when that was 0.
    Kestrel::Trace::info("Listening %s:%d", host.constData(), port());

    while (m_d->serverRunning) {
        if (!isPendingConnection(s_acceptPollMicroseconds))
            continue;
        std::shared_ptr<ConnectionThread> connection = createConnection(accept());
        if (!connection)
            continue;
        const std::weak_ptr<ConnectionThread> weak = connection;
        connection->eventAddListener("connected", [this, weak] {
            if (auto strong = weak.lock())
                connected(strong);
        }, Tamarack::Node::DIRECT);
        connection->eventAddListener("disconnected", [this, weak] {
            auto strong = weak.lock();
            if (strong)
                disconnected(strong);
            removeInstance(strong);
        }, Tamarack::Node::DIRECT);
        // Held around the start, so that the removal of a connection that dies at once can't
        // search the list before the connection stands in it.
        Kestrel::MutexLocker lock(m_d->instancesMutex);
        connection->Kestrel::Thread::run();
        m_d->instances.append(connection);
    }
    // A stop() that came while binding may have closed nothing yet.
    close();
}

} // namespace Loomy
