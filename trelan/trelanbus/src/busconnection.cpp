#include "busconnection.h"

#include "buslog.h"
#include "busnames.h"

#include <QtCore/QAbstractEventDispatcher>
#include <QtCore/QElapsedTimer>
#include <QtCore/QThread>
#include <QtNetwork/QHostAddress>

#include <poll.h>
#include <sys/socket.h>

namespace bus
{

namespace
{

constexpr qint64 READ_CHUNK = 64 * 1024;
// More from one client in one go would make the others wait. A time and not a number, since one
// request may take as long as a hundred others.
constexpr qint64 TURN_MS = 2;
// Room for all that may be pushed without an acknowledgement, with what the system adds to a frame.
constexpr int PUSH_BUFFER = 256 * 1024;
// Of a client that asks and does not read.
constexpr int MAX_ANSWERS_LEAVING = 16;

} // namespace

BusConnection::BusConnection(Channel channel, ConnectionId id, qintptr descriptor,
                             const TrelanBusSettings &settings, QObject *parent)
    : QObject(parent)
    , _channel(channel)
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
    if (channel == Messages)
        _socket.setSocketOption(QAbstractSocket::SendBufferSizeSocketOption, PUSH_BUFFER);
    _peer = QStringLiteral("%1:%2").arg(_socket.peerAddress().toString()).arg(_socket.peerPort());

    connect(&_socket, &QTcpSocket::readyRead, this, &BusConnection::onReadyRead);
    connect(&_socket, &QTcpSocket::bytesWritten, this, &BusConnection::onBytesWritten);
    connect(&_socket, &QTcpSocket::disconnected, this, &BusConnection::onDisconnected);

    _nextTurn.setSingleShot(true);
    connect(&_nextTurn, &QTimer::timeout, this, &BusConnection::takeTurn);
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

BusConnection::Channel BusConnection::channel() const
{
    return _channel;
}

QString BusConnection::peer() const
{
    return _peer;
}

bool BusConnection::isAtEnd() const
{
    if (_state >= Ending || _socket.state() != QAbstractSocket::ConnectedState)
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
    _answersLeaving = _socket.bytesToWrite() > 0 ? _answersLeaving + 1 : 0;
    scheduleTurn();
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

bool BusConnection::canPush() const
{
    return _state < Ending && _socket.bytesToWrite() == 0;
}

void BusConnection::push(const QByteArray &frame)
{
    send(frame);
}

void BusConnection::close()
{
    if (_state == Closed)
        return;
    _state = Closed;
    _nextTurn.stop();
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
    takeTurn();
}

void BusConnection::onBytesWritten()
{
    if (_socket.bytesToWrite() == 0)
        _answersLeaving = 0;
    if (_socket.bytesToWrite() > 0) {
        watchProgress();
    } else if (_state == Ending) {
        endSending();
    } else {
        scheduleTurn();
        emit drained(_connectionId);
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

/// A timer, and not an event posted to ourselves: events that are posted while events are handled
/// come before the sockets of the others.
void BusConnection::scheduleTurn()
{
    // An answer may come while its request is being handed over; the turn goes on then.
    if (_inTurn || _nextTurn.isActive())
        return;
    _nextTurn.start(0);
    // Some event loops run timers only when no socket has anything, unless they are woken.
    thread()->eventDispatcher()->wakeUp();
}

void BusConnection::takeTurn()
{
    if (_inTurn)
        return;
    _nextTurn.stop();
    _inTurn = true;
    const bool isOver = takeRequests();
    _inTurn = false;
    if (!isOver)
        scheduleTurn();
    watchProgress();
}

/// Hands requests over until there is none, one is not answered yet or an answer has not left.
/// Returns false if there is more than fits into one turn.
bool BusConnection::takeRequests()
{
    QElapsedTimer turn;
    turn.start();
    while (_state == Reading && mayTakeRequest()) {
        const TrelanFrameReader::Status status = _reader.next();
        if (status != TrelanFrameReader::NeedMoreData) {
            takeRequest(status);
        } else if (_socket.bytesAvailable() > 0) {
            _reader.feed(_socket.read(READ_CHUNK));
        } else {
            return true;
        }
        if (turn.hasExpired(TURN_MS))
            return _state != Reading;
    }
    return true;
}

/// On the message channel acknowledgements are read while something leaves: both sides would wait
/// for the other to read.
bool BusConnection::mayTakeRequest() const
{
    return _socket.bytesToWrite() == 0 ||
           (_channel == Messages && _answersLeaving < MAX_ANSWERS_LEAVING);
}

void BusConnection::takeRequest(TrelanFrameReader::Status status)
{
    if (status == TrelanFrameReader::TooLarge) {
        _state = Answering;
        emit frameTooLarge(_connectionId, _reader.faultText());
    } else if (status == TrelanFrameReader::Malformed) {
        closeWith(names::printable(_reader.faultText()));
    } else if (_reader.kind() == TrelanFrame::Reply && _channel == Messages) {
        emit replyArrived(_connectionId, _reader.payload());
    } else if (_reader.kind() == TrelanFrame::Reply) {
        closeWith(QStringLiteral("sent a reply that nobody asked for"));
    } else {
        _state = Answering;
        emit requestArrived(_connectionId, _reader.payload());
    }
}

/// In one call of the system and as a record of its own, which is not joined with the next: the
/// paced reader of the message channel wants header and size of a frame together, and its system
/// cuts what is joined wherever its buffer is full.
void BusConnection::send(const QByteArray &frame)
{
    ssize_t sent = 0;
    if (_socket.bytesToWrite() == 0 && _socket.state() == QAbstractSocket::ConnectedState) {
        sent = ::send(int(_socket.socketDescriptor()), frame.constData(), size_t(frame.size()),
                      MSG_EOR | MSG_NOSIGNAL | MSG_DONTWAIT);
    }
    // What does not fit is the rest of a large frame. An error shows when the socket is read.
    if (sent < frame.size()) {
        _socket.write(frame.mid(int(qMax<ssize_t>(sent, 0))));
        _socket.flush();
    }
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
