#include "busconnection.h"

#include "buslog.h"

#include <QtNetwork/QHostAddress>

#include <poll.h>
#include <sys/socket.h>

namespace bus
{

namespace
{

constexpr qint64 READ_CHUNK = 64 * 1024;
// More from one client in one go would make the others wait.
constexpr int REQUESTS_PER_TURN = 16;

} // namespace

BusConnection::BusConnection(ConnectionId id, qintptr descriptor, const TrelanBusSettings &settings,
                             QObject *parent)
    : QObject(parent)
    , _connectionId(id)
    , _settings(settings)
    , _reader(settings.maxFrameSize)
{
    // What is not read waits in the socket of the sender, not in our memory.
    _socket.setReadBufferSize(READ_CHUNK);
    _socket.setSocketDescriptor(descriptor);
    // A frame has to start a segment of its own: the paced reader of the message channel wants
    // header and size together.
    _socket.setSocketOption(QAbstractSocket::LowDelayOption, 1);
    _peer = QStringLiteral("%1:%2").arg(_socket.peerAddress().toString()).arg(_socket.peerPort());

    connect(&_socket, &QTcpSocket::readyRead, this, &BusConnection::onReadyRead);
    connect(&_socket, &QTcpSocket::bytesWritten, this, &BusConnection::onBytesWritten);
    connect(&_socket, &QTcpSocket::disconnected, this, &BusConnection::onDisconnected);

    _stall.setSingleShot(true);
    connect(&_stall, &QTimer::timeout, this, &BusConnection::onStalled);
    _handshake.setSingleShot(true);
    connect(&_handshake, &QTimer::timeout, this,
            [this] { closeWith(QStringLiteral("sent no handshake in time")); });
    _handshake.start(settings.handshakeTimeout);
}

BusConnection::~BusConnection()
{
    // The socket says that it is disconnected when it is destroyed, and by then half of this is.
    _socket.disconnect(this);
}

QString BusConnection::peer() const
{
    return _peer;
}

bool BusConnection::isAtEnd() const
{
    if (_socket.state() != QAbstractSocket::ConnectedState)
        return true;
    pollfd descriptor {int(_socket.socketDescriptor()), POLLRDHUP, 0};
    return ::poll(&descriptor, 1, 0) > 0 &&
           (descriptor.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

void BusConnection::setRegistered()
{
    _handshake.stop();
}

void BusConnection::answer(const QByteArray &frame)
{
    if (_state != Answering)
        return;
    _state = Reading;
    send(frame);
    // Queued: answers may come from inside the loop that hands requests over.
    QMetaObject::invokeMethod(this, &BusConnection::takeRequests, Qt::QueuedConnection);
}

void BusConnection::answerAndEnd(const QByteArray &frame)
{
    if (_state != Answering)
        return;
    _state = Ending;
    _handshake.stop();
    send(frame);
    if (_socket.bytesToWrite() == 0)
        endSending();
}

void BusConnection::close()
{
    if (_state == Closed)
        return;
    _state = Closed;
    _stall.stop();
    _handshake.stop();
    _socket.disconnect(this);
    _socket.abort();
    emit closed(_connectionId);
}

void BusConnection::onReadyRead()
{
    if (_state == Discarding || _state == Ending) {
        _socket.skip(_socket.bytesAvailable());
        return;
    }
    takeRequests();
}

void BusConnection::onBytesWritten()
{
    if (_socket.bytesToWrite() > 0) {
        watchProgress();
    } else if (_state == Ending) {
        endSending();
    } else {
        takeRequests();
    }
}

void BusConnection::onDisconnected()
{
    close();
}

void BusConnection::onStalled()
{
    if (_state == Discarding)
        close();
    else if (_socket.bytesToWrite() > 0)
        closeWith(QStringLiteral("does not read its answer"));
    else
        closeWith(QStringLiteral("stopped in the middle of a frame"));
}

/// Hands requests over until there is none, one is not answered yet, or an answer has not left.
void BusConnection::takeRequests()
{
    int taken = 0;
    while (_state == Reading && _socket.bytesToWrite() == 0) {
        if (taken == REQUESTS_PER_TURN) {
            QMetaObject::invokeMethod(this, &BusConnection::takeRequests, Qt::QueuedConnection);
            break;
        }
        const TrelanFrameReader::Status status = _reader.next();
        if (status != TrelanFrameReader::NeedMoreData) {
            if (!takeRequest(status))
                return;
            ++taken;
        } else if (_socket.bytesAvailable() > 0) {
            _reader.feed(_socket.read(READ_CHUNK));
        } else {
            break;
        }
    }
    watchProgress();
}

/// Returns false when the connection is not to be looked at any more.
bool BusConnection::takeRequest(TrelanFrameReader::Status status)
{
    if (status == TrelanFrameReader::TooLarge) {
        _state = Answering;
        emit frameTooLarge(_connectionId, _reader.faultText());
        return false;
    }
    if (status == TrelanFrameReader::Malformed) {
        closeWith(_reader.faultText());
        return false;
    }
    if (_reader.kind() != TrelanFrame::Request) {
        closeWith(QStringLiteral("sent a reply that nobody asked for"));
        return false;
    }
    _state = Answering;
    emit requestArrived(_connectionId, _reader.payload());
    return true;
}

/// In one call of the socket, so that a frame is a block of its own on the wire.
void BusConnection::send(const QByteArray &frame)
{
    _socket.write(frame);
    _socket.flush();
    watchProgress();
}

void BusConnection::endSending()
{
    _state = Discarding;
    ::shutdown(int(_socket.socketDescriptor()), SHUT_WR);
    _socket.skip(_socket.bytesAvailable());
    _stall.start(_settings.discardTime);
}

/// The clock runs while the other side owes us something: the rest of a frame, or its reading.
void BusConnection::watchProgress()
{
    const bool owesBytes = _state == Reading && _reader.isInsideFrame();
    if (_state == Closed || _state == Discarding)
        return;
    if (owesBytes || _socket.bytesToWrite() > 0)
        _stall.start(_settings.stallTimeout);
    else
        _stall.stop();
}

void BusConnection::closeWith(const QString &reason)
{
    qCWarning(BUS_LOG).noquote()
        << QStringLiteral("connection from %1 is closed: %2").arg(_peer, reason);
    close();
}

} // namespace bus
