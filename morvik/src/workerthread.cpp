#include "workerthread.h"

#include <QtCore/QMutex>
#include <QtCore/QMutexLocker>
#include <QtCore/QSet>

#include <cstdlib>

namespace morvik
{

namespace
{

struct LiveThreads
{
    QMutex mutex;
    QSet<WorkerThread *> threads;
};

/// Never destroyed: controllers may be, after everything that is static here.
LiveThreads &liveThreads()
{
    static auto *_live = new LiveThreads;
    return *_live;
}

void stopAllAtExit()
{
    WorkerThread::stopAll();
}

} // namespace

WorkerThread::WorkerThread(AbstractWorker *worker, QObject *parent)
    : QThread(parent)
    , _worker(worker)
{
    // Registered when the first thread is made, so that it is called before what was static by
    // then is destroyed.
    static const int _registered = std::atexit(stopAllAtExit);
    Q_UNUSED(_registered)
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
    LiveThreads &live = liveThreads();
    const QMutexLocker locker(&live.mutex);
    for (WorkerThread *thread : std::as_const(live.threads))
        thread->askToStop();
    for (WorkerThread *thread : std::as_const(live.threads))
        thread->wait();
}

void WorkerThread::run()
{
    if (_worker)
        _worker->doStart();
    emit workerStarted();
    if (!isInterruptionRequested())
        exec();
    if (_worker) {
        _worker->doStop();
        delete _worker;
    }
}

} // namespace morvik
