#pragma once

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

} // namespace bus::wait
