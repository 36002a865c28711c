#include "values/objectrecord.h"

#include <jsonreader.h>
#include <jsonwriter.h>

namespace bus
{

namespace
{
// Small objects must not come for free: headers, hash node and allocator, measured roughly.
constexpr qint64 FIXED_COST = 256;
constexpr int FIXED_TEXT = 128; // bytes of the keys around a content
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

qint64 ObjectRecord::cost() const
{
    const qint64 characters = head.name.size() + head.publisher.size() + head.uid.size();
    return FIXED_COST + characters * qint64(sizeof(QChar)) + contentJson.size();
}

} // namespace bus
