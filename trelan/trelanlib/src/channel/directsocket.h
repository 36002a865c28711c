#pragma once

#include <QtCore/QByteArray>
#include <QtCore/QSocketNotifier>

class QDeadlineTimer;
class QObject;
class QTcpSocket;

/// A QTcpSocket without what Qt does around every call, which costs more system calls than the
/// calls themselves: one to send, one to wait and one to read. Qt is left what it does better: what
/// does not leave at once, and every end of a connection, so that its signals come as ever.
/// Internal to the library.
namespace bus::direct
{

/// Sends \a bytes; what does not leave at once follows as Qt gets at it.
void send(QTcpSocket &socket, const QByteArray &bytes);

/// Sends \a bytes as send() does, but the system may hold them until letGo(), more is sent, or the
/// end of the connection; for 200 ms at the longest.
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

/// \brief The notifier with which Qt waits for \a socket: null if there is none of that type.
///
/// The one place that reaches into Qt's own children. Qt tells the descriptor of a connection only
/// once it is made, and shows nobody what has arrived before it reads it.
QSocketNotifier *notifierOf(const QTcpSocket &socket, QSocketNotifier::Type type);

} // namespace bus::direct
