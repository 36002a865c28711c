#include "buslistener.h"

namespace bus
{

namespace
{
// A connection that waits cannot be taken and cannot be refused: looking at it without a pause
// would use a whole processor until a descriptor is free.
constexpr int RETRY_MS = 500;
} // namespace

BusListener::BusListener(QObject *parent)
    : QTcpServer(parent)
{
    _retry.setSingleShot(true);
    _retry.setInterval(RETRY_MS);
    connect(&_retry, &QTimer::timeout, this, &QTcpServer::resumeAccepting);
    connect(this, &QTcpServer::acceptError, this, &BusListener::onAcceptError);
}

void BusListener::incomingConnection(qintptr descriptor)
{
    emit descriptorArrived(descriptor);
}

void BusListener::onAcceptError()
{
    if (_warnings.allows(QString()))
        qCWarning(BUS_LOG).noquote() << "cannot take a connection:" << errorString();
    pauseAccepting();
    _retry.start();
}

} // namespace bus
