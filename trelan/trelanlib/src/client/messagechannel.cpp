#include "client/messagechannel.h"

#include "client/clientlog.h"
#include "codec/push.h"
#include "codec/replies.h"

#include <wirekeys.h>

namespace bus
{

MessageChannel::MessageChannel(const QString &clientName, QObject *parent)
    : QObject(parent)
    , _clientName(clientName)
    , _link(*this, this)
    , _answer(this)
{
    _answer.setSingleShot(true);
    connect(&_answer, &QTimer::timeout, this,
            [this] { breakOff(QStringLiteral("the handshake is not answered")); });
}

void MessageChannel::open(quint32 host, quint16 port, int patience, bool asksFeatures)
{
    close();
    _asksFeatures = asksFeatures;
    _patience = patience;
    _link.open(host, port, patience);
}

void MessageChannel::close()
{
    _answer.stop();
    _link.close();
}

QString MessageChannel::localAddress() const
{
    return _link.localAddress();
}

void MessageChannel::onConnected(FrameLink &)
{
    QVariantMap data {{keys::CLIENT_NAME, _clientName}, {keys::PROMPT, true}};
    if (_asksFeatures)
        data.insert(keys::FEATURES, true);
    _answer.start(_patience);
    _link.send(TrelanFrame::encode(TrelanFrame::Request,
                                   TrelanFrame::request(operations::HANDSHAKE, data),
                                   TrelanTransport::Light));
}

void MessageChannel::onFrame(FrameLink &, TrelanFrame::Kind kind, const QByteArray &payload)
{
    if (kind == TrelanFrame::Reply) {
        takeReply(payload);
    } else if (const auto message = pushes::decode(payload)) {
        takeMessage(*message);
    } else {
        const TrelanFrame::Payload decoded = TrelanFrame::decodePayload(payload);
        if (decoded.envelope.value(keys::OPERATION).toString() == operations::SEND_MESSAGE)
            takeMessage(TrelanMessage::fromVariantMap(decoded.envelope.value(keys::DATA).toMap()));
        else
            qCWarning(CLIENT_LOG) << "a delivery of the bus cannot be understood, and is dropped";
    }
}

void MessageChannel::onLost(FrameLink &, const QString &reason)
{
    breakOff(reason);
}

void MessageChannel::breakOff(const QString &reason)
{
    close();
    emit lost(reason);
}

void MessageChannel::takeReply(const QByteArray &payload)
{
    if (!_answer.isActive())
        return; // nothing else is asked here
    _answer.stop();
    const TrelanFrame::Payload decoded = TrelanFrame::decodePayload(payload);
    const TrelanError error = replies::error(decoded.envelope.value(keys::RESULT).toMap());
    if (decoded.fault != TrelanFrame::NoFault)
        breakOff(QStringLiteral("the answer to the handshake cannot be understood"));
    else if (error.error() != TrelanError::NoError)
        emit refused(error);
    else
        emit accepted(BusFeatures::fromData(decoded.envelope.value(keys::DATA).toMap()));
}

void MessageChannel::takeMessage(const TrelanMessage &message)
{
    // Repeated ones are acknowledged, too, so that the bus stops sending them.
    _link.sendTogether(pushes::acknowledgement(message, TrelanTransport::Light));
    emit arrived(message);
}

} // namespace bus
