#include "qtleaks.h"
#include "request/busrequest.h"
#include "request/jsontext.h"

#include <jsonwriter.h>

#include <QtCore/QDateTime>
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

/// What goes on to others as it stands has to be sound.
QByteArray content(const BusRequest &request)
{
    const QByteArray json = request.record.contentJson;
    QJsonParseError error {};
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    if (error.error != QJsonParseError::NoError || !document.isObject() ||
        !jsontext::repeatedKey(json).isNull() || json.contains('\n'))
        abort();
    // Integers that no double has are as they were, or as Qt writes them.
    return json::compact(document.object().toVariantMap());
}

/// A time that was not sent is that of the clock, from \a now on.
bool sameHead(const ObjectHead &a, const ObjectHead &b, qint64 now)
{
    return a.name == b.name && a.uid == b.uid && qMin(a.time, now) == qMin(b.time, now) &&
           a.options == b.options;
}

} // namespace

/// The input is the data of a publish, which is read as usual requests are, and as others are. The
/// usual way does not look into what means nothing, and may let more through.
extern "C" int LLVMFuzzerTestOneInput(const quint8 *data, size_t size)
{
    const QByteArray text(reinterpret_cast<const char *>(data), int(size));
    const bool isObject = QJsonDocument::fromJson(text).isObject();
    const qint64 now = QDateTime::currentMSecsSinceEpoch();
    const BusRequest usual = parse("{\"operation\":\"pub\",\"data\":" + text + '}');
    const BusRequest unusual = parse("{\"operation\":\"pub\",\"x\":1,\"data\":" + text + '}');
    const bool isPublish = usual.operation == BusRequest::Publish;
    if (isPublish)
        content(usual);
    if (!isObject || unusual.operation != BusRequest::Publish)
        return 0;
    if (!isPublish || content(usual) != content(unusual) ||
        !sameHead(usual.record.head, unusual.record.head, now))
        abort();
    return 0;
}
