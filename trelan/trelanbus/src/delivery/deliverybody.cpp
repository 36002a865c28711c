#include "delivery/deliverybody.h"

#include <jsonwriter.h>
#include <trelanframe.h>

#include <functional>
#include <string_view>

namespace bus
{

namespace
{
constexpr int FIXED_TEXT = 256; // bytes that the keys around a text take
} // namespace

DeliveryBody::DeliveryBody(const QByteArray &text, const QString &sender, qint64 time)
    : _utf8(text)
    , _sender(sender)
    , _time(time)
    , _digest(std::hash<std::string_view>()({text.constData(), size_t(text.size())}))
{}

DeliveryBody::DeliveryBody(const TrelanMessage &message)
    : _text(message.message())
    , _sender(message.sender())
    , _time(message.timestamp().toMSecsSinceEpoch())
    , _options(message.options())
    , _digest(std::hash<std::u16string_view>()(
          {reinterpret_cast<const char16_t *>(_text.utf16()), size_t(_text.size())}))
{}

DeliveryBody::Ref DeliveryBody::withoutText() const
{
    return std::make_shared<const DeliveryBody>(QByteArray(), _sender, _time);
}

int DeliveryBody::textSize() const
{
    return _utf8.size() + _text.size();
}

const QString &DeliveryBody::sender() const
{
    return _sender;
}

bool DeliveryBody::needsAnswer() const
{
    return _options.testFlag(TrelanMessage::NeedAnswer);
}

size_t DeliveryBody::digest() const
{
    return _digest;
}

QByteArray DeliveryBody::frame(const QString &reciever, const QString &uid,
                               TrelanTransport::Coding coding) const
{
    if (coding == TrelanTransport::Classic)
        return classicFrame(reciever, uid);
    QByteArray ending("\"r\":");
    json::appendString(ending, reciever);
    ending += ",\"uid\":";
    json::appendString(ending, uid);
    ending += "}}";
    return shared().frame(TrelanFrame::Request, ending);
}

/// Peers of this coding expect the bytes of TrelanFrame::encode().
QByteArray DeliveryBody::classicFrame(const QString &reciever, const QString &uid) const
{
    TrelanMessage message {TrelanTimestamp(_time)};
    message.setMessage(_utf8.isEmpty() ? _text : QString::fromUtf8(_utf8));
    message.setOptions(_options);
    message.setSender(_sender);
    message.setReciever(reciever);
    message.setUid(uid);
    return TrelanFrame::encode(
        TrelanFrame::Request,
        TrelanFrame::request(QStringLiteral("sendMessage"), message.toVariantMap()),
        TrelanTransport::Classic);
}

bool DeliveryBody::isEncoded() const
{
    return _isEncoded;
}

/// Two threads may need it first at once: the codec thread and the thread of the bus.
const SharedPayload &DeliveryBody::shared() const
{
    if (!_isEncoded) {
        const std::lock_guard lock(_mutex);
        if (!_shared)
            _shared = std::make_unique<SharedPayload>(beginning());
        _isEncoded = true;
    }
    return *_shared;
}

QByteArray DeliveryBody::beginning() const
{
    QByteArray text;
    text.reserve(FIXED_TEXT + 2 * textSize());
    text += R"({"operation":"sendMessage","data":{"dt":")" + QByteArray::number(_time);
    text += R"(","msg":)";
    appendText(text);
    text += ",\"ops\":" + QByteArray::number(int(_options));
    text += ",\"s\":";
    json::appendString(text, _sender);
    text += ',';
    return text;
}

void DeliveryBody::appendText(QByteArray &out) const
{
    if (_utf8.isEmpty())
        json::appendString(out, _text);
    else
        json::appendString(out, _utf8);
}

} // namespace bus
