#include "request/buspayload.h"

#include <base64.h>
#include <jsondom.h>
#include <zstream.h>

#include <algorithm>
#include <string_view>
#include <vector>

namespace bus::payload
{

namespace
{

namespace dom = simdjson::dom;

const QString KEY_OPERATION = QStringLiteral("operation");
const QString KEY_DATA = QStringLiteral("data");

/// Whether a byte order mark is in front. Qt drops it, but not if there is an escape in the same
/// string.
bool beginsWithMark(std::string_view utf8)
{
    return utf8.substr(0, 3) == "\xef\xbb\xbf";
}

struct Text
{
    const QByteArray &json;
    const json::Tokens &tokens;
};

/// Looks at every value of a text: whether an object has a key twice, and how large it is when it
/// is indented. Every function is false for what has to go the long way.
class Inspector
{
public:
    bool value(dom::element element, int level)
    {
        dom::object object;
        dom::array array;
        double number = 0;
        switch (element.type()) {
        case dom::element_type::OBJECT:
            return element.get(object) == simdjson::SUCCESS && members(object, level + 1);
        case dom::element_type::ARRAY:
            return element.get(array) == simdjson::SUCCESS && entries(array, level + 1);
        case dom::element_type::DOUBLE:
            // It may have been too small for a number, which Qt refuses.
            return element.get(number) == simdjson::SUCCESS && number != 0;
        default:
            return true;
        }
    }

    /// Whether all keys of an object differ.
    bool keysDiffer(dom::object object)
    {
        _keys.clear();
        for (const auto member : object)
            _keys.push_back(member.key);
        std::sort(_keys.begin(), _keys.end());
        return std::adjacent_find(_keys.begin(), _keys.end()) == _keys.end();
    }

    int depth() const { return _depth; }
    qint64 indentation() const { return _indentation; }

private:
    bool members(dom::object object, int level)
    {
        int number = 0;
        bool ascend = true; // as in most texts, so that they differ
        std::string_view last;
        for (const auto member : object) {
            ascend = ascend && (number == 0 || isBefore(last, member.key));
            last = member.key;
            if (!value(member.value, level))
                return false;
            ++number;
        }
        count(number, level);
        return ascend || keysDiffer(object);
    }

    static bool isBefore(std::string_view a, std::string_view b)
    {
        // Mostly the first bytes say it, for less than a call.
        const bool same = a.empty() || b.empty() || a.front() == b.front();
        return same ? a < b : uchar(a.front()) < uchar(b.front());
    }

    bool entries(dom::array array, int level)
    {
        int number = 0;
        for (const dom::element entry : array) {
            if (!value(entry, level))
                return false;
            ++number;
        }
        count(number, level);
        return true;
    }

    /// The brackets, and the commas between.
    void count(int values, int level)
    {
        _depth = qMax(_depth, level);
        _indentation += (2 + qMax(0, values - 1)) * jsontext::indentation(level);
    }

    std::vector<std::string_view> _keys; // of one object
    int _depth = 0;
    qint64 _indentation = 0;
};

/// Without its blanks; null if that is impossible.
QByteArray copied(const jsontext::Piece &piece)
{
    if (!piece.hasBlanks)
        return {piece.text.data(), int(piece.text.size())};
    QByteArray compact(int(piece.text.size()), Qt::Uninitialized);
    size_t size = 0;
    if (simdjson::minify(piece.text.data(), piece.text.size(), compact.data(), size) !=
        simdjson::SUCCESS)
        return {};
    compact.resize(int(size));
    compact.squeeze(); // the blanks would be kept as memory that nobody counts
    return compact;
}

/// Copies the value of "cnt".
bool takeContent(const Text &text, dom::element content, Request &request)
{
    Inspector inspector;
    const jsontext::Piece piece = jsontext::member(text.json, text.tokens, "\"data\"", "\"cnt\"");
    if (piece.text.empty() || !inspector.value(content, 0))
        return false;
    const QByteArray compact = copied(piece);
    if (compact.isNull())
        return false;
    request.record.contentJson = compact;
    request.measure = {inspector.depth(), compact.size() + inspector.indentation()};
    return true;
}

bool takeText(dom::element element, QString &text)
{
    std::string_view utf8;
    if (element.get(utf8) != simdjson::SUCCESS || beginsWithMark(utf8))
        return false;
    text = QString::fromUtf8(utf8.data(), int(utf8.size()));
    return true;
}

/// A value of the data of a publish. False for what has to go the long way.
bool takeMember(const Text &text, std::string_view key, dom::element value, Request &request)
{
    ObjectHead &head = request.record.head;
    if (key == "cnt")
        return takeContent(text, value, request);
    if (key == "nm")
        return takeText(value, head.name);
    if (key == "uid")
        return takeText(value, head.uid) && head.uid.size() <= MAX_UID;
    if (key == "dt") {
        QString time;
        const bool isText = takeText(value, time);
        request.hasTime = !time.isEmpty();
        head.time = time.toLongLong(nullptr, 10);
        return isText;
    }
    if (key == "opt") {
        int64_t options = 0;
        const bool isNumber = value.get(options) == simdjson::SUCCESS;
        head.options = TrelanObject::Options(QFlag(int(options)));
        return isNumber && options == int(options);
    }
    return !beginsWithMark(key); // others mean nothing
}

bool readPublish(const Text &text, dom::object envelope, dom::object data, Request &request)
{
    Inspector inspector;
    std::string_view name;
    if (!inspector.keysDiffer(envelope) || !inspector.keysDiffer(data) || envelope.size() != 2 ||
        data["nm"].get(name) != simdjson::SUCCESS)
        return false;
    request.record.contentJson = "{}";
    for (const auto member : data) {
        if (!takeMember(text, member.key, member.value, request))
            return false;
    }
    request.isPublish = true;
    return true;
}

/// A request as clients usually send it. False for any other, of which nothing is known then.
bool readFast(const Text &text, dom::element root, Request &request)
{
    dom::object envelope;
    dom::object data;
    std::string_view operation;
    if (root.get(envelope) != simdjson::SUCCESS ||
        envelope["operation"].get(operation) != simdjson::SUCCESS)
        return false;
    if (operation == "pub") {
        return envelope["data"].get(data) == simdjson::SUCCESS &&
               readPublish(text, envelope, data, request);
    }
    Inspector inspector;
    return inspector.value(root, 0) && json::convert(text.json, root, request.envelope);
}

TrelanFrame::Payload readSlowly(const QByteArray &json)
{
    const QByteArray key = jsontext::repeatedKey(json);
    if (key.isNull())
        return TrelanFrame::decodeJson(json);
    TrelanFrame::Payload decoded;
    decoded.fault = TrelanFrame::NotJson;
    decoded.errorText =
        QStringLiteral("an object has the key %1 twice").arg(QString::fromUtf8(key.left(100)));
    return decoded;
}

QByteArray inflate(const QByteArray &payload, qint64 maxInflatedSize, TrelanFrame::Fault &fault)
{
    QByteArray json;
    const auto outcome = zstream::uncompress(base64::decode(payload), maxInflatedSize, json);
    fault = outcome == zstream::Done       ? TrelanFrame::NoFault
            : outcome == zstream::TooLarge ? TrelanFrame::TooLarge
                                           : TrelanFrame::NotInflatable;
    return fault == TrelanFrame::NoFault ? json : QByteArray();
}

} // namespace

Request decodeRequest(const QByteArray &payload, qint64 maxInflatedSize)
{
    Request request;
    const QByteArray json = inflate(payload, maxInflatedSize, request.fault);
    if (request.fault != TrelanFrame::NoFault ||
        json::parse(json, [&](dom::element root, const json::Tokens &tokens) {
            return readFast({json, tokens}, root, request);
        }))
        return request;

    const TrelanFrame::Payload decoded = readSlowly(json);
    request = Request();
    request.fault = decoded.fault;
    request.errorText = decoded.errorText;
    request.envelope = decoded.envelope;
    return request;
}

Acknowledgement decodeAcknowledgement(const QByteArray &payload, qint64 maxInflatedSize)
{
    TrelanFrame::Fault fault = TrelanFrame::NoFault;
    const QByteArray json = inflate(payload, maxInflatedSize, fault);
    Acknowledgement acknowledgement;
    if (fault != TrelanFrame::NoFault)
        return acknowledgement;
    const bool isRead = json::parse(json, [&](dom::element root) {
        dom::object data;
        dom::element operation;
        if (root["operation"].get(operation) != simdjson::SUCCESS ||
            root["data"].get(data) != simdjson::SUCCESS)
            return false;
        const auto take = [](dom::element value, QString &text) {
            return !value.is_string() || takeText(value, text);
        };
        const auto takeData = [&](const char *key, QString &text) {
            dom::element value;
            return data[key].get(value) != simdjson::SUCCESS || take(value, text);
        };
        return take(operation, acknowledgement.operation) &&
               takeData("sender", acknowledgement.sender) &&
               takeData("reciever", acknowledgement.reciever) &&
               takeData("uid", acknowledgement.uid);
    });
    if (isRead)
        return acknowledgement;
    const QVariantMap envelope = readSlowly(json).envelope;
    const QVariantMap data = envelope.value(KEY_DATA).toMap();
    const auto text = [&data](const char *key) {
        return data.value(QLatin1String(key)).toString();
    };
    return {envelope.value(KEY_OPERATION).toString(), text("sender"), text("reciever"),
            text("uid")};
}

} // namespace bus::payload
