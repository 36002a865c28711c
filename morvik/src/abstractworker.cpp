#include "abstractworker.h"

#include <QtCore/QThread>

namespace morvik
{

AbstractWorker::AbstractWorker(QObject *parent)
    : QObject(parent)
{}

AbstractWorker::~AbstractWorker() = default;

void AbstractWorker::restart()
{
    doStop();
    if (!thread()->isInterruptionRequested())
        doStart();
}

} // namespace morvik
