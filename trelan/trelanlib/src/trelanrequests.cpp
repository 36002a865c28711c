#include "trelanrequests.h"

#include "trelanbase64.h"
#include "trelanframe.h"
#include "trelanjson.h"
#include "trelanobject.h"

namespace bus::requests
{

QByteArray publish(const TrelanObject &object)
{
    QByteArray text(R"({"data":{"cnt":)");
    text += json::compact(object.content());
    text += R"(,"dt":")" + QByteArray::number(object.timestamp().toMSecsSinceEpoch());
    text += R"(","nm":)";
    json::appendString(text, object.name());
    text += R"(,"opt":)" + QByteArray::number(int(object.options()));
    text += R"(,"p":)";
    json::appendString(text, object.publisher());
    text += R"(,"uid":)";
    json::appendString(text, object.uid());
    text += R"(},"operation":"pub"})";
    QByteArray payload;
    base64::append(payload, TrelanFrame::compressLightly(text));
    return payload;
}

} // namespace bus::requests
