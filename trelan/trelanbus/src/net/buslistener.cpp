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

// Without a descriptor a waiting connection can be neither taken nor refused: looking at it without
// a pause would use a whole processor.
constexpr int RETRY_MS = 500;
// Connections that are taken at once. Among hundreds of busy connections the next turn may be far.
constexpr int MAX_TAKEN = 16;

/// Whether there is only no connection at the moment. Any other error stays.
bool isPassing(int error)
{
    return error == EAGAIN || error == EINTR || error == ECONNABORTED || error == EPROTO;
}

/// A number that the system keeps for the socket; -1, with errno, if there is none.
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
    // The server lets 50 connections wait. The system drops the first packet of any further one,
    // which arrives a second later then: in a crowd, or when everybody comes back at once.
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
    // The server closes its descriptor. Connections that come while the bus is started again wait
    // in the caller's, which stays open.
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
    // The server keeps its first error, which usually says that no connection waits any more, and
    // does not tell of a later shortage of descriptors.
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

QHostAddress BusListener::serverAddress() const
{
    return _server.serverAddress();
}

QString BusListener::errorString() const
{
    return _errorString;
}

/// Takes a few connections at a time, since connections that were taken have precedence.
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
