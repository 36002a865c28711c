#include "busrequest.h"

#include "busnames.h"
#include "buspayload.h"

#include <trelanframe.h>

#include <QtCore/QHash>
#include <QtCore/QVariantMap>

#include <initializer_list>

namespace bus
{

namespace
{

// Answers wrap a content into one level more than a publish did, and JSON parsers stop at 1024
// levels: an object nested deeper could be published, but not be loaded back.
constexpr int MAX_CONTENT_DEPTH = 1000;

// Of a value or a message; what acknowledges it repeats it.
constexpr int MAX_UID = 1024;

// Longer than any there is. The reply repeats the word, which must not take long to encode.
constexpr int MAX_WORD = 64;

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
    return isText(value) && value.toString().size() <= MAX_UID;
}

bool isNumber(const QVariant &value)
{
    const int type = value.userType();
    return type == QMetaType::Double || type == QMetaType::LongLong || type == QMetaType::Int;
}

/// Takes the text under \a key, or sets the fault. Absent is not text.
bool takeText(const QVariantMap &data, const char *key, QString &text, BusRequest &request)
{
    const QVariant value = data.value(QLatin1String(key));
    if (!isText(value)) {
        request.fault =
            dataFault(QStringLiteral("\"%1\" has to be a string").arg(QLatin1String(key)));
        return false;
    }
    text = value.toString();
    return true;
}

// Notifications and answers are indented, which makes a line of each value.
constexpr qint64 MAX_INDENTED = 64 * 1024 * 1024;
constexpr int INDENTATION = 4;
constexpr int OUTER_LEVELS = 3; // around a content, in what is sent

/// Levels of nesting of a JSON text, without taking it apart, and its size when it is indented.
int jsonDepth(const QByteArray &json, qint64 &indented)
{
    indented = json.size();
    int depth = 0;
    int deepest = 0;
    bool inString = false;
    for (int i = 0; i < json.size(); ++i) {
        const char c = json.at(i);
        if (inString) {
            if (c == '\\')
                ++i;
            else if (c == '"')
                inString = false;
        } else if (c == '"') {
            inString = true;
        } else if (c == '{' || c == '[') {
            deepest = qMax(deepest, ++depth);
            indented += 1 + INDENTATION * (depth + OUTER_LEVELS);
        } else if (c == '}' || c == ']') {
            indented += 1 + INDENTATION * (depth + OUTER_LEVELS);
            --depth;
        } else if (c == ',') {
            indented += 1 + INDENTATION * (depth + OUTER_LEVELS);
        }
    }
    return deepest;
}

bool parseHandshake(const QVariantMap &data, BusRequest &request)
{
    // Not checked: clients may say there what they like.
    request.prompt = data.value(QStringLiteral("prompt")).toBool();
    return takeText(data, "name", request.name, request);
}

bool isObject(const QVariant &value)
{
    return value.userType() == QMetaType::QVariantMap;
}

bool isTruth(const QVariant &value)
{
    return value.userType() == QMetaType::Bool;
}

bool isTime(const QVariant &value)
{
    return isText(value) || isNumber(value);
}

/// What a value has to be if it is there.
struct Type
{
    const char *key;
    const char *text;
    bool (*fits)(const QVariant &value);
};

constexpr Type UID {"uid", "a string of up to 1024 characters", isUid};
constexpr Type TIME {"dt", "a string of milliseconds", isTime};

/// The values that may be missing, but not be of another kind.
bool checkTypes(const QVariantMap &data, std::initializer_list<Type> types, BusRequest &request)
{
    for (const Type &type : types) {
        const auto value = data.constFind(QLatin1String(type.key));
        if (value == data.constEnd() || type.fits(*value))
            continue;
        request.fault = dataFault(QStringLiteral("\"%1\" has to be %2")
                                      .arg(QLatin1String(type.key), QLatin1String(type.text)));
        return false;
    }
    return true;
}

bool parsePublish(const QVariantMap &data, BusRequest &request)
{
    QString name;
    if (!takeText(data, "nm", name, request) ||
        !checkTypes(data,
                    {UID, TIME, {"opt", "a number", isNumber}, {"cnt", "an object", isObject}},
                    request))
        return false;
    const QString fault = names::objectNameFault(name);
    if (!fault.isEmpty()) {
        request.fault = dataFault(fault);
        return false;
    }

    TrelanObject object = TrelanObject::fromVariantMap(data);
    if (data.value(QStringLiteral("dt")).toString().isEmpty())
        object.setDt(QDateTime::currentDateTime());
    request.record = ObjectRecord::fromObject(object);
    qint64 indented = 0;
    const int depth = jsonDepth(request.record.contentJson, indented);
    if (indented > MAX_INDENTED) {
        request.fault =
            dataFault(QStringLiteral("content of %1 takes %2 bytes with its indentation, "
                                     "more than %3")
                          .arg(names::quoted(name))
                          .arg(indented)
                          .arg(MAX_INDENTED));
        return false;
    }
    if (depth > MAX_CONTENT_DEPTH) {
        request.fault =
            dataFault(QStringLiteral("content of %1 is nested %2 levels deep, more than %3")
                          .arg(names::quoted(name))
                          .arg(depth)
                          .arg(MAX_CONTENT_DEPTH));
        return false;
    }
    return true;
}

bool parseRemove(const QVariantMap &data, BusRequest &request)
{
    const QVariant objects = data.value(QStringLiteral("objects"));
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
    return takeText(data, "nm", request.name, request);
}

bool parseLoadObjects(const QVariantMap &data, BusRequest &request)
{
    return takeText(data, "wc", request.name, request);
}

/// Either one wildcard under "wc", which may not be empty, or a list under "wcs", which may.
bool takeWildcards(const QVariantMap &data, BusRequest &request)
{
    const bool one = data.contains(QStringLiteral("wc"));
    if (one == data.contains(QStringLiteral("wcs"))) {
        request.fault = dataFault(QStringLiteral("either \"wc\" or \"wcs\" has to be given"));
        return false;
    }
    QString text;
    if (!takeText(data, one ? "wc" : "wcs", text, request))
        return false;
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

bool parseSubscribe(const QVariantMap &data, BusRequest &request)
{
    if (!takeWildcards(data, request) ||
        !checkTypes(data, {{"now", "true or false", isTruth}}, request))
        return false;
    request.now = data.value(QStringLiteral("now")).toBool();
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
    if (!takeText(data, "r", request.name, request) ||
        !checkTypes(data, {{"msg", "a string", isText}, UID, TIME, {"ops", "a number", isNumber}},
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
    request.message = TrelanMessage::fromVariantMap(data);
    if (data.value(QStringLiteral("dt")).toString().isEmpty())
        request.message.setDt(QDateTime::currentDateTime());
    return true;
}

struct Parser
{
    BusRequest::Operation operation;
    bool (*parse)(const QVariantMap &data, BusRequest &request);
};

const QHash<QString, Parser> PARSERS {
    {QStringLiteral("handshake"), {BusRequest::Handshake, parseHandshake}},
    {QStringLiteral("pub"), {BusRequest::Publish, parsePublish}},
    {QStringLiteral("rm"), {BusRequest::Remove, parseRemove}},
    {QStringLiteral("loadObject"), {BusRequest::LoadObject, parseLoadObject}},
    {QStringLiteral("loadObjects"), {BusRequest::LoadObjects, parseLoadObjects}},
    {QStringLiteral("sub"), {BusRequest::Subscribe, parseSubscribe}},
    // No text is too long or too odd not to be subscribed: after a failure clients unsubscribe
    // whole lists, the refused entry included.
    {QStringLiteral("unsub"), {BusRequest::Unsubscribe, takeWildcards}},
    {QStringLiteral("sendMessage"), {BusRequest::SendMessage, parseSendMessage}},
    {QStringLiteral("clients"), {BusRequest::Clients, parseClients}},
};

QString payloadFaultText(const TrelanFrame::Payload &payload, qint64 maxInflatedSize)
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
    const TrelanFrame::Payload decoded = payload::decode(payload, maxInflatedSize);
    if (decoded.fault != TrelanFrame::NoFault) {
        request.payloadFault = decoded.fault;
        request.fault = dataFault(payloadFaultText(decoded, maxInflatedSize));
        return request;
    }
    const QVariant word = decoded.envelope.value(QStringLiteral("operation"));
    const QVariant data = decoded.envelope.value(QStringLiteral("data"));
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
    if (parser->parse(data.toMap(), request))
        request.operation = parser->operation;
    return request;
}

} // namespace bus
