#include "codec/incoming.h"

#include <jsonreader.h>
#include <wirekeys.h>

#include <QtCore/QStringView>
#include <QtCore/QVariantMap>

#include <functional>
#include <string_view>

namespace bus
{

namespace
{

const QString &commandPrefix()
{
    static const QString PREFIX = TrelanCommand::createObjectName(QString());
    return PREFIX;
}

Incoming::Stored storedOf(const QVariantMap &body)
{
    const QString stored = body.value(keys::NOTIFIED_STORED).toString();
    if (stored == QString(occasions::NOW))
        return Incoming::Now;
    return stored == QString(occasions::CHANGED) ? Incoming::Changed : Incoming::Unknown;
}

/// Of the time, the publisher and the text before the key that says how the object is stored, which
/// differs between a value that has changed and the one value as it is told later.
size_t digestOf(const TrelanMessage &message)
{
    const QString text = message.message();
    const QString key = keys::NOTIFIED_STORED;
    const int end = text.lastIndexOf(key);
    const auto hash = [](QStringView part) {
        return std::hash<std::u16string_view>()({part.utf16(), size_t(part.size())});
    };
    constexpr size_t ODD = 31;
    const size_t content = hash(QStringView(text).left(end < 0 ? text.size() : end));
    const size_t publisher = hash(message.sender());
    return (content * ODD + publisher) * ODD + size_t(message.timestamp().toMSecsSinceEpoch());
}

void takeNotification(const TrelanMessage &message, const QVariantMap &body, Incoming &incoming)
{
    incoming.object = objectOf(message, body);
    if (isCommandToEverybody(incoming.object)) {
        incoming.kind = Incoming::Command;
        incoming.command = commandToEverybody(incoming.object);
        return;
    }
    incoming.kind = Incoming::Object;
    incoming.stored = storedOf(body);
    if (incoming.stored != Incoming::Unknown)
        incoming.digest = digestOf(message);
}

} // namespace

TrelanObject objectOf(const TrelanMessage &message, const QVariantMap &notification)
{
    TrelanObject object(message.timestamp());
    object.setContent(notification.value(keys::NOTIFIED_CONTENT).toMap());
    object.setName(notification.value(keys::NOTIFIED_NAME).toString());
    object.setPublisher(message.sender());
    object.setUid(message.uid());
    return object;
}

TrelanCommand commandOf(const TrelanMessage &message, const QVariantMap &call)
{
    TrelanCommand command;
    command.setTimestamp(message.timestamp());
    command.setName(call.value(keys::COMMAND_NAME).toString());
    command.setParams(call.value(keys::COMMAND_PARAMS).toMap());
    command.setParentUid(call.value(keys::COMMAND_PARENT).toString());
    command.setNeedAnswer(message.needAnswer());
    command.setUid(message.uid());
    command.setReciever(message.reciever());
    command.setSender(message.sender());
    return command;
}

bool isCommandToEverybody(const TrelanObject &object)
{
    return object.name().startsWith(commandPrefix());
}

TrelanCommand commandToEverybody(const TrelanObject &object)
{
    TrelanCommand command;
    command.setTimestamp(object.timestamp());
    command.setName(object.name().mid(commandPrefix().size()));
    command.setParams(object.content());
    command.setSender(object.publisher());
    command.setUid(object.uid());
    return command;
}

bool isRemoval(const QVariantMap &body)
{
    return body.contains(keys::NOTIFIED_NAME) &&
           body.value(keys::NOTIFIED_REASON).toString() == QString(reasons::REMOVED);
}

Incoming Incoming::of(const TrelanMessage &message, bool hasAsked)
{
    Incoming incoming;
    QVariantMap body;
    if (!json::read(message.message().toUtf8(), body))
        return incoming;
    const QString reason = body.value(keys::NOTIFIED_REASON).toString();
    const bool hasName = body.contains(keys::NOTIFIED_NAME);
    if (reason == QString(reasons::SUBSCRIPTION) && hasName &&
        body.contains(keys::NOTIFIED_CONTENT)) {
        takeNotification(message, body, incoming);
    } else if (hasAsked && isRemoval(body)) {
        incoming.kind = Removal;
        incoming.name = body.value(keys::NOTIFIED_NAME).toString();
    } else if (hasAsked && reason == QString(reasons::TOLD) &&
               body.contains(keys::MARKED_SUBSCRIPTION)) {
        incoming.kind = Told;
        incoming.name = body.value(keys::MARKED_SUBSCRIPTION).toString();
    } else if (body.contains(keys::COMMAND)) {
        incoming.kind = Command;
        const QVariantMap call = body.value(keys::COMMAND).toMap();
        incoming.command = commandOf(message, call);
        incoming.hasParams = call.value(keys::COMMAND_PARAMS).userType() == QMetaType::QVariantMap;
    }
    return incoming;
}

} // namespace bus
