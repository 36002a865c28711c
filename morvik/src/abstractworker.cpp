#include "abstractworker.h"

#include <QtCore/QThread>

namespace morvik
{

class AbstractWorker::Private
{};

AbstractWorker::AbstractWorker(QObject *parent)
    : QObject(parent)
{}

AbstractWorker::~AbstractWorker() = default;

void AbstractWorker::restart()
{
    doStop();
    if (!isStopRequested())
        doStart();
}

bool AbstractWorker::isStopRequested() const
{
    // Null once the QThread object is deleted, which does not move the worker anywhere.
    const QThread *const own = thread();
    return !own || own->isInterruptionRequested();
}

} // namespace morvik
