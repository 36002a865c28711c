#pragma once

#include "morvikglobal.h"

#include <QtCore/QObject>
#include <QtCore/QThread>

#include <memory>

namespace morvik
{

class AbstractWorker;

/// \brief Owns workers and the threads they work in, and starts and stops them together.
///
/// A subclass makes its workers in doStart(), hands each to addWorkerToThread(), wires it and
/// starts the thread it got. All functions are called from the controller's thread. A worker
/// belongs to the controller from addWorkerToThread() on: it is started, stopped and deleted in its
/// own thread.
///
/// start() and stop() may be called at any time and any number of times. stop() waits until the
/// workers have noticed and have run their doStop().
class MORVIK_EXPORT AbstractWorkerController : public QObject
{
    Q_OBJECT

public:
    explicit AbstractWorkerController(QObject *parent = nullptr);
    /// Stops.
    ~AbstractWorkerController() override;

    /// Calls doStart() unless the controller is started already.
    bool start();
    /// Stops all workers, ends their threads and deletes both, whether start() made them or a
    /// direct call of what doStart() calls. Does nothing where there are none.
    void stop();

    /// Whether start() has been called since the last stop().
    bool isStarted() const;

protected:
    /// Makes the workers. Returning false stops at once what was made.
    virtual bool doStart() = 0;
    /// Asks every worker to stop, and returns at once.
    virtual bool doStop();
    /// Waits for the threads and deletes them.
    virtual void doKillThreads();

    /// A thread for \a worker, which must have no parent; null for a null worker. The thread is not
    /// started: wire the worker first. Once it runs it calls the worker's doStart().
    virtual QThread *addWorkerToThread(AbstractWorker *worker);

    /// Called when a worker has run its doStart(): in the controller's thread, by its event loop.
    virtual void processStartedWorker();
    /// Called when a worker has run its doStop() and is deleted: in the controller's thread.
    virtual void processStoppedWorker();

private:
    class Private;
    const std::unique_ptr<Private> d;
};

} // namespace morvik
