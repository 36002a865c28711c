#include "workerthread.h"

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QCoreApplication>
#include <QtCore/QMutex>
#include <QtCore/QMutexLocker>
#include <QtCore/QScopeGuard>
#include <QtCore/QSet>
#include <QtCore/QTimer>
#include <QtCore/QWaitCondition>

#include <cstdlib>
#include <unistd.h>

namespace morvik
{

namespace
{

constexpr int TICK_MS = 50;

struct LiveThreads
{
    QMutex mutex; // guards the members below, and the state of each thread
    QSet<WorkerThread *> threads;
    WorkerThread *awaited = nullptr; // by stopAll(), and not to be deleted meanwhile
    Qt::HANDLE ending = nullptr;     // the thread that ends the process
    QWaitCondition changed;
};

/// Never destroyed: a static controller may be destroyed after everything that is static here.
LiveThreads &liveThreads()
{
    static auto *_live = new LiveThreads;
    return *_live;
}

/// Stops all worker threads when its own thread calls exit(): that destroys the thread's own data
/// first, and everything that is static afterwards.
struct ExitGuard
{
    ~ExitGuard()
    {
        if (armed)
            WorkerThread::stopAll();
    }
    bool armed = false;
};

thread_local ExitGuard _exitGuard;

void stopAllAtExit()
{
    WorkerThread::stopAll();
}

} // namespace

WorkerThread::WorkerThread(AbstractWorker *worker, QObject *parent)
    : QThread(parent)
    , _worker(worker)
{
    // The main thread, which always ends by exit(), and worker threads have a guard. A call of
    // exit() in any other thread is left to the handler, which comes too late for static data that
    // was made after it was registered.
    static const int _registered = std::atexit(stopAllAtExit);
    Q_UNUSED(_registered)
    if (::gettid() == ::getpid())
        _exitGuard.armed = true;

    worker->moveToThread(this);
    LiveThreads &live = liveThreads();
    const QMutexLocker locker(&live.mutex);
    live.threads.insert(this);
}

WorkerThread::~WorkerThread()
{
    askToStop();
    wait();
    {
        LiveThreads &live = liveThreads();
        const QMutexLocker locker(&live.mutex);
        live.threads.remove(this);
        while (live.awaited == this)
            live.changed.wait(&live.mutex);
    }
    delete _worker; // null unless the thread never ran
}

void WorkerThread::askToStop()
{
    requestInterruption();
    quit();
}

bool WorkerThread::awaitEnd()
{
    if (this == currentThread())
        return false;
    {
        LiveThreads &live = liveThreads();
        const QMutexLocker locker(&live.mutex);
        while (_state == Working && isRunning())
            live.changed.wait(&live.mutex);
        if (_state == Parked)
            return false;
    }
    return wait();
}

void WorkerThread::stopAll()
{
    LiveThreads &live = liveThreads();
    QMutexLocker locker(&live.mutex);
    if (live.ending && live.ending != currentThreadId()) {
        locker.unlock();
        park();
    }
    live.ending = currentThreadId();
    for (WorkerThread *thread : std::as_const(live.threads))
        thread->askToStop();

    // The mutex is free during each wait: a worker may have threads of its own to delete.
    QSet<QThread *> seen {currentThread()};
    const auto next = [&]() -> WorkerThread * {
        for (WorkerThread *thread : std::as_const(live.threads)) {
            if (!seen.contains(thread))
                return thread;
        }
        return nullptr;
    };
    while ((live.awaited = next())) {
        WorkerThread *const thread = live.awaited;
        seen.insert(thread);
        thread->askToStop(); // again: the thread may have been made, or may have begun, meanwhile
        locker.unlock();
        thread->awaitEnd();
        locker.relock();
        live.awaited = nullptr;
        live.changed.wakeAll();
    }
}

/// Keeps the calling thread until the process has ended.
void WorkerThread::park()
{
    if (auto *thread = qobject_cast<WorkerThread *>(currentThread()))
        thread->setState(Parked);
    for (;;)
        ::pause();
}

void WorkerThread::setState(State state)
{
    LiveThreads &live = liveThreads();
    const QMutexLocker locker(&live.mutex);
    _state = state;
    live.changed.wakeAll();
}

void WorkerThread::run()
{
    _exitGuard.armed = true;
    // Left by unwinding too, when the thread is cancelled; exit() does not unwind.
    const auto over = qScopeGuard([this] {
        _exitGuard.armed = false;
        setState(Over);
    });
    if (_worker && !isInterruptionRequested()) {
        _worker->doStart();
        emit workerStarted();
    }
    runWithoutApplication();
    if (!isInterruptionRequested())
        exec();
    if (_worker) {
        _worker->doStop();
        delete _worker;
    }
}

/// Runs events until there is a QCoreApplication, which may be made later or never: without one
/// exec() would complain.
void WorkerThread::runWithoutApplication()
{
    QTimer tick; // nothing else would tell that there is an application, or a request to stop
    tick.start(TICK_MS);
    while (!isInterruptionRequested() && !QCoreApplication::instance())
        eventDispatcher()->processEvents(QEventLoop::WaitForMoreEvents);
}

} // namespace morvik
