#include "abstractworkercontroller.h"

#include "abstractworker.h"
#include "workerthread.h"

#include <QtCore/QList>
#include <QtCore/QPointer>

#include <utility>

namespace morvik
{

class AbstractWorkerController::Private
{
public:
    QList<WorkerThread *> _threads;
    bool _started = false;
};

AbstractWorkerController::AbstractWorkerController(QObject *parent)
    : QObject(parent)
    , d(std::make_unique<Private>())
{}

AbstractWorkerController::~AbstractWorkerController()
{
    // Overrides of these two functions are not called any more: the subclass is gone.
    AbstractWorkerController::doStop();
    AbstractWorkerController::doKillThreads();
}

bool AbstractWorkerController::start()
{
    if (d->_started)
        return true;
    d->_started = true;
    if (!doStart())
        stop();
    return d->_started;
}

void AbstractWorkerController::stop()
{
    if (!d->_started && d->_threads.isEmpty())
        return;
    d->_started = false;
    doStop();
    doKillThreads();
}

bool AbstractWorkerController::isStarted() const
{
    return d->_started;
}

bool AbstractWorkerController::doStop()
{
    for (WorkerThread *thread : std::as_const(d->_threads))
        thread->askToStop();
    return true;
}

void AbstractWorkerController::doKillThreads()
{
    // Taken out first: a subclass that is told may start again.
    const QList<WorkerThread *> threads = std::exchange(d->_threads, {});
    for (WorkerThread *thread : threads) {
        const bool ran = thread->isRunning() || thread->isFinished();
        if (!thread->awaitEnd()) {
            // Its worker has called exit(), here or while another thread was ending the process:
            // the thread outlives this controller.
            thread->setParent(nullptr);
            continue;
        }
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
    d->_threads.append(thread);
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
