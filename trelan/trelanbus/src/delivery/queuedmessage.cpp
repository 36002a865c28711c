#include "delivery/queuedmessage.h"

#include <QtCore/QStringBuilder>

namespace bus
{

namespace
{
// Small messages must not come for free: headers and allocator, measured roughly.
constexpr qint64 FIXED_COST = 256;
} // namespace

QueuedMessage::QueuedMessage(const MessageBody::Ref &sharedBody, const QString &toReciever,
                             const QString &messageUid)
    : body(sharedBody)
    , reciever(toReciever)
{
    setUid(messageUid);
}

void QueuedMessage::setUid(const QString &newUid)
{
    uid = newUid;
    key = keyOf(body->sender(), reciever, uid);
}

QString QueuedMessage::keyOf(const QString &sender, const QString &reciever, const QString &uid)
{
    return sender % QLatin1Char('.') % reciever % QLatin1Char('.') % uid;
}

qint64 QueuedMessage::cost() const
{
    const qint64 characters = body->textSize() + reciever.size() + uid.size() + key.size();
    return FIXED_COST + characters * qint64(sizeof(QChar));
}

QByteArray QueuedMessage::frame(TrelanTransport::Coding coding) const
{
    return body->frame(reciever, uid, coding);
}

} // namespace bus
