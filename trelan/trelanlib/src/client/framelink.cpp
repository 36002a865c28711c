#include "client/framelink.h"

#include "channel/directsocket.h"
#include "trelantransport.h"

#include <QtNetwork/QHostAddress>
#include <QtNetwork/QTcpSocket>

namespace bus
{

FrameLink::FrameLink(Owner &owner, QObject *parent)
    : QObject(parent)
    , _owner(owner)
    , _inbox(new PromptInbox(_socket, *this, this))
    , _connecting(this)
{
    _connecting.setSingleShot(true);
    connect(&_connecting, &QTimer::timeout, this,
            [this] { lose(QStringLiteral("the connection is not made in time")); });
}

FrameLink::~FrameLink()
{
    close();
}

void FrameLink::open(quint32 host, quint16 port, int patience)
{
    close();
    _socket = new QTcpSocket(this);
    connect(_socket, &QTcpSocket::connected, this, &FrameLink::onSocketConnected);
    connect(_socket, &QTcpSocket::readyRead, _inbox, &PromptInbox::takeArrived);
    connect(_socket, &QTcpSocket::disconnected, this,
            [this] { lose(QStringLiteral("the bus has ended the connection")); });
    connect(_socket, &QTcpSocket::errorOccurred, this,
            [this] { lose(_socket ? _socket->errorString() : QString()); });
    _inbox->begin(TrelanTransport::maxPayload(), patience);
    _connecting.start(patience);
    _socket->connectToHost(QHostAddress(host), port, QIODevice::ReadWrite);
}

void FrameLink::close()
{
    _connecting.stop();
    if (!_socket)
        return;
    QTcpSocket *const socket = _socket;
    socket->disconnect(this);
    socket->disconnect(_inbox);
    _inbox->end();
    socket->abort();
    socket->deleteLater(); // this may come out of one of its signals
    _socket.clear();
}

bool FrameLink::isConnected() const
{
    return _socket && _socket->state() == QAbstractSocket::ConnectedState;
}

void FrameLink::send(const QByteArray &frame)
{
    if (isConnected())
        direct::send(*_socket, frame);
}

void FrameLink::sendTogether(const QByteArray &frame)
{
    if (isConnected())
        _inbox->write(frame);
}

QString FrameLink::localAddress() const
{
    return _localAddress;
}

void FrameLink::onFrame(TrelanFrame::Kind kind, const QByteArray &payload)
{
    _owner.onFrame(*this, kind, payload);
}

void FrameLink::onBroken(const QString &reason)
{
    lose(reason);
}

void FrameLink::onSocketConnected()
{
    _connecting.stop();
    _localAddress =
        QStringLiteral("%1:%2").arg(_socket->localAddress().toString()).arg(_socket->localPort());
    _inbox->watchArrivals();
    _owner.onConnected(*this);
}

void FrameLink::lose(const QString &reason)
{
    if (!_socket)
        return;
    close();
    _owner.onLost(*this, reason);
}

} // namespace bus
