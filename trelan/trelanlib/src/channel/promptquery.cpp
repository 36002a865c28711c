#include "channel/promptquery.h"

#include "channel/directsocket.h"
#include "channel/socketwait.h"

#include <QtCore/QDeadlineTimer>
#include <QtNetwork/QTcpSocket>

#include <utility>

namespace bus
{

namespace
{

// What is sent ahead of its replies has bounds, so that bus and client never wait for each other to
// read.
constexpr int MAX_PENDING = 256;
constexpr qint64 MAX_PENDING_BYTES = 256 * 1024;
constexpr int MAX_UNSENT = 16 * 1024; // of small requests, which leave together

} // namespace

PromptQuery::PromptQuery(const QPointer<QTcpSocket> &socket, const ConnectionCount &connections,
                         QObject &context)
    : _socket(socket)
    , _connections(connections)
    , _context(context)
    , _reader(std::make_unique<TrelanFrameReader>(0)) // until begin()
{}

void PromptQuery::begin(qint64 maxPayload, std::optional<int> patience)
{
    _maxPayload = maxPayload;
    _patience = patience;
    forget();
}

void PromptQuery::forget()
{
    _reader = std::make_unique<TrelanFrameReader>(_maxPayload);
    _unsent.clear();
}

void PromptQuery::request(const QByteArray &frame, const Done &done)
{
    ask(frame, done);
    takeReplies();
}

void PromptQuery::ask(const QByteArray &frame, const Done &done)
{
    const ConnectionCount::Mark here = _connections.mark();
    while (_pending.size() >= MAX_PENDING || _pendingBytes >= MAX_PENDING_BYTES)
        takeReply();
    // While there are replies to come nobody can tell whether the stream is out of step.
    const bool isInStep = !isConnected() || !_pending.isEmpty() || !isOutOfStep();
    if (!here.isOver() && isConnected() && isInStep) {
        _unsent += frame;
        if (_pending.isEmpty() || _unsent.size() >= MAX_UNSENT)
            sendUnsent();
        // Under the old mark: what is lost while it is sent has no reply on the next connection.
        _pending.enqueue({here, frame.size(), done});
        _pendingBytes += frame.size();
        return;
    }
    takeReplies();
    done({!here.isOver() && isConnected() ? Unasked : Lost, {}, {}});
}

void PromptQuery::askLater(const QByteArray &frame, const Done &done)
{
    ask(frame, done);
    takeReplyLater();
}

void PromptQuery::takeReplies()
{
    while (!_pending.isEmpty())
        takeReply();
}

/// A QTcpSocket stays open as a device after its connection is gone, and while a close() is still
/// sending what was left, so the state decides.
bool PromptQuery::isConnected() const
{
    return _socket && _socket->isOpen() && _socket->state() == QAbstractSocket::ConnectedState;
}

/// Whether something has come that nobody asked for, or more than was asked for.
bool PromptQuery::isOutOfStep()
{
    return direct::hasArrived(*_socket) || _reader->isInsideFrame();
}

/// Waits for the reply to the oldest request that has none.
void PromptQuery::takeReply()
{
    const Pending oldest = _pending.dequeue();
    _pendingBytes -= oldest.size;
    oldest.done(oldest.connection.isOver() ? Result() : awaitReply());
}

/// One reply at a time, each behind what the event loop is about to ask.
void PromptQuery::takeReplyLater()
{
    if (_takesLater || _pending.isEmpty())
        return;
    _takesLater = true;
    const auto take = [this] {
        _takesLater = false;
        if (!_pending.isEmpty())
            takeReply();
        takeReplyLater();
    };
    QMetaObject::invokeMethod(&_context, take, Qt::QueuedConnection);
}

void PromptQuery::sendUnsent()
{
    const QByteArray frames = std::exchange(_unsent, {});
    if (!frames.isEmpty() && isConnected())
        direct::send(*_socket, frames);
}

PromptQuery::Result PromptQuery::awaitReply()
{
    const ConnectionCount::Mark here = _connections.mark();
    switch (awaitFrame(_patience.value_or(TrelanTransport::patience()))) {
    case TrelanFrameReader::NeedMoreData:
        // A slot may have opened the channel again, and that connection owes no reply.
        return {here.isOver() || !isConnected() ? Lost : TimedOut, {}, {}};
    case TrelanFrameReader::FrameReady:
        if (_reader->kind() == TrelanFrame::Reply)
            return {Replied, _reader->payload(), {}};
        break;
    case TrelanFrameReader::Malformed:
    case TrelanFrameReader::TooLarge:
        break;
    }
    return {Malformed, {}, _reader->faultText()};
}

/// NeedMoreData if no whole frame has come in this time, the connection has ended, or the thread is
/// asked to end.
TrelanFrameReader::Status PromptQuery::awaitFrame(int milliseconds)
{
    const QDeadlineTimer deadline(milliseconds);
    const ConnectionCount::Mark here = _connections.mark();
    for (;;) {
        const TrelanFrameReader::Status status = _reader->next();
        if (status != TrelanFrameReader::NeedMoreData || !_socket)
            return status;
        // Sending and reading may both notice that the connection is lost, and a slot that is told
        // may open it again.
        sendUnsent();
        const QByteArray bytes = here.isOver() ? QByteArray() : direct::read(*_socket, deadline);
        if (here.isOver() || (bytes.isEmpty() && wait::isOver(*_socket, deadline)))
            return TrelanFrameReader::NeedMoreData;
        _reader->feed(bytes);
    }
}

} // namespace bus
