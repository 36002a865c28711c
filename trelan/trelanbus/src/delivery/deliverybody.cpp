#include "delivery/deliverybody.h"

#include <jsonwriter.h>
#include <trelanframe.h>

#include <functional>
#include <string_view>

namespace bus
{

namespace
{
constexpr int FIXED_TEXT = 256; // of the keys around a text
} // namespace

DeliveryBody::DeliveryBody(const QByteArray &text, const QString &sender, qint64 time, bool forMany)
    : _text(text)
    , _sender(sender)
    , _time(time)
    , _digest(std::hash<std::string_view>()({text.constData(), size_t(text.size())}))
    , _classic(forMany)
{}

DeliveryBody::DeliveryBody(const TrelanMessage &message)
    : _message(message.message())
    , _sender(message.sender())
    , _time(message.timestamp().toMSecsSinceEpoch())
    , _options(message.options())
    , _digest(std::hash<std::u16string_view>()(
          {reinterpret_cast<const char16_t *>(_message.utf16()), size_t(_message.size())}))
{}

DeliveryBody::Ref DeliveryBody::withoutText() const
{
    return std::make_shared<const DeliveryBody>(QByteArray(), _sender, _time);
}

int DeliveryBody::textSize() const
{
    return _text.size() + _message.size();
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

/// To the byte what TrelanFrame::encode() makes of the same.
QByteArray DeliveryBody::classicFrame(const QString &reciever, const QString &uid) const
{
    QByteArray ending;
    json::appendString(ending, reciever);
    ending += ",\n        \"s\": ";
    json::appendString(ending, _sender);
    ending += ",\n        \"uid\": ";
    json::appendString(ending, uid);
    ending += "\n    },\n    \"operation\": \"sendMessage\"\n}\n";
    return _classic.frame(
        TrelanFrame::Request, [this] { return classicBeginning(); }, ending);
}

bool DeliveryBody::isEncoded() const
{
    return _isEncoded;
}

/// Made when it is needed first, which may be in two threads at once.
const TrelanSharedPayload &DeliveryBody::shared() const
{
    if (!_isEncoded) {
        const std::lock_guard lock(_mutex);
        if (!_shared)
            _shared = std::make_unique<TrelanSharedPayload>(beginning());
        _isEncoded = true;
    }
    return *_shared;
}

QByteArray DeliveryBody::classicBeginning() const
{
    QByteArray text;
    text.reserve(FIXED_TEXT + 2 * textSize());
    text += "{\n    \"data\": {\n        \"dt\": \"" + QByteArray::number(_time);
    text += "\",\n        \"msg\": ";
    appendText(text);
    text += ",\n        \"ops\": " + QByteArray::number(int(_options));
    text += ",\n        \"r\": ";
    return text;
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
    if (_text.isEmpty())
        json::appendString(out, _message);
    else
        json::appendString(out, _text);
}

} // namespace bus
