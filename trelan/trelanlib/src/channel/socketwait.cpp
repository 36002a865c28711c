#include "channel/socketwait.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QSocketNotifier>
#include <QtCore/QThread>
#include <QtNetwork/QTcpSocket>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <cerrno>
#include <vector>

namespace bus
{

namespace
{

constexpr int SLICE_MS = 100;
constexpr int READ_CHUNK = 64 * 1024;

int slice(const QDeadlineTimer &deadline)
{
    return int(qBound<qint64>(0, deadline.remainingTime(), SLICE_MS));
}

/// What poll() says of it: 0 if nothing has come, POLLIN if that is all there is to know.
short look(const QTcpSocket &socket, int milliseconds)
{
    pollfd descriptor {int(socket.socketDescriptor()), POLLIN | POLLRDHUP, 0};
    return ::poll(&descriptor, 1, milliseconds) > 0 ? descriptor.revents : short(0);
}

void sendWith(QTcpSocket &socket, const QByteArray &bytes, int flags)
{
    qint64 sent = 0;
    if (socket.bytesToWrite() == 0 && socket.state() == QAbstractSocket::ConnectedState) {
        const int descriptor = int(socket.socketDescriptor());
        sent = qMax<qint64>(0, ::send(descriptor, bytes.constData(), size_t(bytes.size()),
                                      MSG_NOSIGNAL | MSG_DONTWAIT | flags));
    }
    if (sent < bytes.size()) {
        socket.write(bytes.constData() + sent, bytes.size() - sent);
        socket.flush();
    }
}

/// Some of what has arrived, without waiting.
QByteArray receive(const QTcpSocket &socket)
{
    // Not an array: that would be a part of the stack of every thread of the program.
    static thread_local std::vector<char> _bytes(READ_CHUNK);
    const auto count =
        ::recv(int(socket.socketDescriptor()), _bytes.data(), _bytes.size(), MSG_DONTWAIT);
    return count > 0 ? QByteArray(_bytes.data(), int(count)) : QByteArray();
}

} // namespace

namespace wait
{

bool connected(QTcpSocket &socket, int milliseconds)
{
    // Qt gives the attempt up when its wait times out, so that the slices are waited for below Qt,
    // which is asked when there is something to know. It tells the descriptor only once there is a
    // connection; until then the notifier that waits for it knows.
    const QDeadlineTimer deadline(milliseconds);
    const auto *notifier = socket.findChild<QSocketNotifier *>();
    while (notifier && socket.state() == QAbstractSocket::ConnectingState) {
        pollfd descriptor {int(notifier->socket()), POLLOUT, 0};
        const int ready = ::poll(&descriptor, 1, slice(deadline));
        const bool again = ready == 0 || (ready < 0 && errno == EINTR);
        if (!again || deadline.hasExpired() || isInterrupted())
            break;
    }
    const bool inVain = deadline.hasExpired() || isInterrupted();
    return socket.waitForConnected(inVain ? 0 : int(deadline.remainingTime()));
}

bool bytesWritten(QTcpSocket &socket, int milliseconds)
{
    // Qt's wait fails at once when there is nothing to write, as is usual after a flush; and it
    // ends when something has left, not all: a peer that answers early may never read the rest.
    const QDeadlineTimer deadline(milliseconds);
    while (socket.bytesToWrite() > 0 && !isOver(socket, deadline)) {
        if (socket.waitForBytesWritten(slice(deadline)))
            return true;
    }
    return socket.bytesToWrite() == 0 && socket.state() != QAbstractSocket::UnconnectedState;
}

bool readyRead(QTcpSocket &socket, int milliseconds)
{
    const QDeadlineTimer deadline(milliseconds);
    while (!isOver(socket, deadline)) {
        if (socket.waitForReadyRead(slice(deadline)))
            return true;
    }
    return false;
}

bool isInterrupted()
{
    return QThread::currentThread()->isInterruptionRequested();
}

bool isOver(const QTcpSocket &socket, const QDeadlineTimer &deadline)
{
    return isInterrupted() || deadline.hasExpired() ||
           socket.state() == QAbstractSocket::UnconnectedState;
}

} // namespace wait

namespace direct
{

void send(QTcpSocket &socket, const QByteArray &bytes)
{
    sendWith(socket, bytes, 0);
}

void sendSoon(QTcpSocket &socket, const QByteArray &bytes)
{
    sendWith(socket, bytes, MSG_MORE);
}

void letGo(QTcpSocket &socket)
{
    const int on = 1; // to say it again sends what is held
    ::setsockopt(int(socket.socketDescriptor()), IPPROTO_TCP, TCP_NODELAY, &on, sizeof on);
}

QByteArray read(QTcpSocket &socket, const QDeadlineTimer &deadline)
{
    if (socket.bytesAvailable() == 0 && !wait::isOver(socket, deadline)) {
        const bool isWriting = socket.bytesToWrite() > 0; // which Qt goes on with while it waits
        const short events = isWriting ? short(0) : look(socket, slice(deadline));
        if (events == POLLIN) {
            QByteArray bytes = receive(socket);
            if (!bytes.isEmpty())
                return bytes;
        }
        if (isWriting || events != 0)
            socket.waitForReadyRead(isWriting ? slice(deadline) : 0);
    }
    return socket.bytesAvailable() > 0 ? socket.read(READ_CHUNK) : QByteArray();
}

QByteArray take(QTcpSocket &socket)
{
    const bool isNext =
        socket.bytesAvailable() == 0 && socket.state() == QAbstractSocket::ConnectedState;
    return isNext ? receive(socket) : QByteArray();
}

void watchArrivals(QTcpSocket &socket, QObject *filter)
{
    const auto notifiers = socket.findChildren<QSocketNotifier *>();
    for (QSocketNotifier *notifier : notifiers) {
        if (notifier->type() == QSocketNotifier::Read)
            notifier->installEventFilter(filter);
    }
}

bool hasArrived(QTcpSocket &socket)
{
    if (socket.bytesAvailable() == 0 && look(socket, 0) != 0)
        socket.waitForReadyRead(0);
    return socket.bytesAvailable() > 0;
}

} // namespace direct

} // namespace bus
