#include "net/busconnection.h"

#include "values/buslog.h"
#include "values/busnames.h"

#include <QtCore/QElapsedTimer>
#include <QtNetwork/QHostAddress>

#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <vector>

namespace bus
{

namespace
{

// A longer turn of one client would make other clients wait. Time is the measure since one request
// may take as long as a hundred others.
constexpr qint64 TURN_MS = 2;
// Room for all frames that may be pushed without an acknowledgement, with what the system adds.
constexpr int PUSH_BUFFER = 256 * 1024;
// More answers do not wait for a client that asks and does not read.
constexpr int MAX_ANSWERS_LEAVING = 16;

// Answers that wait for each other are joined up to this size.
constexpr int MAX_JOINED = 64 * 1024;

constexpr int READ_CHUNK = 64 * 1024;
// An array would be a part of the stack of every thread of the program.
thread_local std::vector<char> _chunk(READ_CHUNK);

constexpr quint32 AT_END = EPOLLRDHUP | EPOLLHUP | EPOLLERR;

void setOption(int descriptor, int level, int option, int value)
{
    ::setsockopt(descriptor, level, option, &value, sizeof(value));
}

/// Whether a call of a non-blocking socket has only found no bytes or no room for now.
bool isPassing(int error)
{
    return error == EAGAIN || error == EWOULDBLOCK || error == EINTR;
}

/// Reads into the chunk. Returns less than zero, with errno, if there are no bytes.
ssize_t readSome(int descriptor)
{
    return ::recv(descriptor, _chunk.data(), _chunk.size(), 0);
}

QString peerOf(int descriptor)
{
    sockaddr_storage storage {};
    socklen_t size = sizeof(storage);
    auto *address = reinterpret_cast<sockaddr *>(&storage);
    if (::getpeername(descriptor, address, &size) != 0)
        return QStringLiteral("unknown");
    // The port stands in the same place in addresses of either family.
    const quint16 port = ntohs(reinterpret_cast<const sockaddr_in *>(address)->sin_port);
    return QStringLiteral("%1:%2").arg(QHostAddress(address).toString()).arg(port);
}

/// Sends a frame from \a from on, in one call and as a record of its own, which the system does not
/// join with the next: the paced reader of the message channel needs header and size of a frame
/// together, and its system cuts joined records wherever its buffer is full. Returns how many bytes
/// have left.
int sendSome(int descriptor, const QByteArray &frame, int from)
{
    const ssize_t sent = ::send(descriptor, frame.constData() + from, size_t(frame.size() - from),
                                MSG_EOR | MSG_NOSIGNAL);
    return int(qMax<ssize_t>(sent, 0)); // an error shows when the socket is read
}

} // namespace

BusConnection::BusConnection(Channel channel, ConnectionId id, int descriptor,
                             const TrelanBusSettings &settings, Poller &poller, Owner &owner)
    : _channel(channel)
    , _connectionId(id)
    , _settings(settings)
    , _poller(poller)
    , _owner(owner)
    , _descriptor(descriptor)
    , _events(EPOLLIN | EPOLLRDHUP)
    , _reader(settings.maxFrameSize())
    , _peer(peerOf(descriptor))
{
    // A frame has to start a segment of its own, since the paced reader of the message channel
    // needs header and size together.
    setOption(descriptor, IPPROTO_TCP, TCP_NODELAY, 1);
    if (channel == Messages)
        setOption(descriptor, SOL_SOCKET, SO_SNDBUF, PUSH_BUFFER);

    _nextTurn.setSingleShot(true);
    connect(&_nextTurn, &QTimer::timeout, this, [this] { takeTurn(false); });
    _stall.setSingleShot(true);
    connect(&_stall, &QTimer::timeout, this, &BusConnection::onStalled);
    _handshake.setSingleShot(true);
    connect(&_handshake, &QTimer::timeout, this,
            [this] { closeWith(QStringLiteral("sent no handshake in time")); });
}

BusConnection::~BusConnection()
{
    release();
}

bool BusConnection::open()
{
    _handshake.start(_settings.handshakeTimeout());
    return _poller.watch(_descriptor, _connectionId, _events);
}

void BusConnection::setClientOwner(const ClientOwner &owner)
{
    _clientOwner = owner;
}

ClientOwner BusConnection::clientOwner() const
{
    return _clientOwner;
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
    if (_state >= Ending)
        return true;
    pollfd descriptor {_descriptor, POLLRDHUP, 0};
    return ::poll(&descriptor, 1, 0) > 0 &&
           (descriptor.revents & (POLLRDHUP | POLLHUP | POLLERR)) != 0;
}

void BusConnection::setRegistered()
{
    _handshake.stop();
}

void BusConnection::takeNext()
{
    if (_state != HandingOver && _state != Answering)
        return;
    const bool comesLater = _state == Answering; // otherwise the turn goes on by itself
    _state = Reading;
    ++_unanswered;
    if (comesLater)
        goOn();
}

BusConnection::Sending BusConnection::answer(const QByteArray &frame)
{
    if (_unanswered > 0 && _state != Closed) {
        --_unanswered;
        if (_leaving.isEmpty() || _leaving.constLast().size() >= MAX_JOINED)
            _leaving.append(frame);
        else
            _leaving.last() += frame;
        return HeldBack;
    }
    if (_state != HandingOver && _state != Answering)
        return Sent;
    const bool comesLater = _state == Answering; // otherwise the turn goes on by itself
    _state = Reading;
    send(frame);
    _answersLeaving = _leaving.isEmpty() ? 0 : _answersLeaving + 1;
    if (comesLater)
        goOn();
    return Sent;
}

void BusConnection::sendAnswers()
{
    if (_state == Closed || _leaving.isEmpty() || (_events & EPOLLOUT) != 0)
        return; // otherwise they leave behind what has found no room
    sendRest();
    if (_leaving.isEmpty())
        return;
    watch(_events | EPOLLOUT);
    watchProgress();
}

void BusConnection::answerAndEnd(const QByteArray &frame)
{
    if (_state != HandingOver && _state != Answering)
        return;
    _state = Ending;
    _handshake.stop();
    watch(_events | EPOLLIN);
    send(frame);
    if (_leaving.isEmpty())
        endSending();
}

bool BusConnection::canPush() const
{
    return _state < Ending && _leaving.isEmpty();
}

void BusConnection::push(const QByteArray &frame)
{
    send(frame);
}

void BusConnection::setReadsLate(bool late)
{
    _readsLate = late;
    if (_state == Reading && mayTakeRequest())
        watch(late ? _events & ~quint32(EPOLLIN) : _events | EPOLLIN);
    watchProgress();
}

void BusConnection::readReplies()
{
    if (_channel == Messages && _state == Reading && mayTakeRequest())
        takeTurn(true);
}

void BusConnection::close()
{
    if (_state == Closed)
        return;
    _state = Closed;
    _nextTurn.stop();
    _stall.stop();
    _handshake.stop();
    release();
    _owner.onClosed(_connectionId);
}

void BusConnection::handle(quint32 events)
{
    if ((events & EPOLLOUT) != 0)
        sendRest();
    const bool isOver = (events & AT_END) != 0;
    // A connection whose turn is due must not take another one before it.
    if (_state == Closed || _nextTurn.isActive() || (!isOver && (events & EPOLLIN) == 0))
        return;
    if (_state >= Ending)
        receive();
    else if (_state == Reading && mayTakeRequest())
        takeTurn(true);
    else if (isOver)
        close();
    else // more requests wait in the socket of the sender, not in our memory
        watch(_events & ~quint32(EPOLLIN));
}

void BusConnection::onStalled()
{
    if (_state == Discarding)
        close();
    else if (!_leaving.isEmpty())
        closeWith(QStringLiteral("does not read its answer"));
    else
        closeWith(QStringLiteral("stopped in the middle of a frame"));
}

/// Takes the next turn by a timer. A posted event would be handled before the sockets of other
/// connections.
void BusConnection::scheduleTurn()
{
    if (!_nextTurn.isActive())
        _nextTurn.start(0);
}

void BusConnection::takeTurn(bool isReadable)
{
    _nextTurn.stop();
    takeRequests(isReadable);
    goOn();
}

/// Hands requests over until there is none, an answer is missing or has not left, or the turn is
/// over.
void BusConnection::takeRequests(bool isReadable)
{
    QElapsedTimer turn;
    turn.start();
    while (_state == Reading && mayTakeRequest()) {
        const TrelanFrameReader::Status status = _postponed ? *_postponed : _reader.next();
        if (status != TrelanFrameReader::NeedMoreData) {
            takeRequest(status);
        } else if (isReadable) {
            isReadable = receive() == READ_CHUNK; // less means that there is no more
        } else {
            return;
        }
        if (turn.hasExpired(TURN_MS))
            return;
    }
}

/// On the message channel acknowledgements are read while a frame leaves: otherwise each side would
/// wait for the other side to read.
bool BusConnection::mayTakeRequest() const
{
    if (_postponed && _unanswered > 0)
        return false;
    return _leaving.isEmpty() || (_channel == Messages && _answersLeaving < MAX_ANSWERS_LEAVING);
}

bool BusConnection::isRequest(TrelanFrameReader::Status status) const
{
    return status == TrelanFrameReader::FrameReady &&
           (_reader.kind() == TrelanFrame::Request || _channel == Messages);
}

void BusConnection::takeRequest(TrelanFrameReader::Status status)
{
    if (_unanswered > 0 && !isRequest(status)) {
        _postponed = status;
        return;
    }
    if (status == TrelanFrameReader::TooLarge) {
        _state = HandingOver;
        _owner.onFrameTooLarge(_connectionId, _reader.faultText());
    } else if (status == TrelanFrameReader::Malformed) {
        closeWith(names::printable(_reader.faultText()));
    } else if (_reader.kind() == TrelanFrame::Reply && _channel == Messages) {
        _owner.onReply(_connectionId, _reader.payload());
    } else if (_reader.kind() == TrelanFrame::Reply) {
        closeWith(QStringLiteral("sent a reply that nobody asked for"));
    } else {
        _state = HandingOver;
        _owner.onRequest(_connectionId, _reader.payload());
    }
    if (_state == HandingOver)
        _state = Answering;
}

/// Goes on in another turn if there is more to take already, or else when more comes.
void BusConnection::goOn()
{
    watchProgress();
    if (_state != Reading || !mayTakeRequest())
        return;
    if (_postponed || _reader.hasNext())
        scheduleTurn();
    else if (!_readsLate)
        watch(_events | EPOLLIN);
}

/// Returns how many bytes have come. What comes after the last request is thrown away.
int BusConnection::receive()
{
    const ssize_t size = readSome(_descriptor);
    if (size > 0 && _state == Reading)
        _reader.feed(QByteArray(_chunk.data(), int(size)));
    else if (size == 0 || (size < 0 && !isPassing(errno)))
        close();
    return int(size);
}

void BusConnection::send(const QByteArray &frame)
{
    if (_state == Closed)
        return;
    const bool isFirst = _leaving.isEmpty();
    const int sent = isFirst ? sendSome(_descriptor, frame, 0) : 0;
    if (sent == frame.size())
        return;
    if (isFirst)
        _sentOfFirst = sent;
    _leaving.append(frame);
    watch(_events | EPOLLOUT);
    watchProgress();
}

/// Sends as much of the waiting frames as the socket has room for.
void BusConnection::sendRest()
{
    while (!_leaving.isEmpty()) {
        const int sent = sendSome(_descriptor, _leaving.first(), _sentOfFirst);
        _sentOfFirst += sent;
        if (sent > 0)
            watchProgress();
        if (_sentOfFirst < _leaving.first().size())
            return;
        _leaving.removeFirst();
        _sentOfFirst = 0;
    }
    _answersLeaving = 0;
    watch(_events & ~quint32(EPOLLOUT));
    if (_state == Ending) {
        endSending();
    } else {
        goOn();
        _owner.onDrained(_connectionId);
    }
}

void BusConnection::endSending()
{
    _state = Discarding;
    ::shutdown(_descriptor, SHUT_WR);
    _stall.start(_settings.discardTime());
}

void BusConnection::watch(quint32 events)
{
    if (_events == events)
        return;
    _events = events;
    _poller.change(_descriptor, _connectionId, events);
}

/// Runs the clock while the other side has to send the rest of a frame or to read one.
void BusConnection::watchProgress()
{
    const bool owesBytes =
        _state == Reading && !_postponed && !_readsLate && _reader.isInsideFrame();
    if (_state == Closed || _state == Discarding)
        return;
    if (owesBytes || !_leaving.isEmpty())
        _stall.start(_settings.stallTimeout());
    else
        _stall.stop();
}

void BusConnection::closeWith(const QString &reason)
{
    qCWarning(BUS_LOG).noquote()
        << QStringLiteral("connection from %1 is closed: %2").arg(_peer, reason);
    close();
}

/// Reads pending input first: closing with unread input makes the system of the other side report a
/// broken connection instead of an ended one.
void BusConnection::release()
{
    if (_descriptor < 0)
        return;
    _poller.forget(_descriptor);
    readSome(_descriptor);
    ::close(_descriptor);
    _descriptor = -1;
    _leaving.clear();
}

} // namespace bus
