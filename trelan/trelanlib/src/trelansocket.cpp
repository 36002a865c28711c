#include "trelansocket.h"

#include <QtCore/QDeadlineTimer>
#include <QtCore/QThread>
#include <QtNetwork/QTcpSocket>

#include <poll.h>

namespace bus::wait
{

namespace
{

constexpr int SLICE_MS = 100;

int slice(const QDeadlineTimer &deadline)
{
    return int(qBound<qint64>(0, deadline.remainingTime(), SLICE_MS));
}

/// Repeats a wait of one slice until it succeeds, time is up, or the connection is gone.
template <typename Wait>
bool inSlices(QTcpSocket &socket, int milliseconds, const Wait &waitSlice)
{
    const QDeadlineTimer deadline(milliseconds);
    do {
        if (waitSlice(slice(deadline)))
            return true;
    } while (!isInterrupted() && !deadline.hasExpired() &&
             socket.state() != QAbstractSocket::UnconnectedState);
    return false;
}

} // namespace

bool connected(QTcpSocket &socket, int milliseconds)
{
    // Qt gives the attempt up when its wait times out, so that the slices are waited for below Qt,
    // which is asked when there is something to know.
    const QDeadlineTimer deadline(milliseconds);
    while (socket.state() == QAbstractSocket::ConnectingState && socket.socketDescriptor() >= 0) {
        pollfd descriptor {int(socket.socketDescriptor()), POLLOUT, 0};
        const int ready = ::poll(&descriptor, 1, slice(deadline));
        if (ready != 0 || deadline.hasExpired() || isInterrupted())
            break;
    }
    const bool inVain = deadline.hasExpired() || isInterrupted();
    return socket.waitForConnected(inVain ? 0 : int(deadline.remainingTime()));
}

bool bytesWritten(QTcpSocket &socket, int milliseconds)
{
    return inSlices(socket, milliseconds, [&](int ms) { return socket.waitForBytesWritten(ms); });
}

bool readyRead(QTcpSocket &socket, int milliseconds)
{
    return inSlices(socket, milliseconds, [&](int ms) { return socket.waitForReadyRead(ms); });
}

bool isInterrupted()
{
    return QThread::currentThread()->isInterruptionRequested();
}

} // namespace bus::wait
