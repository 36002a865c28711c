#include "channel/promptinbox.h"

#include "channel/directsocket.h"
#include "channel/socketwait.h"

#include <QtCore/QEvent>
#include <QtNetwork/QTcpSocket>

#include <utility>

namespace bus
{

namespace
{

constexpr qint64 READ_CHUNK = 64 * 1024;
constexpr int MAX_UNSENT = 16 * 1024;
constexpr qint64 MAX_UNSENT_NS = 1000000;
constexpr qint64 MAX_UNREAD_BY_BUS = 1024 * 1024; // thousands of acknowledgements

} // namespace

PromptInbox::PromptInbox(const QPointer<QTcpSocket> &socket, Owner &owner, QObject *parent)
    : QObject(parent)
    , _socket(socket)
    , _owner(owner)
    , _reader(std::make_unique<TrelanFrameReader>(0)) // until begin()
    , _stall(this)
    , _sendSoon(this)
{
    _stall.setSingleShot(true);
    connect(&_stall, &QTimer::timeout, this,
            [this] { _owner.onBroken(QStringLiteral("the rest of a frame does not come")); });
    _sendSoon.setSingleShot(true);
    connect(&_sendSoon, &QTimer::timeout, this, &PromptInbox::sendAllAndLetGo);
}

void PromptInbox::begin(qint64 maxPayload, std::optional<int> patience)
{
    _patience = patience;
    _reader = std::make_unique<TrelanFrameReader>(maxPayload);
    _stall.stop();
    _unsent.clear();
    _sendSoon.stop();
    _isHeldBySystem = false;
    // A slot with an event loop of its own keeps the inbox from reading, but not the socket.
    _socket->setReadBufferSize(READ_CHUNK);
}

void PromptInbox::watchArrivals()
{
    _socket->setSocketOption(QAbstractSocket::LowDelayOption, 1);
    direct::watchArrivals(*_socket, this);
}

void PromptInbox::end()
{
    _stall.stop();
    sendUnsent();
    letGo();
}

void PromptInbox::takeArrived()
{
    if (_state == HandingOn)
        return;
    const QPointer<PromptInbox> self(this);
    _state = HandingOn;
    readFrames();
    if (!self)
        return;
    _state = Waiting;
    letGo();
}

void PromptInbox::write(const QByteArray &frame)
{
    if (_unsent.isEmpty())
        _sinceUnsent.start();
    _unsent += frame;
    if (!_reader->hasNext() || _unsent.size() >= MAX_UNSENT ||
        _sinceUnsent.nsecsElapsed() >= MAX_UNSENT_NS) {
        sendUnsent();
    } else if (!_sendSoon.isActive()) {
        // What comes next may need no answer, or a slot may have an event loop of its own before.
        _sendSoon.start(0);
    }
}

void PromptInbox::letGo()
{
    if (std::exchange(_isHeldBySystem, false) && isConnected())
        direct::letGo(*_socket);
}

bool PromptInbox::isHandingOn() const
{
    return _state == HandingOn;
}

bool PromptInbox::eventFilter(QObject *watched, QEvent *event)
{
    if (event->type() == QEvent::SockAct && takeArrival())
        return true;
    return QObject::eventFilter(watched, event);
}

/// A QTcpSocket stays open as a device after its connection is gone, so that the state decides.
bool PromptInbox::isConnected() const
{
    return _socket && _socket->isOpen() && _socket->state() != QAbstractSocket::UnconnectedState;
}

/// Past Qt, which asks for the size before it reads and keeps what it reads in a buffer of its own.
/// False if Qt has to see to it.
bool PromptInbox::takeArrival()
{
    if (_state == HandingOn || wait::isInterrupted())
        return false;
    const QByteArray bytes = direct::take(*_socket);
    if (bytes.isEmpty())
        return false;
    _reader->feed(bytes);
    takeArrived();
    return true;
}

void PromptInbox::readFrames()
{
    const QPointer<PromptInbox> self(this);
    bool progress = false;
    while (!wait::isInterrupted()) {
        switch (_reader->next()) {
        case TrelanFrameReader::FrameReady:
            progress = true;
            _stall.stop(); // what the frame leads to may take its time
            if (!takeFrame() || !self)
                return;
            break;
        case TrelanFrameReader::NeedMoreData:
            if (_socket->bytesAvailable() == 0) {
                watchStall(progress);
                return;
            }
            _reader->feed(_socket->read(READ_CHUNK));
            break;
        case TrelanFrameReader::Malformed:
        case TrelanFrameReader::TooLarge:
            _owner.onBroken(_reader->faultText());
            if (!self || !isConnected())
                return;
            // A slot has opened the channel again, while this kept it from reading.
            progress = false;
            break;
        }
    }
}

/// False if the connection is not there any more.
bool PromptInbox::takeFrame()
{
    const QPointer<PromptInbox> self(this);
    _owner.onFrame(_reader->kind(), _reader->payload());
    if (!self)
        return false;
    if (isConnected() && _socket->bytesToWrite() > MAX_UNREAD_BY_BUS)
        _owner.onBroken(QStringLiteral("the bus does not read"));
    return self && isConnected();
}

/// The clock runs from the beginning of a frame to its end.
void PromptInbox::watchStall(bool progress)
{
    if (!_reader->isInsideFrame())
        _stall.stop();
    else if (progress || !_stall.isActive())
        _stall.start(_patience.value_or(TrelanTransport::patience()));
}

void PromptInbox::sendAllAndLetGo()
{
    const QPointer<PromptInbox> self(this); // a connection that is found lost is a signal
    sendUnsent();
    if (self)
        letGo();
}

void PromptInbox::sendUnsent()
{
    const QByteArray frames = std::exchange(_unsent, {});
    if (frames.isEmpty() || !isConnected())
        return;
    _isHeldBySystem = true;
    direct::sendSoon(*_socket, frames); // last: a connection that is found lost is a signal
}

} // namespace bus
