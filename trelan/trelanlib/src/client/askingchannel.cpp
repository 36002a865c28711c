#include "client/askingchannel.h"

#include "codec/replies.h"

#include <wirekeys.h>

#include <QtCore/QPointer>
#include <QtCore/QTimerEvent>

#include <utility>

namespace bus
{

namespace
{

constexpr int LOOKS_PER_PATIENCE = 4;
constexpr int MAX_REMEMBERED = 512; // of a payload

} // namespace

BusFeatures BusFeatures::fromData(const QVariantMap &data)
{
    return {data.value(keys::FEATURES).toStringList(), data.value(keys::INSTANCE).toString(),
            data.value(keys::CHANNEL).toString()};
}

AskingChannel::AskingChannel(QObject *parent)
    : QObject(parent)
    , _link(*this, this)
{
    _clock.start();
}

void AskingChannel::open(quint32 host, quint16 port, int patience)
{
    close();
    _patience = patience;
    _link.open(host, port, patience);
}

void AskingChannel::close()
{
    _link.close();
    tellUnanswered();
}

void AskingChannel::ask(const QByteArray &frame, const Done &done)
{
    if (!_watch.isActive())
        _watch.start(qMax(_patience / LOOKS_PER_PATIENCE, 1), this);
    _asked.enqueue({done, _clock.elapsed()});
    _link.send(frame);
}

void AskingChannel::shakeHands(const QString &clientName, bool asksFeatures, const Done &done)
{
    QVariantMap data {{keys::CLIENT_NAME, clientName}};
    if (asksFeatures)
        data.insert(keys::FEATURES, true);
    ask(TrelanFrame::encode(TrelanFrame::Request, TrelanFrame::request(operations::HANDSHAKE, data),
                            TrelanTransport::Light),
        done);
}

bool AskingChannel::isIdle() const
{
    return _asked.isEmpty();
}

QString AskingChannel::localAddress() const
{
    return _link.localAddress();
}

void AskingChannel::timerEvent(QTimerEvent *event)
{
    if (event->timerId() != _watch.timerId())
        return;
    if (_asked.isEmpty())
        _watch.stop();
    else if (_clock.elapsed() - _asked.head().at >= _patience)
        breakOff(QStringLiteral("the bus does not answer"));
}

void AskingChannel::onConnected(FrameLink &)
{
    emit connected();
}

void AskingChannel::onFrame(FrameLink &, TrelanFrame::Kind kind, const QByteArray &payload)
{
    Reply reply;
    if (kind != TrelanFrame::Reply || _asked.isEmpty() || !read(payload, reply)) {
        breakOff(QStringLiteral("what the bus has sent is no reply"));
        return;
    }
    reply.isThere = true;
    const Asked oldest = _asked.dequeue();
    if (!_asked.isEmpty()) // which the bus has not begun before
        _asked.head().at = _clock.elapsed();
    oldest.done(reply);
    if (_asked.isEmpty())
        emit idle();
}

void AskingChannel::onLost(FrameLink &, const QString &reason)
{
    breakOff(reason);
}

void AskingChannel::breakOff(const QString &reason)
{
    close();
    emit lost(reason);
}

void AskingChannel::tellUnanswered()
{
    _watch.stop();
    _plainYes.clear();
    const QQueue<Asked> unanswered = std::exchange(_asked, {});
    for (const Asked &asked : unanswered)
        asked.done({});
}

bool AskingChannel::read(const QByteArray &payload, Reply &reply)
{
    if (!_plainYes.isEmpty() && payload == _plainYes)
        return true;
    const TrelanFrame::Payload decoded = TrelanFrame::decodePayload(payload);
    if (decoded.fault != TrelanFrame::NoFault)
        return false;
    reply.data = decoded.envelope.value(keys::DATA).toMap();
    reply.error = replies::error(decoded.envelope.value(keys::RESULT).toMap());
    if (reply.data.isEmpty() && reply.error.error() == TrelanError::NoError)
        _plainYes = payload.size() <= MAX_REMEMBERED ? payload : QByteArray();
    return true;
}

} // namespace bus
