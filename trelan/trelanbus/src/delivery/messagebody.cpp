#include "delivery/messagebody.h"

#include <envelopewriter.h>
#include <frameformat.h>
#include <trelanframe.h>
#include <wirekeys.h>

#include <functional>
#include <string_view>

namespace bus
{

namespace
{
constexpr int FIXED_TEXT = 256; // bytes that the keys around a text take
constexpr int OPEN_OBJECTS = 2; // behind a beginning: the envelope and its data
} // namespace

MessageBody::MessageBody(const QByteArray &text, const QString &sender, qint64 time)
    : _utf8(text)
    , _sender(sender)
    , _time(time)
    , _digest(std::hash<std::string_view>()({text.constData(), size_t(text.size())}))
{}

MessageBody::MessageBody(const TrelanMessage &message)
    : _text(message.message())
    , _sender(message.sender())
    , _time(message.timestamp().toMSecsSinceEpoch())
    , _options(message.options())
    , _digest(std::hash<std::u16string_view>()(
          {reinterpret_cast<const char16_t *>(_text.utf16()), size_t(_text.size())}))
{}

MessageBody::Ref MessageBody::withoutText() const
{
    return std::make_shared<const MessageBody>(QByteArray(), _sender, _time);
}

int MessageBody::textSize() const
{
    return _utf8.size() + _text.size();
}

const QString &MessageBody::sender() const
{
    return _sender;
}

qint64 MessageBody::time() const
{
    return _time;
}

bool MessageBody::needsAnswer() const
{
    return _options.testFlag(TrelanMessage::NeedAnswer);
}

size_t MessageBody::digest() const
{
    return _digest;
}

QByteArray MessageBody::frame(const QString &reciever, const QString &uid,
                              TrelanTransport::Coding coding) const
{
    if (coding == TrelanTransport::Classic)
        return classicFrame(reciever, uid);
    QByteArray ending;
    EnvelopeWriter(ending, OPEN_OBJECTS)
        .text(keys::MESSAGE_RECIEVER, reciever)
        .text(keys::UID, uid)
        .finish();
    return shared().frame(frameformat::REQUEST, ending);
}

/// Makes a frame as the client library does, since peers of this coding expect its bytes.
QByteArray MessageBody::classicFrame(const QString &reciever, const QString &uid) const
{
    TrelanMessage message {TrelanTimestamp(_time)};
    message.setMessage(_utf8.isEmpty() ? _text : QString::fromUtf8(_utf8));
    message.setOptions(_options);
    message.setSender(_sender);
    message.setReciever(reciever);
    message.setUid(uid);
    return TrelanFrame::encode(
        TrelanFrame::Request,
        TrelanFrame::request(operations::SEND_MESSAGE, message.toVariantMap()),
        TrelanTransport::Classic);
}

bool MessageBody::isEncoded() const
{
    return _isEncoded;
}

/// Makes the beginning for whoever needs it first, the codec thread or the thread of the bus.
const SharedBeginning &MessageBody::shared() const
{
    if (!_isEncoded) {
        const std::lock_guard lock(_mutex);
        if (!_shared)
            _shared = std::make_unique<SharedBeginning>(beginning());
        _isEncoded = true;
    }
    return *_shared;
}

QByteArray MessageBody::beginning() const
{
    QByteArray text;
    text.reserve(FIXED_TEXT + 2 * textSize());
    EnvelopeWriter envelope(text);
    envelope.text(keys::OPERATION, operations::SEND_MESSAGE)
        .begin(keys::DATA)
        .time(keys::TIME, _time);
    if (_utf8.isEmpty())
        envelope.text(keys::MESSAGE_TEXT, _text);
    else
        envelope.text(keys::MESSAGE_TEXT, _utf8);
    envelope.number(keys::MESSAGE_OPTIONS, int(_options))
        .text(keys::MESSAGE_SENDER, _sender)
        .beginning();
    return text;
}

} // namespace bus
