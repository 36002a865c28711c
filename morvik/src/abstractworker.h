#pragma once

#include "morvikglobal.h"

#include <QtCore/QObject>

namespace morvik
{

/// \brief An object that does its work in a thread of its own, given to it by an
/// AbstractWorkerController.
///
/// A subclass says in doStart() how its work begins and in doStop() how it ends; both run in the
/// worker's thread, where everything that doStart() makes then lives. doStop() has to bear being
/// called twice, and before any doStart(): a subclass whose doStop() has to run when it is
/// destroyed calls it in its own destructor.
///
/// While a stop is asked for, QThread::isInterruptionRequested() is true in that thread; whatever
/// waits there has to look at it.
class MORVIK_EXPORT AbstractWorker : public QObject
{
    Q_OBJECT

public:
    explicit AbstractWorker(QObject *parent = nullptr);
    ~AbstractWorker() override;

    virtual bool doStart() = 0;
    virtual bool doStop() = 0;

public Q_SLOTS:
    /// Stops and starts, in the worker's thread; not once a stop of the thread is asked for.
    void restart();
};

} // namespace morvik
