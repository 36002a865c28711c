#include "buspayload.h"

#include <QtCore/QHash>
#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>

#include <algorithm>
#include <vector>

namespace bus::payload
{

namespace
{

constexpr size_t MAX_DEPTH = 1100; // parsers stop before that
constexpr uint SEED = 0x5472656c;
constexpr uint OTHER_SEED = 0x616e2121;

/// Behind the string that begins at \a begin, which is its opening quote.
int endOfString(const QByteArray &json, int begin)
{
    for (int i = begin + 1; i < json.size(); ++i) {
        if (json.at(i) == '\\')
            ++i;
        else if (json.at(i) == '"')
            return i + 1;
    }
    return json.size();
}

bool isKey(const QByteArray &json, int end)
{
    while (end < json.size() && QByteArray(" \t\r\n").contains(json.at(end)))
        ++end;
    return end < json.size() && json.at(end) == ':';
}

struct Key
{
    quint64 hash;
    int position; // of its opening quote
};
using Keys = std::vector<Key>;

/// One number for each key, however it is escaped; two keys have the same so rarely that it does
/// not matter.
quint64 hashOf(const QByteArray &quoted)
{
    QByteArray key = quoted;
    if (quoted.contains('\\')) {
        const QJsonDocument document = QJsonDocument::fromJson('[' + quoted + ']');
        key = '"' + document.array().first().toString().toUtf8() + '"';
    }
    return quint64(qHash(key, SEED)) << 32 | qHash(key, OTHER_SEED);
}

/// Position of a key that is there twice; negative if there is none.
int repeatedIn(Keys &keys)
{
    const auto less = [](const Key &a, const Key &b) { return a.hash < b.hash; };
    const auto same = [](const Key &a, const Key &b) { return a.hash == b.hash; };
    std::sort(keys.begin(), keys.end(), less);
    const auto found = std::adjacent_find(keys.begin(), keys.end(), same);
    return found == keys.end() ? -1 : found->position;
}

} // namespace

TrelanFrame::Payload decode(const QByteArray &payload, qint64 maxInflatedSize)
{
    TrelanFrame::Payload decoded;
    decoded.json =
        TrelanFrame::uncompress(QByteArray::fromBase64(payload), maxInflatedSize, &decoded.fault);
    if (decoded.fault != TrelanFrame::NoFault)
        return decoded;
    const QByteArray key = repeatedKey(decoded.json);
    if (key.isNull())
        return TrelanFrame::decodeJson(decoded.json);
    decoded.fault = TrelanFrame::NotJson;
    decoded.errorText =
        QStringLiteral("an object has the key %1 twice").arg(QString::fromUtf8(key.left(100)));
    return decoded;
}

QByteArray repeatedKey(const QByteArray &json)
{
    std::vector<Keys> open; // of the objects, and nothing of the arrays
    int repeated = -1;
    for (int i = 0; i < json.size() && repeated < 0 && open.size() <= MAX_DEPTH; ++i) {
        const char c = json.at(i);
        if (c == '{' || c == '[') {
            open.emplace_back();
        } else if ((c == '}' || c == ']') && !open.empty()) {
            repeated = repeatedIn(open.back());
            open.pop_back();
        } else if (c == '"') {
            const int end = endOfString(json, i);
            if (!open.empty() && isKey(json, end))
                open.back().push_back({hashOf(json.mid(i, end - i)), i});
            i = end - 1;
        }
    }
    for (; repeated < 0 && !open.empty(); open.pop_back())
        repeated = repeatedIn(open.back());
    return repeated < 0 ? QByteArray() : json.mid(repeated, endOfString(json, repeated) - repeated);
}

} // namespace bus::payload
