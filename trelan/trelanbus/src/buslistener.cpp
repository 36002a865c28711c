#include "buslistener.h"

#include <sys/socket.h>

#include <cerrno>

namespace bus
{

namespace
{

// A connection that waits cannot be taken and cannot be refused: looking at it without a pause
// would use a whole processor until a descriptor is free.
constexpr int RETRY_MS = 500;

/// Whether there is just no connection, or no more; anything else will not pass by looking again.
bool isPassing(int error)
{
    return error == EAGAIN || error == EINTR || error == ECONNABORTED || error == EPROTO;
}

} // namespace

BusListener::BusListener(QObject *parent)
    : QObject(parent)
{
    _retry.setSingleShot(true);
    _retry.setInterval(RETRY_MS);
    connect(&_retry, &QTimer::timeout, this, [this] { _arrival->setEnabled(true); });
}

bool BusListener::listen(const QHostAddress &host, quint16 port)
{
    if (!_server.listen(host, port))
        return false;
    // The server lets 50 connections wait. One more, and the system drops what it sends first, so
    // that it is there a second later: in a crowd, or when everybody comes back at once.
    ::listen(int(_server.socketDescriptor()), SOMAXCONN);
    // The server keeps the first error it meets, usually that nothing is waiting any more, and
    // does not tell of a shortage of descriptors after it.
    _server.pauseAccepting();
    _arrival = std::make_unique<QSocketNotifier>(_server.socketDescriptor(), QSocketNotifier::Read);
    connect(_arrival.get(), &QSocketNotifier::activated, this, &BusListener::accept);
    return true;
}

void BusListener::close()
{
    _retry.stop();
    _arrival.reset();
    _server.close();
}

quint16 BusListener::serverPort() const
{
    return _server.serverPort();
}

QString BusListener::errorString() const
{
    return _server.errorString();
}

/// Takes one connection: those that have been taken come first.
void BusListener::accept()
{
    const int descriptor =
        ::accept4(int(_server.socketDescriptor()), nullptr, nullptr, SOCK_CLOEXEC);
    if (descriptor >= 0)
        emit descriptorArrived(descriptor);
    else if (!isPassing(errno))
        pause(qt_error_string(errno));
}

void BusListener::pause(const QString &reason)
{
    if (_warnings.allows(QString()))
        qCWarning(BUS_LOG).noquote() << "cannot take a connection:" << reason;
    _arrival->setEnabled(false);
    _retry.start();
}

} // namespace bus
