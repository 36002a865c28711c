#include "codec/publishrequest.h"

#include "trelanobject.h"

#include <envelopewriter.h>
#include <frameformat.h>
#include <scratch.h>
#include <wirekeys.h>

namespace bus::requests
{

QByteArray publish(const TrelanObject &object)
{
    static thread_local QByteArray _text;
    const Scratch scratch(_text);
    return EnvelopeWriter(_text)
        .begin(keys::DATA)
        .map(keys::OBJECT_CONTENT, object.content())
        .time(keys::TIME, object.timestamp().toMSecsSinceEpoch())
        .text(keys::OBJECT_NAME, object.name())
        .number(keys::OBJECT_OPTIONS, int(object.options()))
        .text(keys::OBJECT_PUBLISHER, object.publisher())
        .text(keys::UID, object.uid())
        .end()
        .text(keys::OPERATION, QStringLiteral("pub"))
        .frame(frameformat::REQUEST);
}

} // namespace bus::requests
