#include "values/objectrecord.h"

#include "request/jsontext.h"

#include <jsonreader.h>
#include <jsonwriter.h>

namespace bus
{

namespace
{
// Headers, hash node and allocator, measured roughly: small objects must not come for free.
constexpr qint64 FIXED_COST = 256;
constexpr int FIXED_TEXT = 128; // of the keys around a content

/// What toMessage() says of a record, in UTF-8.
QByteArray classicText(const ObjectRecord &record)
{
    QByteArray text;
    text.reserve(2 * (record.contentJson.size() + FIXED_TEXT + record.head.name.size()));
    text += "{\n    \"__context__\": ";
    if (!jsontext::appendIndented(text, record.contentJson, 1)) {
        text = record.toObject().toMessage(QString()).message().toUtf8();
        text.squeeze(); // of three times its size
        return text;
    }
    text += ",\n    \"__name__\": ";
    json::appendString(text, record.head.name);
    text += ",\n    \"__reason__\": \"sub\"\n}\n";
    text.squeeze();
    return text;
}

} // namespace

TrelanObject ObjectRecord::toObject() const
{
    QVariantMap content;
    json::read(contentJson, content);
    TrelanObject object {TrelanTimestamp(head.time)};
    object.setName(head.name);
    object.setPublisher(head.publisher);
    object.setUid(head.uid);
    object.setOptions(head.options);
    object.setContent(content);
    return object;
}

QByteArray ObjectRecord::toJson() const
{
    QByteArray text;
    text.reserve(contentJson.size() + FIXED_TEXT + 2 * head.name.size());
    text += "{\"cnt\":" + contentJson;
    text += ",\"dt\":\"" + QByteArray::number(head.time);
    text += "\",\"nm\":";
    json::appendString(text, head.name);
    text += ",\"opt\":" + QByteArray::number(int(head.options));
    text += ",\"p\":";
    json::appendString(text, head.publisher);
    text += ",\"uid\":";
    json::appendString(text, head.uid);
    text += '}';
    return text;
}

DeliveryBody::Ref ObjectRecord::notification(TrelanTransport::Coding coding, bool forMany) const
{
    QByteArray text;
    if (coding == TrelanTransport::Classic) {
        text = classicText(*this);
    } else {
        text.reserve(contentJson.size() + FIXED_TEXT + 2 * head.name.size());
        text += "{\"__context__\":" + contentJson;
        text += ",\"__name__\":";
        json::appendString(text, head.name);
        text += ",\"__reason__\":\"sub\"}";
    }
    return std::make_shared<const DeliveryBody>(text, head.publisher, head.time, forMany);
}

QString ObjectRecord::notificationUid() const
{
    return deliveryUid.isEmpty() ? head.uid : deliveryUid;
}

qint64 ObjectRecord::cost() const
{
    const qint64 characters = head.name.size() + head.publisher.size() + head.uid.size();
    return FIXED_COST + characters * qint64(sizeof(QChar)) + contentJson.size();
}

} // namespace bus
