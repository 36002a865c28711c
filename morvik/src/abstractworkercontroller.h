#pragma once

#include "morvikglobal.h"

#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QThread>

namespace morvik
{

class AbstractWorker;
class WorkerThread;

/// \brief Owns workers and the threads they work in, and starts and stops them together.
///
/// A subclass makes its workers in doStart(), hands each to addWorkerToThread(), wires it and
/// starts the thread it got. Everything here is called from the controller's thread. A worker
/// belongs to the controller from addWorkerToThread() on: it is started, stopped and deleted in its
/// own thread.
///
/// start() and stop() may be called at any time and any number of times. stop() waits: for as long
/// as the workers need to notice and to run their doStop().
class MORVIK_EXPORT AbstractWorkerController : public QObject
{
    Q_OBJECT

public:
    explicit AbstractWorkerController(QObject *parent = nullptr);
    /// Stops.
    ~AbstractWorkerController() override;

    /// Calls doStart() unless the controller is started already.
    bool start();
    /// Stops all workers, ends their threads and deletes both. Does nothing on a stopped
    /// controller.
    void stop();

    bool isStarted() const;

protected:
    /// Makes the workers. Returning false stops at once what was made.
    virtual bool doStart() = 0;
    /// Asks every worker to stop; does not wait.
    virtual bool doStop();
    /// Waits for the threads and deletes them.
    virtual void doKillThreads();

    /// A thread for \a worker, which must have no parent; null for a null worker. The thread is not
    /// started: wire the worker first. Once it runs it calls the worker's doStart().
    virtual QThread *addWorkerToThread(AbstractWorker *worker);

    /// A worker has run its doStart(). Called in the controller's thread, by its event loop.
    virtual void processStartedWorker();
    /// A worker has run its doStop() and is deleted. Called in the controller's thread.
    virtual void processStoppedWorker();

private:
    QList<WorkerThread *> _threads;
    bool _started = false;
};

} // namespace morvik
