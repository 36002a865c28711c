#include "request/jsontext.h"

#include <QtCore/QJsonArray>
#include <QtCore/QJsonDocument>

#include <algorithm>
#include <array>
#include <charconv>
#include <cmath>
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

constexpr size_t EXACT_DIGITS = 15; // as many a double always keeps

size_t countDigits(std::string_view text)
{
    const auto isDigit = [](char c) { return c >= '0' && c <= '9'; };
    return size_t(std::find_if_not(text.cbegin(), text.cend(), isDigit) - text.cbegin());
}

/// Whether a number is the shortest text of a double, without looking at that: all of its digits
/// are kept, and none is too much.
bool isShortNumber(std::string_view digits)
{
    const size_t whole = countDigits(digits);
    if (whole == 0 || (whole > 1 && digits.front() == '0') || digits.size() > EXACT_DIGITS + 1)
        return false;
    if (whole == digits.size())
        return whole <= EXACT_DIGITS;
    const std::string_view fraction = digits.substr(whole + 1);
    constexpr std::string_view TINY = "0000"; // which may be written with an exponent
    return digits[whole] == '.' && !fraction.empty() && countDigits(fraction) == fraction.size() &&
           fraction.back() != '0' &&
           (digits.front() != '0' || fraction.substr(0, TINY.size()) != TINY);
}

/// Whether Qt would write this number as it stands.
bool isUsualNumber(std::string_view text)
{
    constexpr double LARGEST = 1e15; // Qt may write exponents above, and below this:
    constexpr double SMALLEST = 1e-4;
    if (isShortNumber(text.substr(text.substr(0, 1) == "-" ? 1 : 0)))
        return text != "-0";
    double number = 0;
    const char *const end = text.data() + text.size();
    const auto read = std::from_chars(text.data(), end, number);
    if (read.ec != std::errc() || read.ptr != end || !(std::abs(number) >= SMALLEST) ||
        !(std::abs(number) < LARGEST))
        return false;
    std::array<char, 64> again {};
    const char *const written =
        std::to_chars(again.data(), again.data() + again.size(), number, std::chars_format::fixed)
            .ptr;
    return text == std::string_view(again.data(), size_t(written - again.data()));
}

/// Writes blanks between the tokens of a text, as long as Qt would not change any of them.
class Indenter
{
public:
    Indenter(QByteArray &out, const QByteArray &compact, int level)
        : _out(out)
        , _at(compact.constData())
        , _end(_at + compact.size())
        , _level(level)
        , _to(out.data() + out.size())
        , _room(_to)
    {}

    bool value()
    {
        if (_at == _end)
            return false;
        switch (*_at) {
        case '{':
            return entries('}');
        case '[':
            return entries(']');
        case '"':
            return append(string());
        default:
            return append(word());
        }
    }

    /// False if there is more.
    bool finish()
    {
        _out.resize(int(_to - _out.constData()));
        return _at == _end;
    }

private:
    bool entries(char closing)
    {
        if (++_level > MAX_LEVEL)
            return false;
        put({_at++, 1});
        put("\n");
        const bool isEmpty = _at != _end && *_at == closing;
        std::string_view last;
        while (!isEmpty) {
            indent();
            if ((closing == '}' && !key(last)) || !value() || _at == _end)
                return false;
            if (*_at == closing)
                break;
            if (*_at++ != ',')
                return false;
            put(",\n");
        }
        if (!isEmpty)
            put("\n");
        --_level;
        indent();
        put({_at++, 1});
        return true;
    }

    /// A key behind the one before. Qt sorts them by their UTF-16, which is another order than that
    /// of the bytes, but not of ASCII.
    bool key(std::string_view &last)
    {
        const std::string_view key = string();
        const auto isOdd = [](char c) { return (uchar(c) & 0x80) != 0 || c == '\\'; };
        if (key.empty() || _at == _end || *_at++ != ':' ||
            std::any_of(key.cbegin(), key.cend(), isOdd))
            return false;
        // Without the quotes, which are no part of the order.
        const std::string_view text = key.substr(1, key.size() - 2);
        if (last.data() && last >= text)
            return false;
        last = text;
        put(key);
        put(": ");
        return true;
    }

    /// With its quotes; empty if Qt would write it differently.
    std::string_view string()
    {
        constexpr std::string_view MARKED = "\"\xef\xbb\xbf"; // Qt drops the mark
        const char *const begin = _at;
        const std::string_view rest(_at, size_t(_end - _at));
        if (rest.substr(0, 1) != "\"" || rest.substr(0, MARKED.size()) == MARKED)
            return {};
        while (++_at != _end && *_at != '"') {
            constexpr std::string_view SHORT = "\"\\bfnrt";
            if (*_at == '\\' && (++_at == _end || SHORT.find(*_at) == std::string_view::npos))
                return {};
        }
        if (_at == _end)
            return {};
        ++_at;
        return {begin, size_t(_at - begin)};
    }

    std::string_view word()
    {
        const char *const begin = _at;
        while (_at != _end && *_at != ',' && *_at != '}' && *_at != ']')
            ++_at;
        const std::string_view word(begin, size_t(_at - begin));
        const bool isUsual =
            isUsualNumber(word) || word == "true" || word == "false" || word == "null";
        return isUsual ? word : std::string_view();
    }

    bool append(std::string_view token)
    {
        put(token);
        return !token.empty();
    }

    void put(std::string_view text)
    {
        _to = std::copy(text.cbegin(), text.cend(), room(text.size()));
    }

    void indent()
    {
        const size_t blanks = size_t(INDENTATION) * size_t(_level);
        _to = std::fill_n(room(blanks), blanks, ' ');
    }

    /// Where the next bytes go; there is room for that many.
    char *room(size_t bytes)
    {
        if (size_t(_room - _to) < bytes)
            grow(bytes);
        return _to;
    }

    void grow(size_t bytes)
    {
        constexpr int LEAST = 256;
        const auto used = int(_to - _out.constData());
        _out.resize(qMax(_out.capacity(), 2 * used + int(bytes) + LEAST));
        _to = _out.data() + used;
        _room = _out.data() + _out.size();
    }

    static constexpr int MAX_LEVEL = 100;

    QByteArray &_out;
    const char *_at;
    const char *const _end;
    int _level;
    char *_to;   // behind what is written
    char *_room; // behind what may be
};

} // namespace

bool appendIndented(QByteArray &out, const QByteArray &compact, int level)
{
    Indenter indenter(out, compact, level);
    const bool isUsual = indenter.value();
    return indenter.finish() && isUsual;
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
