#include "abstractworkercontroller.h"

#include "abstractworker.h"
#include "workerthread.h"

#include <QtCore/QPointer>

#include <utility>

namespace morvik
{

AbstractWorkerController::AbstractWorkerController(QObject *parent)
    : QObject(parent)
{}

AbstractWorkerController::~AbstractWorkerController()
{
    // The subclass is gone, and with it what it makes of these two.
    AbstractWorkerController::doStop();
    AbstractWorkerController::doKillThreads();
}

bool AbstractWorkerController::start()
{
    if (_started)
        return true;
    _started = true;
    if (!doStart())
        stop();
    return _started;
}

void AbstractWorkerController::stop()
{
    if (!_started)
        return;
    _started = false;
    doStop();
    doKillThreads();
}

bool AbstractWorkerController::isStarted() const
{
    return _started;
}

bool AbstractWorkerController::doStop()
{
    for (WorkerThread *thread : std::as_const(_threads))
        thread->askToStop();
    return true;
}

void AbstractWorkerController::doKillThreads()
{
    // Taken out first: a subclass that is told may start again.
    const QList<WorkerThread *> threads = std::exchange(_threads, {});
    for (WorkerThread *thread : threads) {
        const bool ran = thread->isRunning() || thread->isFinished();
        if (thread == QThread::currentThread()) {
            // A worker has called exit(), and this controller is static: its thread outlives it.
            thread->setParent(nullptr);
            continue;
        }
        thread->wait();
        delete thread;
        if (ran)
            processStoppedWorker();
    }
}

QThread *AbstractWorkerController::addWorkerToThread(AbstractWorker *worker)
{
    if (!worker)
        return nullptr;
    auto *thread = new WorkerThread(worker, this);
    _threads.append(thread);
    const auto started = [this, current = QPointer<WorkerThread>(thread)] {
        if (current) // else it was stopped before this came through
            processStartedWorker();
    };
    connect(thread, &WorkerThread::workerStarted, this, started, Qt::QueuedConnection);
    return thread;
}

void AbstractWorkerController::processStartedWorker() {}

void AbstractWorkerController::processStoppedWorker() {}

} // namespace morvik
