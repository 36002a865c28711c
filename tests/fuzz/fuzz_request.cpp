#include "qtleaks.h"
#include "request/busrequest.h"

#include <jsonwriter.h>

#include <QtCore/QDateTime>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

using namespace bus;

namespace
{

BusRequest parse(const QByteArray &json)
{
    constexpr qint64 LIMIT = 16 * 1024 * 1024;
    return BusRequest::parse(qCompress(json, 0).toBase64(), LIMIT);
}

int countKeys(const QJsonValue &value)
{
    int keys = 0;
    const QJsonObject object = value.toObject();
    for (const QJsonValue member : object)
        keys += 1 + countKeys(member);
    const QJsonArray array = value.toArray();
    for (const QJsonValue entry : array)
        keys += countKeys(entry);
    return keys;
}

/// Outside of strings, where each stands behind a key.
int countColons(const QByteArray &json)
{
    int colons = 0;
    bool isInString = false;
    for (int i = 0; i < json.size(); ++i) {
        if (isInString && json.at(i) == '\\')
            ++i;
        else if (json.at(i) == '"')
            isInString = !isInString;
        else
            colons += int(!isInString && json.at(i) == ':');
    }
    return colons;
}

/// Whether there is a mark of byte order. Qt drops it in front of a string that has no escape: the
/// key may be there twice then, and Qt does not read what it has written.
bool hasMark(const QByteArray &json)
{
    return json.contains("\xef\xbb\xbf") || json.toLower().contains("ufeff");
}

/// What goes on to others as it stands has to be sound, for clients that read it with Qt.
QByteArray content(const BusRequest &request)
{
    const QByteArray json = request.record.contentJson;
    QJsonParseError error {};
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject() || json.contains('\n') ||
        (!hasMark(json) && countKeys(document.object()) != countColons(json)))
        abort();
    // A whole number that no double holds is left as it was, or written as Qt does.
    return json::compact(document.object().toVariantMap());
}

/// A request without a time gets that of the clock, which is \a now or later.
bool sameHead(const ObjectHead &a, const ObjectHead &b, qint64 now)
{
    return a.name == b.name && a.uid == b.uid && qMin(a.time, now) == qMin(b.time, now) &&
           a.options == b.options;
}

bool isRead(const BusRequest &request)
{
    return !request.fault.description().startsWith(QLatin1String("payload is no JSON"));
}

} // namespace

/// The input is the data of a publish, which is read as usual requests are, and as requests are
/// that only Qt can make a map of. The usual way does not look into what means nothing, and may let
/// more through. Whatever Qt writes is read.
extern "C" int LLVMFuzzerTestOneInput(const quint8 *data, size_t size)
{
    const QByteArray text(reinterpret_cast<const char *>(data), int(size));
    const QJsonDocument document = QJsonDocument::fromJson(text);
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    const BusRequest usual = parse("{\"operation\":\"pub\",\"data\":" + text + '}');
    const BusRequest unusual =
        parse("{\"operation\":\"pub\",\"x\":100000000000000000000,\"data\":" + text + '}');
    const bool isPublish = usual.operation == BusRequest::Publish;
    if (isPublish)
        content(usual);
    constexpr int DEEPEST = 1000;
    if (!document.isObject() || text.count('[') + text.count('{') > DEEPEST)
        return 0;
    for (const auto format : {QJsonDocument::Compact, QJsonDocument::Indented}) {
        if (!hasMark(text) &&
            !isRead(parse("{\"operation\":\"pub\",\"data\":" + document.toJson(format) + '}')))
            abort();
    }
    if (unusual.operation == BusRequest::Publish &&
        (!isPublish || (!hasMark(text) && content(usual) != content(unusual)) ||
         !sameHead(usual.record.head, unusual.record.head, now)))
        abort();
    return 0;
}
