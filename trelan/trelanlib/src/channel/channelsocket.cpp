#include "channel/channelsocket.h"

#include "channel/socketwait.h"

#include <QtNetwork/QHostAddress>
#include <QtNetwork/QTcpSocket>

namespace bus::channelsocket
{

namespace
{

constexpr int PACED_WAIT_MS = 30000;

} // namespace

QTcpSocket *make(QObject &channel)
{
    auto *socket = new QTcpSocket(&channel);
    QObject::connect(socket, SIGNAL(connected()), &channel, SLOT(socketConnected()));
    QObject::connect(socket, SIGNAL(disconnected()), &channel, SLOT(socketDisconnected()));
    QObject::connect(socket, SIGNAL(error(QAbstractSocket::SocketError)), &channel,
                     SLOT(socketError(QAbstractSocket::SocketError)));
    return socket;
}

bool end(QTcpSocket &socket, const QObject *sender)
{
    if (socket.state() != QAbstractSocket::UnconnectedState) {
        socket.blockSignals(true);
        socket.abort();
    }
    if (sender != &socket)
        return true;
    wait::retire(socket);
    return false;
}

bool connectToBus(QTcpSocket &socket, const TrelanChannelSettings &settings, quint16 port)
{
    const bool isPrompt = settings.mode() == TrelanTransport::Prompt;
    socket.blockSignals(false);
    socket.connectToHost(QHostAddress(settings.host()), port, QIODevice::ReadWrite);
    return wait::connected(socket, isPrompt ? settings.patience() : PACED_WAIT_MS);
}

} // namespace bus::channelsocket
