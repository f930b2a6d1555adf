#pragma once
#include "kestrel/kestrel_export.h"

#include <QString>

#include <memory>

namespace Kestrel {

// An OS thread owned by an object: run() starts it, it calls childLoop(), and it ends when
// childLoop() returns. The object may be run again once the thread has ended.
//
// Lifetime: a derived class must make childLoop() return and join (waitEnd) in its own
// destructor, since childLoop() belongs to the derived part. As a last resort ~Thread joins a
// thread that still runs (logging a warning), which is safe as long as that childLoop() no longer
// touches members of the derived class; it never detaches a thread from another thread, so no
// thread is left running on freed memory. run() returns only after the new thread has started on
// its way into childLoop(). An object deleted by its own thread is detached (logged as an error);
// the rest of that run touches nothing of the object.
class KESTREL_EXPORT Thread
{
public:
    // The OS sees the first 15 bytes of the name's UTF-8 form.
    explicit Thread(const QString &name);
    virtual ~Thread();
    Thread(const Thread &) = delete;
    Thread &operator=(const Thread &) = delete;

    // Starts the thread. Returns false (and logs) when it is still running or can't be created.
    bool run();
    // True from run() until childLoop() has returned.
    bool isRunning() const;
    // Waits for the end of the thread and joins it: at most `milliseconds`, or without limit for
    // 0 (or less). Returns whether the thread has ended (true as well when it never ran). Can't be called
    // from the thread itself (returns false).
    bool waitEnd(int milliseconds);

    const QString &name() const;

protected:
    virtual void childLoop() = 0;

private:
    class D;
    std::shared_ptr<D> m_d;   // shared with the running thread, which touches only D after childLoop()
};

} // namespace Kestrel
