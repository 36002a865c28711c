#pragma once

#include "abstractworker.h"

#include <QtCore/QPointer>
#include <QtCore/QThread>

namespace morvik
{

/// \brief The thread of one worker: starts it, runs its events, stops and deletes it, all in
/// itself. Internal to the library.
class WorkerThread : public QThread
{
    Q_OBJECT

public:
    /// Takes \a worker over; it has no parent and lives in the calling thread.
    explicit WorkerThread(AbstractWorker *worker, QObject *parent = nullptr);
    ~WorkerThread() override;

    /// Asks the worker to stop. Returns at once.
    void askToStop();

    /// Ends all worker threads of the process but the calling one. A program that calls exit()
    /// destroys its static data while they would still be using it.
    static void stopAll();

Q_SIGNALS:
    void workerStarted();

protected:
    void run() override;

private:
    void runWithoutApplication();

    QPointer<AbstractWorker> _worker;
};

} // namespace morvik
