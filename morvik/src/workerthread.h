#pragma once

#include "abstractworker.h"

#include <QtCore/QPointer>
#include <QtCore/QThread>

namespace morvik
{

/// \brief The thread of one worker: it starts the worker, runs its events, stops and deletes it.
/// Internal to the library.
class WorkerThread : public QThread
{
    Q_OBJECT

public:
    /// Takes over \a worker, which has no parent and lives in the calling thread.
    explicit WorkerThread(AbstractWorker *worker, QObject *parent = nullptr);
    ~WorkerThread() override;

    /// Asks the worker to stop. Returns at once.
    void askToStop();

    /// Waits until the thread has ended. False, and at once, if that will not come: the thread is
    /// the calling one, or has called exit() while another thread was ending the process.
    bool awaitEnd();

    /// \brief Ends all worker threads of the process but the calling one, before what is static is
    /// destroyed.
    ///
    /// Called by every thread that ends the process. Only the first one returns: exit handlers of
    /// two threads side by side would destroy what the other is using, and two threads that wait
    /// for each other would never end.
    static void stopAll();

Q_SIGNALS:
    void workerStarted();

protected:
    void run() override;

private:
    enum State { Working, Over, Parked };

    static void park();
    void setState(State state);
    void runWithoutApplication();

    QPointer<AbstractWorker> _worker;
    State _state = Working; // guarded by the mutex of all threads, in the .cpp file
};

} // namespace morvik
