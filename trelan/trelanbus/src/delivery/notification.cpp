#include "delivery/notification.h"

#include "values/busnames.h"

#include <envelopewriter.h>
#include <wirekeys.h>

namespace bus
{

namespace
{

constexpr qint64 FIXED_COST = 512; // bytes of a message beside the content
constexpr int FIXED_TEXT = 128;    // bytes of the keys around a content

/// The text of the message that TrelanObject::toMessage() makes, in UTF-8.
QByteArray classicText(const ObjectRecord &record)
{
    QByteArray text = record.toObject().toMessage(QString()).message().toUtf8();
    text.squeeze(); // toUtf8() leaves room for three times as much
    return text;
}

QByteArray lightText(const ObjectRecord &record)
{
    QByteArray text;
    text.reserve(record.contentJson.size() + FIXED_TEXT + 2 * record.head.name.size());
    EnvelopeWriter(text)
        .raw(keys::NOTIFIED_CONTENT, record.contentJson)
        .text(keys::NOTIFIED_NAME, record.head.name)
        .text(keys::NOTIFIED_REASON, reasons::SUBSCRIPTION)
        .finish();
    return text;
}

} // namespace

Notification::Notification(TrelanTransport::Coding coding)
    : _coding(coding)
{}

QueuedMessage Notification::message(const ObjectRecord &record, const QString &receiver)
{
    if (!_body || !_content.isSharedWith(record.contentJson)) {
        _content = record.contentJson;
        _body = body(record, _coding);
    }
    const ObjectHead &head = record.head;
    const QString &uid = record.deliveryUid.isEmpty() ? head.uid : record.deliveryUid;
    QueuedMessage message(_body, receiver, uid);
    message.kind = isKept(record) ? QueuedMessage::Value : QueuedMessage::Event;
    message.object = head.name;
    return message;
}

bool Notification::isKept(const ObjectRecord &record)
{
    return record.head.isStored() && !names::isCommandName(record.head.name);
}

qint64 Notification::cost(const ObjectRecord &record)
{
    return FIXED_COST + qint64(record.contentJson.size()) * qint64(sizeof(QChar));
}

MessageBody::Ref Notification::body(const ObjectRecord &record, TrelanTransport::Coding coding)
{
    const QByteArray text =
        coding == TrelanTransport::Classic ? classicText(record) : lightText(record);
    return std::make_shared<const MessageBody>(text, record.head.publisher, record.head.time);
}

} // namespace bus
