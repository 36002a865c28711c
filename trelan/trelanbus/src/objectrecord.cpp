#include "objectrecord.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

namespace bus
{

namespace
{
// Headers, hash node and allocator, measured roughly: small objects must not come for free.
constexpr qint64 FIXED_COST = 256;
} // namespace

ObjectRecord ObjectRecord::fromObject(const TrelanObject &object)
{
    ObjectRecord record;
    record.head = object;
    record.head.setContent({});
    record.contentJson =
        QJsonDocument::fromVariant(object.content()).toJson(QJsonDocument::Compact);
    return record;
}

TrelanObject ObjectRecord::toObject() const
{
    TrelanObject object = head;
    object.setContent(QJsonDocument::fromJson(contentJson).object().toVariantMap());
    return object;
}

TrelanMessage ObjectRecord::toNotification() const
{
    TrelanMessage message = toObject().toMessage(QString());
    if (!deliveryUid.isEmpty())
        message.setUid(deliveryUid);
    return message;
}

qint64 ObjectRecord::cost() const
{
    const qint64 characters = head.name().size() + head.publisher().size() + head.uid().size();
    return FIXED_COST + characters * qint64(sizeof(QChar)) + contentJson.size();
}

} // namespace bus
