#pragma once

#include "morvikglobal.h"

#include <QtCore/QObject>

#include <memory>

namespace morvik
{

/// \brief An object that does its work in a thread of its own, given to it by an
/// AbstractWorkerController.
///
/// A subclass says in doStart() how its work begins and in doStop() how it ends. Both run in the
/// worker's thread, where everything that doStart() makes then lives. doStop() may be called twice,
/// and before any doStart(). A subclass whose doStop() has to run when it is destroyed calls it in
/// its own destructor.
///
/// Whatever waits in the worker's thread has to look at isStopRequested(), so that a stop is quick.
class MORVIK_EXPORT AbstractWorker : public QObject
{
    Q_OBJECT

public:
    explicit AbstractWorker(QObject *parent = nullptr);
    ~AbstractWorker() override;

    /// Begins the work.
    virtual bool doStart() = 0;
    /// Ends the work.
    virtual bool doStop() = 0;

public Q_SLOTS:
    /// Stops and starts, in the worker's thread; only stops if isStopRequested().
    void restart();

protected:
    /// Whether the worker's thread is asked to end, as by QThread::requestInterruption(), or is
    /// gone.
    bool isStopRequested() const;

private:
    class Private;
    const std::unique_ptr<Private>
        d; // null so far: room to grow below the subclasses of applications
};

} // namespace morvik
