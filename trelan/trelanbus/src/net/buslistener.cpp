#include "net/buslistener.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>

namespace bus
{

namespace
{

// A connection that waits cannot be taken and cannot be refused: looking at it without a pause
// would use a whole processor until a descriptor is free.
constexpr int RETRY_MS = 500;
// At once. Among hundreds of busy connections it may be long until it is told of the next.
constexpr int MAX_TAKEN = 16;

/// Whether there is just no connection, or no more; anything else will not pass by looking again.
bool isPassing(int error)
{
    return error == EAGAIN || error == EINTR || error == ECONNABORTED || error == EPROTO;
}

/// A number that the system knows about the socket; -1, with errno, if it knows none.
int socketOption(int descriptor, int option)
{
    int value = -1;
    socklen_t size = sizeof(value);
    return ::getsockopt(descriptor, SOL_SOCKET, option, &value, &size) == 0 ? value : -1;
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
    if (!_server.listen(host, port)) {
        _errorString = _server.errorString();
        return false;
    }
    // The server lets 50 connections wait. One more, and the system drops what it sends first, so
    // that it is there a second later: in a crowd, or when everybody comes back at once.
    ::listen(int(_server.socketDescriptor()), SOMAXCONN);
    awaitConnections();
    return true;
}

bool BusListener::listen(int descriptor)
{
    if (!takeOver(descriptor))
        return false;
    awaitConnections();
    return true;
}

bool BusListener::takeOver(int descriptor)
{
    const int protocol = socketOption(descriptor, SO_PROTOCOL);
    if (protocol < 0) {
        _errorString = qt_error_string(errno);
        return false;
    }
    if (protocol != IPPROTO_TCP || socketOption(descriptor, SO_ACCEPTCONN) != 1) {
        _errorString = QStringLiteral("it is no TCP socket that listens");
        return false;
    }
    // The server closes what it has. Where the caller's stays open, connections that come while
    // the bus is started again wait there.
    const int own = ::fcntl(descriptor, F_DUPFD_CLOEXEC, 0);
    if (own < 0) {
        _errorString = qt_error_string(errno);
        return false;
    }
    if (!_server.setSocketDescriptor(own)) {
        _errorString = _server.errorString();
        ::close(own);
        return false;
    }
    return true;
}

void BusListener::awaitConnections()
{
    // The server keeps the first error it meets, usually that nothing is waiting any more, and
    // does not tell of a shortage of descriptors after it.
    _server.pauseAccepting();
    _arrival = std::make_unique<QSocketNotifier>(_server.socketDescriptor(), QSocketNotifier::Read);
    connect(_arrival.get(), &QSocketNotifier::activated, this, &BusListener::accept);
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
    return _errorString;
}

/// Takes a few connections: those that have been taken come before all others that wait.
void BusListener::accept()
{
    for (int i = 0; i < MAX_TAKEN; ++i) {
        const int descriptor = ::accept4(int(_server.socketDescriptor()), nullptr, nullptr,
                                         SOCK_CLOEXEC | SOCK_NONBLOCK);
        if (descriptor >= 0) {
            emit descriptorArrived(descriptor);
            continue;
        }
        if (!isPassing(errno))
            pause(qt_error_string(errno));
        return;
    }
}

void BusListener::pause(const QString &reason)
{
    if (_warnings.allows(QString()))
        qCWarning(BUS_LOG).noquote() << "cannot take a connection:" << reason;
    _arrival->setEnabled(false);
    _retry.start();
}

} // namespace bus
