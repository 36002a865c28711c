#pragma once

#include <QtCore/QByteArray>

class QDeadlineTimer;
class QObject;
class QTcpSocket;

/// Blocking waits on a socket, as long as Qt's own, but left within a tenth of a second once the
/// owning thread is asked to end (QThread::requestInterruption()): an application must not freeze
/// for half a minute because it closes while the bus is silent. Internal to the library.
namespace bus::wait
{

bool connected(QTcpSocket &socket, int milliseconds);
bool bytesWritten(QTcpSocket &socket, int milliseconds);
bool readyRead(QTcpSocket &socket, int milliseconds);

/// Whether the current thread is asked to end.
bool isInterrupted();

/// Whether there is nothing left to wait for: that, the deadline, or no connection any more.
bool isOver(const QTcpSocket &socket, const QDeadlineTimer &deadline);

} // namespace bus::wait

/// The same socket without what Qt does around every call, which costs more system calls than the
/// calls themselves: one to send, one to wait and one to read. Qt is left what it does better: what
/// does not leave at once, and every end of a connection, so that its signals come as ever.
namespace bus::direct
{

/// Sends \a bytes; what does not leave at once follows as Qt gets at it.
void send(QTcpSocket &socket, const QByteArray &bytes);

/// The same, but the system may hold them until letGo(), more is sent, or the end of the
/// connection; for 200 ms at the longest.
void sendSoon(QTcpSocket &socket, const QByteArray &bytes);
void letGo(QTcpSocket &socket);

/// Some of what has arrived; if there is nothing, what comes within a tenth of a second. Empty
/// before that at the deadline, if the connection is lost, or if the thread is asked to end.
QByteArray read(QTcpSocket &socket, const QDeadlineTimer &deadline);

/// What has just arrived, if Qt has nothing that came before it; empty, too, at the end of the
/// connection, which is left for Qt to notice.
QByteArray take(QTcpSocket &socket);

/// Shows \a filter what the event loop is told of arrivals, before Qt reads them; until the end of
/// the connection.
void watchArrivals(QTcpSocket &socket, QObject *filter);

/// Whether something has arrived that was not read. It may notice that the connection is lost.
bool hasArrived(QTcpSocket &socket);

} // namespace bus::direct
