#include "codec/publishrequest.h"

#include "trelanframe.h"
#include "trelanobject.h"

#include <jsonwriter.h>
#include <scratch.h>

namespace bus::requests
{

QByteArray publish(const TrelanObject &object)
{
    static thread_local QByteArray _text;
    const Scratch scratch(_text);
    _text += R"({"data":{"cnt":)";
    json::appendCompact(_text, object.content());
    _text += R"(,"dt":")" + QByteArray::number(object.timestamp().toMSecsSinceEpoch());
    _text += R"(","nm":)";
    json::appendString(_text, object.name());
    _text += R"(,"opt":)" + QByteArray::number(int(object.options()));
    _text += R"(,"p":)";
    json::appendString(_text, object.publisher());
    _text += R"(,"uid":)";
    json::appendString(_text, object.uid());
    _text += R"(},"operation":"pub"})";
    return TrelanFrame::encodeText(TrelanFrame::Request, _text);
}

} // namespace bus::requests
