#include "workerthread.h"

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QCoreApplication>
#include <QtCore/QMutex>
#include <QtCore/QMutexLocker>
#include <QtCore/QSet>
#include <QtCore/QTimer>
#include <QtCore/QWaitCondition>

#include <atomic>
#include <cstdlib>
#include <unistd.h>

namespace morvik
{

namespace
{

constexpr int TICK_MS = 50;

struct LiveThreads
{
    QMutex mutex;
    QSet<WorkerThread *> threads;
    WorkerThread *awaited = nullptr; // by stopAll(), and not to be deleted meanwhile
    QWaitCondition notAwaited;
};

/// Never destroyed: controllers may be, after everything that is static here.
LiveThreads &liveThreads()
{
    static auto *_live = new LiveThreads;
    return *_live;
}

/// What a thread has of its own is destroyed when it calls exit(), before anything that is static.
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
    // The main thread ends by exit() only. For any other that calls it there is the handler, which
    // comes too late for what became static after it was registered.
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
            live.notAwaited.wait(&live.mutex);
    }
    delete _worker; // only if the thread never ran
}

void WorkerThread::askToStop()
{
    requestInterruption();
    quit();
}

void WorkerThread::stopAll()
{
    // Of two threads that call exit() one must not wait for the other.
    static std::atomic_flag _stopping = ATOMIC_FLAG_INIT;
    if (_stopping.test_and_set())
        return;
    LiveThreads &live = liveThreads();
    QMutexLocker locker(&live.mutex);
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
        seen.insert(live.awaited);
        live.awaited->askToStop(); // again, as it may have been made or begun meanwhile
        locker.unlock();
        live.awaited->wait();
        locker.relock();
        live.awaited = nullptr;
        live.notAwaited.wakeAll();
    }
    _stopping.clear();
}

void WorkerThread::run()
{
    _exitGuard.armed = true;
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
    _exitGuard.armed = false;
}

/// exec() complains where there is no QCoreApplication; it may be made later, or never.
void WorkerThread::runWithoutApplication()
{
    QTimer tick; // as nothing else says that there is one, or that a stop is asked for
    tick.start(TICK_MS);
    while (!isInterruptionRequested() && !QCoreApplication::instance())
        eventDispatcher()->processEvents(QEventLoop::WaitForMoreEvents);
}

} // namespace morvik
