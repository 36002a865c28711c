#include "jsontext.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>

#include <algorithm>
#include <cstring>
#include <functional>
#include <string_view>
#include <vector>

namespace bus::jsontext
{

namespace
{

constexpr size_t MAX_DEPTH = 1100; // parsers stop before that
constexpr int INDENTATION = 4;
constexpr int OUTER_LEVELS = 3; // around a content, in what is sent

/// Behind the string that begins at \a begin, which is its opening quote.
int endOfString(const QByteArray &json, int begin)
{
    const char *const text = json.constData();
    for (int at = begin + 1; at < json.size();) {
        const void *const found = std::memchr(text + at, '"', size_t(json.size() - at));
        if (!found)
            break;
        const int quote = int(static_cast<const char *>(found) - text);
        int slashes = 0;
        while (text[quote - 1 - slashes] == '\\')
            ++slashes;
        if (slashes % 2 == 0)
            return quote + 1;
        at = quote + 1;
    }
    return json.size();
}

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

int skipBlanks(const QByteArray &json, int at)
{
    while (at < json.size() && isBlank(json.at(at)))
        ++at;
    return at;
}

bool isKey(const QByteArray &json, int end)
{
    end = skipBlanks(json, end);
    return end < json.size() && json.at(end) == ':';
}

/// Behind the value that begins at \a begin.
int endOfValue(const QByteArray &json, int begin)
{
    int depth = 0;
    for (int at = begin; at < json.size();) {
        const char c = json.at(at);
        if (c == '"') {
            at = endOfString(json, at);
            if (depth == 0)
                return at;
            continue;
        }
        if (depth == 0 && (c == ',' || c == '}' || c == ']' || isBlank(c)))
            return at; // of a number or a word
        depth += int(c == '{' || c == '[') - int(c == '}' || c == ']');
        ++at;
        if (depth == 0 && (c == '}' || c == ']'))
            return at;
    }
    return json.size();
}

/// Where the value of a key of the object that begins at \a begin begins; negative if it is not
/// there.
int findMember(const QByteArray &json, int begin, const QByteArray &quotedKey)
{
    int at = skipBlanks(json, begin);
    if (at >= json.size() || json.at(at) != '{')
        return -1;
    for (;;) {
        at = skipBlanks(json, at + 1);
        if (at >= json.size() || json.at(at) != '"')
            return -1;
        const int end = endOfString(json, at);
        const bool found = json.mid(at, end - at) == quotedKey;
        const int value = skipBlanks(json, skipBlanks(json, end) + 1);
        if (found)
            return value;
        at = skipBlanks(json, endOfValue(json, value));
        if (at >= json.size() || json.at(at) != ',')
            return -1;
    }
}

struct Key
{
    size_t hash;
    int position; // of its opening quote
};
using Keys = std::vector<Key>;

/// One number for each key, however it is escaped; two keys have the same so rarely that it does
/// not matter.
size_t hashOf(const QByteArray &quoted)
{
    QByteArray key = quoted;
    if (quoted.contains('\\')) {
        const QJsonDocument document = QJsonDocument::fromJson('[' + quoted + ']');
        key = '"' + document.array().first().toString().toUtf8() + '"';
    }
    return std::hash<std::string_view>()({key.constData(), size_t(key.size())});
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

Measure measure(const QByteArray &json)
{
    Measure measured {0, json.size()};
    int depth = 0;
    for (int i = 0; i < json.size(); ++i) {
        const char c = json.at(i);
        if (c == '"') {
            i = endOfString(json, i) - 1;
        } else if (c == '{' || c == '[') {
            measured.depth = qMax(measured.depth, ++depth);
            measured.indented += indentation(depth);
        } else if (c == '}' || c == ']') {
            measured.indented += indentation(depth--);
        } else if (c == ',') {
            measured.indented += indentation(depth);
        }
    }
    return measured;
}

qint64 indentation(int level)
{
    return 1 + INDENTATION * (level + OUTER_LEVELS);
}

QByteArray member(const QByteArray &json, const char *outer, const char *inner)
{
    const auto quoted = [](const char *key) { return '"' + QByteArray(key) + '"'; };
    const int object = findMember(json, 0, quoted(outer));
    const int begin = object < 0 ? -1 : findMember(json, object, quoted(inner));
    return begin < 0 ? QByteArray() : json.mid(begin, endOfValue(json, begin) - begin);
}

} // namespace bus::jsontext
