#include "request/jsontext.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>

#include <algorithm>
#include <array>
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

constexpr std::array<signed char, 256> makeDepths()
{
    std::array<signed char, 256> depths {};
    depths['{'] = depths['['] = 1;
    depths['}'] = depths[']'] = -1;
    return depths;
}

/// Passes over the values of a sound text by its tokens.
class Cursor
{
public:
    Cursor(const QByteArray &json, const json::Tokens &tokens)
        : _text(json.constData(), size_t(json.size()))
        , _next(tokens.positions)
        , _end(tokens.positions + tokens.count)
    {}

    /// Goes to the value of a key of the object that is next; false if it is not there.
    bool enter(std::string_view quotedKey)
    {
        if (byte() != '{')
            return false;
        do {
            ++_next;
            if (byte() != '"')
                return false;
            const bool isFound = _text.substr(*_next, quotedKey.size()) == quotedKey;
            _next += 2; // and the colon
            if (isFound)
                return true;
            pass();
        } while (byte() == ',');
        return false;
    }

    /// The object that is next.
    Piece object()
    {
        if (byte() != '{')
            return {};
        const quint32 begin = *_next;
        const bool hasBlanks = pass();
        return {_text.substr(begin, *(_next - 1) + 1 - begin), hasBlanks};
    }

private:
    char byte() const { return _next < _end ? _text[*_next] : '\0'; }

    /// Leaves a value behind. Returns whether there are blanks between its tokens.
    bool pass()
    {
        static constexpr auto DEPTHS = makeDepths();
        int depth = 0;
        bool hasBlanks = false;
        for (const quint32 *const first = _next; _next < _end;) {
            const quint32 at = *_next;
            hasBlanks |= _next > first && isBlank(_text[at - 1]);
            depth += DEPTHS[uchar(_text[at])];
            ++_next;
            if (depth == 0)
                break;
        }
        return hasBlanks;
    }

    const std::string_view _text;
    const quint32 *_next;
    const quint32 *const _end;
};

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

Piece member(const QByteArray &json, const json::Tokens &tokens, std::string_view outer,
             std::string_view inner)
{
    Cursor cursor(json, tokens);
    return cursor.enter(outer) && cursor.enter(inner) ? cursor.object() : Piece();
}

} // namespace bus::jsontext
