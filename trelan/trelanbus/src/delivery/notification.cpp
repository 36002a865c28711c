#include "delivery/notification.h"

#include "values/busnames.h"

#include <envelopewriter.h>
#include <jsonwriter.h>
#include <wirekeys.h>

#include <QtCore/QDateTime>

namespace bus
{

namespace
{

constexpr qint64 FIXED_COST = 512; // bytes of a message beside the content
constexpr int FIXED_TEXT = 128;    // bytes of the keys around a content

QByteArray squeezed(QByteArray text)
{
    text.squeeze(); // writers leave room for more
    return text;
}

/// The word for what a notification says of a stored object; empty if it says nothing.
QString wordOf(Notification::Stored stored)
{
    switch (stored) {
    case Notification::Changed:
        return occasions::CHANGED;
    case Notification::Now:
        return occasions::NOW;
    case Notification::Unsaid:
        break;
    }
    return {};
}

/// The text of the message that TrelanObject::toMessage() makes, in UTF-8.
QByteArray classicText(const ObjectRecord &record)
{
    return squeezed(record.toObject().toMessage(QString()).message().toUtf8());
}

/// The same text with one key more.
QByteArray classicText(const ObjectRecord &record, const QString &word)
{
    return squeezed(json::indented({
        {keys::NOTIFIED_REASON, QString(reasons::SUBSCRIPTION)},
        {keys::NOTIFIED_NAME, record.head.name},
        {keys::NOTIFIED_CONTENT, record.toObject().content()},
        {keys::NOTIFIED_STORED, word},
    }));
}

QByteArray lightText(const ObjectRecord &record, const QString &word)
{
    QByteArray text;
    text.reserve(record.contentJson.size() + FIXED_TEXT + 2 * record.head.name.size());
    EnvelopeWriter writer(text);
    writer.raw(keys::NOTIFIED_CONTENT, record.contentJson)
        .text(keys::NOTIFIED_NAME, record.head.name)
        .text(keys::NOTIFIED_REASON, reasons::SUBSCRIPTION);
    if (!word.isEmpty())
        writer.text(keys::NOTIFIED_STORED, word);
    writer.finish();
    return text;
}

} // namespace

Notification::Notification(TrelanTransport::Coding coding)
    : _coding(coding)
{}

QueuedMessage Notification::message(const ObjectRecord &record, const QString &receiver,
                                    Stored stored)
{
    if (!_content.isSharedWith(record.contentJson)) {
        _content = record.contentJson;
        _bodies = {};
    }
    const bool kept = isKept(record);
    MessageBody::Ref &shared = _bodies.at(kept ? stored : Unsaid);
    if (!shared)
        shared = body(record, kept ? stored : Unsaid);
    const ObjectHead &head = record.head;
    const QString &uid = record.deliveryUid.isEmpty() ? head.uid : record.deliveryUid;
    QueuedMessage message(shared, receiver, uid);
    message.kind = kept ? QueuedMessage::Value : QueuedMessage::Event;
    message.object = head.name;
    return message;
}

QueuedMessage Notification::removal(const QString &object, const QString &remover, qint64 time,
                                    const QString &receiver)
{
    if (!_removal || _removed != object || _removal->sender() != remover ||
        _removal->time() != time) {
        _removed = object;
        _removal = ofWords(
            {{keys::NOTIFIED_NAME, object}, {keys::NOTIFIED_REASON, QString(reasons::REMOVED)}},
            remover, time);
    }
    QueuedMessage message(_removal, receiver, names::freshUid());
    message.kind = QueuedMessage::Value;
    message.object = object;
    message.removal = true;
    return message;
}

QueuedMessage Notification::marker(const QString &client, const QString &wildcards) const
{
    const MessageBody::Ref body = ofWords(
        {{keys::NOTIFIED_REASON, QString(reasons::TOLD)}, {keys::MARKED_SUBSCRIPTION, wildcards}},
        client, QDateTime::currentMSecsSinceEpoch());
    QueuedMessage marker(body, client, names::freshUid());
    marker.kind = QueuedMessage::Marker;
    return marker;
}

/// A body whose text has these keys and strings only.
MessageBody::Ref Notification::ofWords(const QVariantMap &words, const QString &sender,
                                       qint64 time) const
{
    const QByteArray text =
        _coding == TrelanTransport::Classic ? json::indented(words) : json::compact(words);
    return std::make_shared<const MessageBody>(squeezed(text), sender, time);
}

bool Notification::isKept(const ObjectRecord &record)
{
    return record.head.isStored() && !names::isCommandName(record.head.name);
}

qint64 Notification::cost(const ObjectRecord &record)
{
    return FIXED_COST + qint64(record.contentJson.size()) * qint64(sizeof(QChar));
}

MessageBody::Ref Notification::body(const ObjectRecord &record, Stored stored) const
{
    const QString word = wordOf(stored);
    const bool isClassic = _coding == TrelanTransport::Classic;
    const QByteArray text = !isClassic       ? lightText(record, word)
                            : word.isEmpty() ? classicText(record)
                                             : classicText(record, word);
    return std::make_shared<const MessageBody>(text, record.head.publisher, record.head.time);
}

} // namespace bus
