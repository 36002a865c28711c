#include "channel/socketwait.h"

#include "channel/directsocket.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QThread>
#include <QtNetwork/QTcpSocket>

#include <poll.h>

#include <cerrno>

namespace bus::wait
{

bool connected(QTcpSocket &socket, int milliseconds)
{
    // Qt gives the attempt up when its wait times out. So the slices are waited for below Qt, which
    // is asked when there is something to know.
    const QDeadlineTimer deadline(milliseconds);
    const QSocketNotifier *notifier = direct::notifierOf(socket, QSocketNotifier::Write);
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

void bytesWritten(QTcpSocket &socket, const ConnectionCount::Mark &connection, int milliseconds)
{
    // Ends when something has left, not all: a peer that answers early may never read the rest.
    const QDeadlineTimer deadline(milliseconds);
    while (!connection.isOver() && socket.bytesToWrite() > 0 && !isOver(socket, deadline)) {
        if (socket.waitForBytesWritten(slice(deadline)))
            return;
    }
}

bool readyRead(QTcpSocket &socket, const ConnectionCount::Mark &connection, int milliseconds)
{
    const QDeadlineTimer deadline(milliseconds);
    while (!connection.isOver() && !isOver(socket, deadline)) {
        if (socket.waitForReadyRead(slice(deadline)))
            return !connection.isOver();
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

void retire(QTcpSocket &socket)
{
    socket.blockSignals(true);
    socket.setParent(nullptr);
    socket.deleteLater();
}

int slice(const QDeadlineTimer &deadline)
{
    constexpr int SLICE_MS = 100;
    return int(qBound<qint64>(0, deadline.remainingTime(), SLICE_MS));
}

} // namespace bus::wait
