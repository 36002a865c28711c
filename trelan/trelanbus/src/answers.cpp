#include "answers.h"

#include <base64.h>
#include <envelopewriter.h>
#include <frameformat.h>
#include <jsonwriter.h>
#include <trelanframe.h>
#include <wirekeys.h>
#include <zstream.h>

namespace bus::answers
{

namespace
{

constexpr int FIXED_TEXT = 128; // bytes of the keys around the data

bool isLight(const TrelanBusSettings &settings)
{
    return settings.coding() == TrelanTransport::Light;
}

/// The frame around a compressed envelope.
QByteArray frame(const QString &word, const QByteArray &bytes, const TrelanBusSettings &settings)
{
    const int size = base64::encodedSize(bytes.size());
    if (size > settings.maxFrameSize()) {
        const QString fault = QStringLiteral("an answer of %1 bytes is above the limit of %2")
                                  .arg(size)
                                  .arg(settings.maxFrameSize());
        return status(word, {TrelanError::IncorrectRequestSize, fault}, settings);
    }
    QByteArray frame = frameformat::lines(frameformat::REPLY, size);
    base64::append(frame, bytes);
    return frame;
}

QByteArray light(const QString &word, const QByteArray &json, const TrelanBusSettings &settings)
{
    QByteArray text;
    text.reserve(json.size() + FIXED_TEXT + 2 * word.size());
    EnvelopeWriter(text).raw(keys::DATA, json).text(keys::OPERATION, word).success().finish();
    QByteArray bytes;
    zstream::storeOrCompress(text, bytes);
    return frame(word, bytes, settings);
}

QByteArray classic(const QString &word, const QVariantMap &data, const TrelanBusSettings &settings)
{
    const QVariantMap envelope = TrelanFrame::reply(word, TrelanError(), data);
    return frame(word, zstream::compress(json::indented(envelope)), settings);
}

QByteArray jsonByName(const QVector<ObjectRecord> &records)
{
    QByteArray text("{");
    for (const ObjectRecord &record : records) {
        if (text.size() > 1)
            text += ',';
        json::appendString(text, record.head.name);
        text += ':' + record.toJson();
    }
    return text + '}';
}

QVariantMap mapByName(const QVector<ObjectRecord> &records)
{
    QVariantMap map;
    for (const ObjectRecord &record : records)
        map.insert(record.head.name, record.toObject().toVariantMap());
    return map;
}

} // namespace

QByteArray status(const QString &word, const TrelanError &error, const TrelanBusSettings &settings)
{
    return TrelanFrame::encode(TrelanFrame::Reply, TrelanFrame::reply(word, error),
                               settings.coding());
}

QByteArray object(const QString &word, const ObjectRecord &record,
                  const TrelanBusSettings &settings)
{
    return isLight(settings) ? light(word, record.toJson(), settings)
                             : classic(word, record.toObject().toVariantMap(), settings);
}

QByteArray objects(const QString &word, const QVector<ObjectRecord> &records,
                   const TrelanBusSettings &settings)
{
    return isLight(settings) ? light(word, jsonByName(records), settings)
                             : classic(word, mapByName(records), settings);
}

QByteArray data(const QString &word, const QVariantMap &data, const TrelanBusSettings &settings)
{
    return isLight(settings) ? light(word, json::compact(data), settings)
                             : classic(word, data, settings);
}

} // namespace bus::answers
