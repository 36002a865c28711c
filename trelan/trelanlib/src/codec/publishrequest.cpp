#include "codec/publishrequest.h"

#include "trelanframe.h"
#include "trelanmessage.h"
#include "trelanobject.h"
#include "values/uids.h"

#include <envelopewriter.h>
#include <frameformat.h>
#include <jsonwriter.h>
#include <scratch.h>
#include <wirekeys.h>

namespace bus::requests
{

namespace
{

/// The content goes in as \a contentJson, or is written now if that is empty.
QByteArray lightFrame(const TrelanObject &object, const QByteArray &contentJson)
{
    static thread_local QByteArray _text;
    const Scratch scratch(_text);
    EnvelopeWriter writer(_text);
    writer.begin(keys::DATA);
    if (contentJson.isEmpty())
        writer.map(keys::OBJECT_CONTENT, object.content());
    else
        writer.raw(keys::OBJECT_CONTENT, contentJson);
    return writer.time(keys::TIME, object.timestamp().toMSecsSinceEpoch())
        .text(keys::OBJECT_NAME, object.name())
        .number(keys::OBJECT_OPTIONS, int(object.options()))
        .text(keys::OBJECT_PUBLISHER, object.publisher())
        .text(keys::UID, object.uid())
        .end()
        .text(keys::OPERATION, operations::PUBLISH)
        .frame(frameformat::REQUEST);
}

} // namespace

QByteArray publish(TrelanObject object, TrelanTransport::Coding coding, Uid uid)
{
    static thread_local QByteArray _contentJson; // written once, for the id and for the frame
    const Scratch scratch(_contentJson);
    if (object.uid().isEmpty()) {
        const bool isExact = json::appendCompact(_contentJson, object.content());
        const auto make = [&object] { return uids::of(object, _contentJson); };
        object.setUid(uid == Unique ? uids::uniqueOf(make) : make());
        if (!isExact)
            _contentJson.resize(0); // the frame is to say more than the id is made of
    }
    if (!object.timestamp().isValid())
        object.setDt(QDateTime::currentDateTime());
    if (coding == TrelanTransport::Light)
        return lightFrame(object, _contentJson);
    return TrelanFrame::encode(TrelanFrame::Request,
                               TrelanFrame::request(operations::PUBLISH, object.toVariantMap()),
                               coding);
}

QByteArray message(const TrelanMessage &message, qint64 limit)
{
    static thread_local QByteArray _text;
    const Scratch scratch(_text);
    EnvelopeWriter writer(_text);
    writer.begin(keys::DATA).time(keys::TIME, message.timestamp().toMSecsSinceEpoch());
    if (limit > 0)
        writer.number(keys::MESSAGE_LIMIT, limit);
    return writer.text(keys::MESSAGE_TEXT, message.message())
        .number(keys::MESSAGE_OPTIONS, int(message.options()))
        .text(keys::MESSAGE_RECIEVER, message.reciever())
        .text(keys::MESSAGE_SENDER, message.sender())
        .text(keys::UID, message.uid())
        .end()
        .text(keys::OPERATION, operations::SEND_MESSAGE)
        .frame(frameformat::REQUEST);
}

} // namespace bus::requests
