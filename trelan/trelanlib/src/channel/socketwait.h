#pragma once

#include "channel/connectioncount.h"

class QDeadlineTimer;
class QTcpSocket;

/// Blocking waits on a socket, as long as Qt's own, but left within a tenth of a second once the
/// owning thread is asked to end (QThread::requestInterruption()): an application must not freeze
/// for half a minute because it closes while the bus is silent. Internal to the library.
namespace bus::wait
{

bool connected(QTcpSocket &socket, int milliseconds);
/// Both end early, too, when \a connection is over: a slot may open the channel again meanwhile.
void bytesWritten(QTcpSocket &socket, const ConnectionCount::Mark &connection, int milliseconds);
bool readyRead(QTcpSocket &socket, const ConnectionCount::Mark &connection, int milliseconds);

/// Whether the current thread is asked to end.
bool isInterrupted();

/// Whether there is nothing left to wait for: the thread is asked to end, the deadline has passed,
/// or the connection has ended.
bool isOver(const QTcpSocket &socket, const QDeadlineTimer &deadline);

/// To be called with a socket that is in the middle of one of its own signals before a new
/// connection is made, with another socket: Qt goes on with this one when the slots have returned,
/// and would take the write buffer of a connection that was made meanwhile.
void retire(QTcpSocket &socket);

/// How long one wait below Qt may take before isOver() is asked again, in milliseconds.
int slice(const QDeadlineTimer &deadline);

} // namespace bus::wait
