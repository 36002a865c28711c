#include "values/objectrecord.h"

#include <envelopewriter.h>
#include <jsonreader.h>
#include <wirekeys.h>

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
    EnvelopeWriter(text)
        .raw(keys::OBJECT_CONTENT, contentJson)
        .time(keys::TIME, head.time)
        .text(keys::OBJECT_NAME, head.name)
        .number(keys::OBJECT_OPTIONS, int(head.options))
        .text(keys::OBJECT_PUBLISHER, head.publisher)
        .text(keys::UID, head.uid)
        .finish();
    return text;
}

qint64 ObjectRecord::cost() const
{
    const qint64 characters = head.name.size() + head.publisher.size() + head.uid.size();
    return FIXED_COST + characters * qint64(sizeof(QChar)) + contentJson.size();
}

} // namespace bus
