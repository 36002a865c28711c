#include "channel/directsocket.h"

#include "channel/socketwait.h"

#include <QtCore/QDeadlineTimer>
#include <QtNetwork/QTcpSocket>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/socket.h>

#include <algorithm>
#include <vector>

namespace bus::direct
{

namespace
{

constexpr int READ_CHUNK = 64 * 1024;

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
        const short events = isWriting ? short(0) : look(socket, wait::slice(deadline));
        if (events == POLLIN) {
            QByteArray bytes = receive(socket);
            if (!bytes.isEmpty())
                return bytes;
        }
        if (isWriting || events != 0)
            socket.waitForReadyRead(isWriting ? wait::slice(deadline) : 0);
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
    if (QSocketNotifier *notifier = notifierOf(socket, QSocketNotifier::Read))
        notifier->installEventFilter(filter);
}

bool hasArrived(QTcpSocket &socket)
{
    if (socket.bytesAvailable() == 0 && look(socket, 0) != 0)
        socket.waitForReadyRead(0);
    return socket.bytesAvailable() > 0;
}

QSocketNotifier *notifierOf(const QTcpSocket &socket, QSocketNotifier::Type type)
{
    const auto notifiers = socket.findChildren<QSocketNotifier *>();
    const auto found =
        std::find_if(notifiers.cbegin(), notifiers.cend(),
                     [type](const QSocketNotifier *known) { return known->type() == type; });
    return found == notifiers.cend() ? nullptr : *found;
}

} // namespace bus::direct
