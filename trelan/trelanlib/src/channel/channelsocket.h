#pragma once

#include "trelanchannelsettings.h"

#include <QtCore/QtGlobal>

class QObject;
class QTcpSocket;

/// The socket of a channel, from one connection to the next. Internal to the library.
namespace bus::channelsocket
{

/// Makes a socket whose signals connected(), disconnected() and error() reach the slots
/// socketConnected(), socketDisconnected() and socketError(QAbstractSocket::SocketError) of
/// \a channel, which owns it. What has arrived is for the caller to connect.
QTcpSocket *make(QObject &channel);

/// Ends what is left of the connection before, without a signal: connectToHost() refuses a socket
/// that is still sending or is not accepted yet. False if the socket is in the middle of one of its
/// own signals, as \a sender tells, and must not be used any more: it is taken from its channel,
/// which makes another one.
bool end(QTcpSocket &socket, const QObject *sender);

/// Connects an unconnected socket with the bus at \a port, and waits for that. Signals of the
/// socket come through from here on.
bool connectToBus(QTcpSocket &socket, const TrelanChannelSettings &settings, quint16 port);

} // namespace bus::channelsocket
