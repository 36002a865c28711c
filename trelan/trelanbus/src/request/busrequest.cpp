#include "request/busrequest.h"

#include "request/buspayload.h"
#include "values/busnames.h"

#include <jsonwriter.h>
#include <trelanframe.h>
#include <wirekeys.h>

#include <QtCore/QHash>
#include <QtCore/QVariantMap>

#include <cmath>
#include <initializer_list>

namespace bus
{

namespace
{

// An answer has one level more around a content than a publish has, and JSON parsers stop at 1024
// levels: an object nested deeper could be published, but not be loaded.
constexpr int MAX_CONTENT_DEPTH = 1000;

// No operation has a longer name. The reply repeats the word, which must not take long to encode.
constexpr int MAX_WORD = 64;

// The marker behind the values repeats the wildcards, and waits in the queue of the client.
constexpr int MAX_TOLD = 65536;

constexpr int MAX_LIMIT = 60 * 60 * 1000;

const QString LIST_SEPARATOR = QStringLiteral("::");

TrelanError dataFault(const QString &description)
{
    return {TrelanError::IncorrectRequestData, description};
}

bool isText(const QVariant &value)
{
    return value.userType() == QMetaType::QString;
}

bool isUid(const QVariant &value)
{
    return isText(value) && value.toString().size() <= payload::MAX_UID;
}

bool isNumber(const QVariant &value)
{
    const int type = value.userType();
    return type == QMetaType::Double || type == QMetaType::LongLong || type == QMetaType::Int;
}

bool isLimit(const QVariant &value)
{
    const double limit = value.toDouble();
    return isNumber(value) && limit >= 1 && limit <= MAX_LIMIT && limit == std::floor(limit);
}

/// Takes the text under \a key, or sets the fault, also if there is no such key.
bool takeText(const QVariantMap &data, const QString &key, QString &text, BusRequest &request)
{
    const QVariant value = data.value(key);
    if (!isText(value)) {
        request.fault = dataFault(QStringLiteral("\"%1\" has to be a string").arg(key));
        return false;
    }
    text = value.toString();
    return true;
}

// Notifications and answers may be indented, which takes a line for each value.
constexpr qint64 MAX_INDENTED = 64 * 1024 * 1024;

bool isTruth(const QVariant &value)
{
    return value.userType() == QMetaType::Bool;
}

bool isTrue(const QVariant &value)
{
    return isTruth(value) && value.toBool();
}

bool parseHandshake(const QVariantMap &data, BusRequest &request)
{
    // The keys are not checked, since clients may say there what they like.
    request.prompt = data.value(keys::PROMPT).toBool();
    request.transient = isTrue(data.value(keys::TRANSIENT));
    request.features = isTrue(data.value(keys::FEATURES));
    return takeText(data, keys::CLIENT_NAME, request.name, request);
}

bool isObject(const QVariant &value)
{
    return value.userType() == QMetaType::QVariantMap;
}

bool isTime(const QVariant &value)
{
    return isText(value) || isNumber(value);
}

/// The kind of a value that may be missing.
struct Type
{
    QString key;
    const char *text;
    bool (*fits)(const QVariant &value);
};

const Type UID {keys::UID, "a string of up to 1024 characters", isUid};
const Type TIME {keys::TIME, "a string of milliseconds", isTime};

/// Checks the kind of values that may be missing.
bool checkTypes(const QVariantMap &data, std::initializer_list<Type> types, BusRequest &request)
{
    for (const Type &type : types) {
        const auto value = data.constFind(type.key);
        if (value == data.constEnd() || type.fits(*value))
            continue;
        request.fault = dataFault(
            QStringLiteral("\"%1\" has to be %2").arg(type.key, QLatin1String(type.text)));
        return false;
    }
    return true;
}

/// What is wrong with the content of an object, for people; empty if nothing is.
QString contentFault(const ObjectRecord &record, const payload::Measure &measure)
{
    const QString &name = record.head.name;
    const qint64 indented = record.contentJson.size() + measure.indentation;
    if (indented > MAX_INDENTED) {
        return QStringLiteral("content of %1 takes %2 bytes with its indentation, more than %3")
            .arg(names::quoted(name))
            .arg(indented)
            .arg(MAX_INDENTED);
    }
    if (measure.depth > MAX_CONTENT_DEPTH) {
        return QStringLiteral("content of %1 is nested %2 levels deep, more than %3")
            .arg(names::quoted(name))
            .arg(measure.depth)
            .arg(MAX_CONTENT_DEPTH);
    }
    return {};
}

/// Checks the name and the content of an object; all other values are sound.
bool checkPublish(const payload::Measure &measure, BusRequest &request)
{
    QString fault = names::objectNameFault(request.record.head.name);
    if (fault.isEmpty())
        fault = contentFault(request.record, measure);
    if (!fault.isEmpty())
        request.fault = dataFault(fault);
    return fault.isEmpty();
}

bool parsePublish(const QVariantMap &data, BusRequest &request)
{
    ObjectHead &head = request.record.head;
    if (!takeText(data, keys::OBJECT_NAME, head.name, request) ||
        !checkTypes(data,
                    {UID,
                     TIME,
                     {keys::OBJECT_OPTIONS, "a number", isNumber},
                     {keys::OBJECT_CONTENT, "an object", isObject}},
                    request))
        return false;
    head.uid = data.value(keys::UID).toString();
    const QString time = data.value(keys::TIME).toString();
    head.time = time.isEmpty() ? QDateTime::currentMSecsSinceEpoch() : time.toLongLong(nullptr, 10);
    head.options = TrelanObject::Options(QFlag(data.value(keys::OBJECT_OPTIONS).toInt()));
    request.record.contentJson = json::exact(data.value(keys::OBJECT_CONTENT).toMap());
    request.record.contentJson.squeeze();
    return true;
}

/// A publish that was read already, except for the checks of its name and its content.
BusRequest takePublish(const payload::Request &decoded)
{
    BusRequest request;
    request.word = operations::PUBLISH;
    request.record = decoded.record;
    if (!decoded.hasTime)
        request.record.head.time = QDateTime::currentMSecsSinceEpoch();
    if (checkPublish(decoded.measure, request))
        request.operation = BusRequest::Publish;
    return request;
}

bool parseRemove(const QVariantMap &data, BusRequest &request)
{
    const QVariant objects = data.value(keys::OBJECTS);
    const QVariantList list = objects.toList();
    bool fits = objects.userType() == QMetaType::QVariantList;
    for (const QVariant &entry : list) {
        fits = fits && isText(entry);
        request.names.append(entry.toString());
    }
    if (!fits)
        request.fault = dataFault(QStringLiteral("\"objects\" has to be an array of strings"));
    return fits;
}

bool parseLoadObject(const QVariantMap &data, BusRequest &request)
{
    return takeText(data, keys::OBJECT_NAME, request.name, request);
}

bool parseLoadObjects(const QVariantMap &data, BusRequest &request)
{
    return takeText(data, keys::WILDCARD, request.name, request);
}

/// Takes either one wildcard under "wc", which may not be empty, or a list under "wcs", which may.
bool takeWildcards(const QVariantMap &data, BusRequest &request)
{
    const bool one = data.contains(keys::WILDCARD);
    if (one == data.contains(keys::WILDCARDS)) {
        request.fault = dataFault(QStringLiteral("either \"wc\" or \"wcs\" has to be given"));
        return false;
    }
    QString text;
    if (!takeText(data, one ? QString(keys::WILDCARD) : QString(keys::WILDCARDS), text, request))
        return false;
    request.wildcards = text;
    if (one)
        request.names.append(text);
    else if (!text.isEmpty())
        request.names = text.split(LIST_SEPARATOR);
    if (one && text.isEmpty()) {
        request.fault = dataFault(names::wildcardFault(text));
        return false;
    }
    return true;
}

/// What is wrong with a subscription that is to be told, for people; empty if nothing is.
QString toldFault(const BusRequest &request)
{
    if (!request.now)
        return QStringLiteral("\"told\" goes with \"now\" only");
    if (request.wildcards.size() > MAX_TOLD) {
        return QStringLiteral("wildcards of %1 characters are longer than %2 with \"told\"")
            .arg(request.wildcards.size())
            .arg(MAX_TOLD);
    }
    return {};
}

bool parseSubscribe(const QVariantMap &data, BusRequest &request)
{
    if (!takeWildcards(data, request) || !checkTypes(data,
                                                     {{keys::NOW, "true or false", isTruth},
                                                      {keys::TOLD, "true or false", isTruth},
                                                      {keys::REMOVALS, "true or false", isTruth}},
                                                     request))
        return false;
    request.now = data.value(keys::NOW).toBool();
    request.told = data.value(keys::TOLD).toBool();
    request.removals = data.value(keys::REMOVALS).toBool();
    const QString told = request.told ? toldFault(request) : QString();
    if (!told.isEmpty()) {
        request.fault = dataFault(told);
        return false;
    }
    for (const QString &wildcard : std::as_const(request.names)) {
        const QString fault = names::wildcardFault(wildcard);
        if (!fault.isEmpty()) {
            request.fault = dataFault(fault);
            return false;
        }
    }
    return true;
}

bool parseClients(const QVariantMap &, BusRequest &)
{
    return true;
}

bool parseSendMessage(const QVariantMap &data, BusRequest &request)
{
    if (!takeText(data, keys::MESSAGE_RECIEVER, request.name, request) ||
        !checkTypes(data,
                    {{keys::MESSAGE_TEXT, "a string", isText},
                     UID,
                     TIME,
                     {keys::MESSAGE_OPTIONS, "a number", isNumber},
                     {keys::MESSAGE_LIMIT, "a whole number from 1 to 3600000", isLimit}},
                    request))
        return false;
    if (request.name.isEmpty()) {
        request.fault = dataFault(QStringLiteral("a message without a receiver"));
        return false;
    }
    const QString fault = names::clientNameFault(request.name);
    if (!fault.isEmpty()) {
        request.fault = dataFault(QStringLiteral("the receiver: %1").arg(fault));
        return false;
    }
    request.limit = data.value(keys::MESSAGE_LIMIT).toLongLong();
    request.message = TrelanMessage::fromVariantMap(data);
    if (data.value(keys::TIME).toString().isEmpty())
        request.message->setDt(QDateTime::currentDateTime());
    return true;
}

struct Parser
{
    BusRequest::Operation operation;
    bool (*parse)(const QVariantMap &data, BusRequest &request);
};

const QHash<QString, Parser> PARSERS {
    {operations::HANDSHAKE, {BusRequest::Handshake, parseHandshake}},
    {operations::PUBLISH, {BusRequest::Publish, parsePublish}},
    {operations::REMOVE, {BusRequest::Remove, parseRemove}},
    {operations::LOAD_OBJECT, {BusRequest::LoadObject, parseLoadObject}},
    {operations::LOAD_OBJECTS, {BusRequest::LoadObjects, parseLoadObjects}},
    {operations::SUBSCRIBE, {BusRequest::Subscribe, parseSubscribe}},
    // Wildcards are not checked here: after a failure clients unsubscribe whole lists, the refused
    // wildcard included.
    {operations::UNSUBSCRIBE, {BusRequest::Unsubscribe, takeWildcards}},
    {operations::SEND_MESSAGE, {BusRequest::SendMessage, parseSendMessage}},
    {operations::CLIENTS, {BusRequest::Clients, parseClients}},
};

QString payloadFaultText(const payload::Request &payload, qint64 maxInflatedSize)
{
    switch (payload.fault) {
    case TrelanFrame::NotInflatable:
        return QStringLiteral("payload is no base64 text of compressed data");
    case TrelanFrame::TooLarge:
        return QStringLiteral("payload inflates to more than %1 bytes").arg(maxInflatedSize);
    case TrelanFrame::NotJson:
        return QStringLiteral("payload is no JSON: %1").arg(payload.errorText);
    case TrelanFrame::NoFault:
        break;
    }
    return {};
}

} // namespace

BusRequest BusRequest::parse(const QByteArray &payload, qint64 maxInflatedSize)
{
    BusRequest request;
    const payload::Request decoded = payload::decodeRequest(payload, maxInflatedSize);
    if (decoded.fault != TrelanFrame::NoFault) {
        request.payloadFault = decoded.fault;
        request.fault = dataFault(payloadFaultText(decoded, maxInflatedSize));
        return request;
    }
    if (decoded.isPublish)
        return takePublish(decoded);
    const QVariant word = decoded.envelope.value(keys::OPERATION);
    const QVariant data = decoded.envelope.value(keys::DATA);
    if (!isText(word)) {
        request.fault = dataFault(
            QStringLiteral("payload has to be an object with a string under \"operation\""));
        return request;
    }
    request.word = word.toString().left(MAX_WORD);
    const auto parser = PARSERS.constFind(request.word);
    if (parser == PARSERS.constEnd()) {
        request.fault = TrelanError(TrelanError::UnsupportedRequest);
        return request;
    }
    if (data.isValid() && data.userType() != QMetaType::QVariantMap) {
        request.fault = dataFault(QStringLiteral("\"data\" has to be an object"));
        return request;
    }
    if (!parser->parse(data.toMap(), request))
        return request;
    if (parser->operation != BusRequest::Publish || checkPublish(decoded.measure, request))
        request.operation = parser->operation;
    return request;
}

} // namespace bus
