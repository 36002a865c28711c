#include "request/buspayload.h"

#include "request/jsoninspector.h"
#include "request/jsontext.h"

#include <base64.h>
#include <envelopewriter.h>
#include <jsondom.h>
#include <jsonreader.h>
#include <wirekeys.h>
#include <zstream.h>

#include <algorithm>
#include <array>
#include <functional>
#include <initializer_list>
#include <limits>
#include <optional>
#include <string_view>

namespace bus::payload
{

namespace
{

namespace dom = simdjson::dom;

// As deep as Qt reads. The size of a text has its limit where it is inflated.
constexpr json::Limits LIMITS {1024, std::numeric_limits<int>::max()};
constexpr std::string_view MARK = "\xef\xbb\xbf"; // of byte order

/// Qt drops a mark in front of a text or a string, but not in front of a string with an escape.
bool beginsWithMark(std::string_view utf8)
{
    return utf8.substr(0, MARK.size()) == MARK;
}

/// Why a text is refused, in words of our own: the parser's are long and change with its version.
QString textOf(simdjson::error_code error)
{
    switch (error) {
    case simdjson::EMPTY:
        return QStringLiteral("nothing");
    case simdjson::DEPTH_ERROR:
        return QStringLiteral("nested too deeply");
    case simdjson::UTF8_ERROR:
        return QStringLiteral("invalid UTF-8");
    case simdjson::NUMBER_ERROR:
        return QStringLiteral("invalid number");
    case simdjson::STRING_ERROR:
    case simdjson::UNCLOSED_STRING:
    case simdjson::UNESCAPED_CHARS:
        return QStringLiteral("invalid string");
    default:
        return QStringLiteral("invalid structure");
    }
}

/// A parsed text.
struct Document
{
    const QByteArray &json;
    dom::element root;
    bool isExact = true; // false if the values are to be taken from the text alone
};

/// Has \a read look at a parsed text. Returns why it cannot be parsed, for people.
QString parse(const QByteArray &json, const std::function<void(const Document &)> &read)
{
    const simdjson::error_code error = json::parse(json, LIMITS, [&](dom::element root) {
        read({json, root});
    });
    if (error == simdjson::SUCCESS)
        return {};
    const QByteArray standIn = jsontext::standIn(json);
    const auto readStandIn = [&](dom::element root) { read({json, root, false}); };
    if (!standIn.isNull() && json::parse(standIn, LIMITS, readStandIn) == simdjson::SUCCESS)
        return {};
    return textOf(error);
}

/// Without its blanks; null if that is impossible.
QByteArray compact(std::string_view json)
{
    QByteArray compact(int(json.size()), Qt::Uninitialized);
    size_t size = 0;
    if (simdjson::minify(json.data(), json.size(), compact.data(), size) != simdjson::SUCCESS)
        return {};
    if (size < json.size()) {
        compact.resize(int(size));
        compact.squeeze(); // memory in place of the blanks would be kept, and not be counted
    }
    return compact;
}

/// Takes the value of "cnt" as it stands in the text.
bool takeContent(std::string_view text, dom::element content, Request &request)
{
    JsonInspector inspector;
    inspector.look(content);
    if (!content.is_object() || inspector.hasRepeatedKey() ||
        (inspector.hasZero() && jsontext::hasTinyNumber(text)))
        return false;
    request.record.contentJson = compact(text);
    request.measure = {inspector.depth(), inspector.indentation()};
    return !request.record.contentJson.isNull();
}

bool takeText(dom::element element, QString &text)
{
    std::string_view utf8;
    if (element.get(utf8) != simdjson::SUCCESS || beginsWithMark(utf8))
        return false;
    text = json::toText(utf8);
    return true;
}

bool takeTime(dom::element element, Request &request)
{
    QString time;
    if (!takeText(element, time))
        return false;
    request.hasTime = !time.isEmpty();
    request.record.head.time = time.toLongLong(nullptr, 10);
    return true;
}

bool takeOptions(dom::element element, ObjectHead &head)
{
    int64_t options = 0;
    if (element.get(options) != simdjson::SUCCESS || options != int(options))
        return false;
    head.options = TrelanObject::Options(QFlag(int(options)));
    return true;
}

/// A value of the data of a publish, other than its content.
bool takeMember(std::string_view key, dom::element value, Request &request)
{
    ObjectHead &head = request.record.head;
    if (key == keys::OBJECT_NAME)
        return takeText(value, head.name);
    if (key == keys::UID)
        return takeText(value, head.uid) && head.uid.size() <= MAX_UID;
    if (key == keys::TIME)
        return takeTime(value, request);
    if (key == keys::OBJECT_OPTIONS)
        return takeOptions(value, head);
    return !beginsWithMark(key); // others mean nothing
}

bool haveRepeatedKey(std::initializer_list<dom::object> objects)
{
    JsonInspector inspector;
    for (const dom::object object : objects)
        inspector.lookAtKeys(object);
    return inspector.hasRepeatedKey();
}

/// The place of a key that the object has.
jsontext::Place placeOf(std::string_view key, dom::object object)
{
    int before = 0;
    for (auto member = object.begin(); member.key() != key; ++member)
        ++before;
    return {before, int(object.size()) - 1 - before};
}

struct Content
{
    dom::element value;
    jsontext::Place place; // in the data
};

/// Takes all values of the data of a publish but its content, which is found only. False if
/// anything is unusual.
bool takeMembers(dom::object data, Request &request, std::optional<Content> &content)
{
    int number = 0;
    for (const auto [key, value] : data) {
        if (key == keys::OBJECT_CONTENT)
            content = Content {value, {number, int(data.size()) - 1 - number}};
        else if (!takeMember(key, value, request))
            return false;
        ++number;
    }
    return true;
}

/// Reads a publish as clients usually send it. False for any other request; \a request may hold
/// anything then.
bool readPublish(const Document &document, Request &request)
{
    constexpr size_t MOST_MEMBERS = 100; // their number is not exact when it is huge
    dom::object envelope;
    dom::object data;
    std::string_view text;
    if (!document.isExact || document.root.get(envelope) != simdjson::SUCCESS ||
        envelope[keys::OPERATION].get(text) != simdjson::SUCCESS || text != operations::PUBLISH ||
        envelope[keys::DATA].get(data) != simdjson::SUCCESS ||
        data[keys::OBJECT_NAME].get(text) != simdjson::SUCCESS || envelope.size() > MOST_MEMBERS ||
        data.size() > MOST_MEMBERS || haveRepeatedKey({envelope, data}))
        return false;
    std::optional<Content> content;
    if (!takeMembers(data, request, content))
        return false;
    if (!content) {
        request.record.contentJson = "{}";
        return true;
    }
    const std::string_view json(document.json.constData(), size_t(document.json.size()));
    const std::string_view dataText = jsontext::member(json, placeOf(keys::DATA, envelope));
    return takeContent(jsontext::member(dataText, content->place), content->value, request);
}

/// What is wrong with a text that could be parsed, for people; empty if nothing is.
QString faultIn(const Document &document)
{
    JsonInspector inspector;
    inspector.look(document.root);
    if (inspector.hasRepeatedKey()) {
        return QStringLiteral("an object has the key \"%1\" twice")
            .arg(QString::fromUtf8(inspector.repeatedKey().left(100)));
    }
    const std::string_view json(document.json.constData(), size_t(document.json.size()));
    return inspector.hasZero() && jsontext::hasTinyNumber(json)
               ? QStringLiteral("a number is too small")
               : QString();
}

Measure measureOf(dom::element content)
{
    JsonInspector inspector;
    inspector.look(content);
    return {inspector.depth(), inspector.indentation()};
}

/// Makes a map of the envelope. The document is not valid any more afterwards.
void readEnvelope(const Document &document, Request &request)
{
    request.errorText = faultIn(document);
    dom::element content;
    if (document.root[keys::DATA][keys::OBJECT_CONTENT].get(content) == simdjson::SUCCESS)
        request.measure = measureOf(content);
    const auto convert = [&] {
        return document.isExact && json::convert(document.json, document.root, request.envelope);
    };
    const auto read = [&] {
        return json::read(document.json, request.envelope, &request.errorText);
    };
    if (!request.errorText.isEmpty() || !(convert() || read()))
        request.fault = TrelanFrame::NotJson;
}

bool readAcknowledgement(const Document &document, Acknowledgement &acknowledgement)
{
    dom::object data;
    dom::element operation;
    if (!document.isExact || document.root[keys::OPERATION].get(operation) != simdjson::SUCCESS ||
        document.root[keys::DATA].get(data) != simdjson::SUCCESS)
        return false;
    const auto take = [](dom::element value, QString &text) {
        return !value.is_string() || takeText(value, text);
    };
    const auto takeData = [&](std::string_view key, QString &text) {
        dom::element value;
        return data[key].get(value) != simdjson::SUCCESS || take(value, text);
    };
    return take(operation, acknowledgement.operation) &&
           takeData(keys::SENDER, acknowledgement.sender) &&
           takeData(keys::RECIEVER, acknowledgement.reciever) &&
           takeData(keys::UID, acknowledgement.uid);
}

/// What stands before, between and behind the values of an acknowledgement.
std::array<QByteArray, 4> usualAcknowledgement()
{
    const QString value = QStringLiteral("?");
    QByteArray text;
    EnvelopeWriter(text)
        .begin(keys::DATA)
        .text(keys::RECIEVER, value)
        .text(keys::SENDER, value)
        .text(keys::UID, value)
        .end()
        .text(keys::OPERATION, operations::SEND_MESSAGE)
        .success()
        .finish();
    const QList<QByteArray> texts = text.split('?');
    return {texts.value(0), texts.value(1), texts.value(2), texts.value(3)};
}

/// The bytes that a string may be made of without an escape, as far as they are ASCII.
bool isPlain(char byte)
{
    return byte >= ' ' && byte < '\x7f' && byte != '"' && byte != '\\';
}

/// Reads an acknowledgement as the client library writes it in the coding Light, which takes a
/// fraction of the time of parsing. False for any other text; \a acknowledgement may hold anything
/// then.
bool readUsual(std::string_view json, Acknowledgement &acknowledgement)
{
    static const std::array<QByteArray, 4> _texts = usualAcknowledgement();
    const std::array<QString *, 3> values {&acknowledgement.reciever, &acknowledgement.sender,
                                           &acknowledgement.uid};
    for (size_t i = 0; i < values.size(); ++i) {
        const std::string_view text(_texts.at(i).constData(), size_t(_texts.at(i).size()));
        if (json.substr(0, text.size()) != text)
            return false;
        json.remove_prefix(text.size());
        const auto *const end = std::find_if_not(json.begin(), json.end(), isPlain);
        const auto size = size_t(end - json.begin());
        *values.at(i) = QString::fromLatin1(json.data(), int(size));
        json.remove_prefix(size);
    }
    acknowledgement.operation = operations::SEND_MESSAGE;
    return json == std::string_view(_texts.back().constData(), size_t(_texts.back().size()));
}

Acknowledgement acknowledgementIn(const QVariantMap &envelope)
{
    const QVariantMap data = envelope.value(keys::DATA).toMap();
    return {envelope.value(keys::OPERATION).toString(), data.value(keys::SENDER).toString(),
            data.value(keys::RECIEVER).toString(), data.value(keys::UID).toString()};
}

QByteArray inflate(const QByteArray &payload, qint64 maxInflatedSize, TrelanFrame::Fault &fault)
{
    QByteArray json;
    const auto outcome = zstream::uncompress(base64::decode(payload), maxInflatedSize, json);
    fault = outcome == zstream::Done       ? TrelanFrame::NoFault
            : outcome == zstream::TooLarge ? TrelanFrame::TooLarge
                                           : TrelanFrame::NotInflatable;
    if (fault != TrelanFrame::NoFault)
        return {};
    if (beginsWithMark({json.constData(), size_t(json.size())}))
        json.remove(0, int(MARK.size()));
    return json;
}

} // namespace

Request decodeRequest(const QByteArray &payload, qint64 maxInflatedSize)
{
    Request request;
    const QByteArray json = inflate(payload, maxInflatedSize, request.fault);
    if (request.fault != TrelanFrame::NoFault)
        return request;
    const QString errorText = parse(json, [&](const Document &document) {
        request.isPublish = readPublish(document, request);
        if (!request.isPublish) {
            request = Request();
            readEnvelope(document, request);
        }
    });
    if (!errorText.isEmpty()) {
        request.fault = TrelanFrame::NotJson;
        request.errorText = errorText;
    }
    return request;
}

Acknowledgement decodeAcknowledgement(const QByteArray &payload, qint64 maxInflatedSize)
{
    TrelanFrame::Fault fault = TrelanFrame::NoFault;
    const QByteArray json = inflate(payload, maxInflatedSize, fault);
    Acknowledgement acknowledgement;
    if (fault != TrelanFrame::NoFault ||
        readUsual({json.constData(), size_t(json.size())}, acknowledgement))
        return acknowledgement;
    acknowledgement = {};
    parse(json, [&](const Document &document) {
        if (readAcknowledgement(document, acknowledgement))
            return;
        Request request;
        readEnvelope(document, request);
        acknowledgement = acknowledgementIn(request.envelope);
    });
    return acknowledgement;
}

} // namespace bus::payload
