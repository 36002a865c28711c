#include "request/jsontext.h"

#include <algorithm>
#include <charconv>
#include <cstring>

namespace bus::jsontext
{

namespace
{

bool isBlank(char c)
{
    return c == ' ' || c == '\t' || c == '\r' || c == '\n';
}

bool isDigit(char c)
{
    return c >= '0' && c <= '9';
}

bool isPartOfNumber(char c)
{
    return isDigit(c) || c == '-' || c == '+' || c == '.' || c == 'e' || c == 'E';
}

/// Whether the quote at \a quote is a part of its string.
bool isEscaped(std::string_view text, size_t quote)
{
    size_t slashes = 0;
    while (slashes < quote && text[quote - 1 - slashes] == '\\')
        ++slashes;
    return slashes % 2 != 0;
}

/// Behind the string whose opening quote is at \a begin; the end of the text if it has no end.
size_t endOfString(std::string_view text, size_t begin)
{
    size_t quote = text.find('"', begin + 1);
    while (quote != std::string_view::npos && isEscaped(text, quote))
        quote = text.find('"', quote + 1);
    return quote == std::string_view::npos ? text.size() : quote + 1;
}

/// The last quote in front of a place, which has to be there.
size_t quoteBefore(std::string_view text, size_t end)
{
    // The standard's search takes one byte at a time.
    return size_t(static_cast<const char *>(::memrchr(text.data(), '"', end)) - text.data());
}

/// The opening quote of the string whose closing quote is at \a end.
size_t beginOfString(std::string_view text, size_t end)
{
    size_t quote = quoteBefore(text, end);
    while (isEscaped(text, quote))
        quote = quoteBefore(text, quote);
    return quote;
}

/// Passes over the members of a sound object from its front.
class Forward
{
public:
    explicit Forward(std::string_view object)
        : _text(object)
        , _at(object.find('{') + 1)
    {}

    /// Passes over so many members, and the key of the next. Returns where its value begins.
    size_t value(int members)
    {
        for (; members > 0; --members) {
            key();
            pass();
        }
        key();
        return _at;
    }

private:
    /// What is in front of the key is a brace or a comma, and behind it is a colon.
    void key()
    {
        _at = endOfString(_text, _text.find('"', _at));
        _at = _text.find(':', _at) + 1;
        blanks();
    }

    void pass()
    {
        int depth = 0;
        do {
            const char c = _text[_at];
            if (c == '"') {
                _at = endOfString(_text, _at);
                continue;
            }
            depth += int(c == '{' || c == '[') - int(c == '}' || c == ']');
            ++_at;
        } while (depth > 0 || !endsValue());
    }

    /// Whether a value outside of brackets is over; a comma or the end of the object follows then.
    bool endsValue() const { return _text[_at] == ',' || _text[_at] == '}'; }

    void blanks()
    {
        while (isBlank(_text[_at]))
            ++_at;
    }

    const std::string_view _text;
    size_t _at;
};

/// Passes over the members of a sound object from its end.
class Backward
{
public:
    explicit Backward(std::string_view object)
        : _text(object)
        , _end(object.rfind('}'))
    {
        blanks();
    }

    /// Passes over so many members. Returns where the value of the one before them ends.
    size_t value(int members)
    {
        for (; members > 0; --members) {
            pass();
            _end = beginOfString(_text, quoteBefore(_text, _end));
            _end = _text.rfind(',', _end);
            blanks();
        }
        return _end;
    }

private:
    /// Goes to the colon in front of the value.
    void pass()
    {
        int depth = 0;
        for (;;) {
            const char c = _text[--_end];
            if (c == '"')
                _end = beginOfString(_text, _end);
            else if (depth == 0 && c == ':')
                return;
            depth += int(c == '}' || c == ']') - int(c == '{' || c == '[');
        }
    }

    void blanks()
    {
        while (isBlank(_text[_end - 1]))
            --_end;
    }

    const std::string_view _text;
    size_t _end;
};

/// Whether a number is not zero, but becomes zero as a double.
bool isTiny(std::string_view number)
{
    const auto isSignificant = [](char c) { return c >= '1' && c <= '9'; };
    const std::string_view mantissa = number.substr(0, number.find_first_of("eE"));
    if (std::none_of(mantissa.cbegin(), mantissa.cend(), isSignificant))
        return false;
    double value = 0;
    const auto read = std::from_chars(number.data(), number.data() + number.size(), value);
    return read.ec != std::errc() || value == 0;
}

/// Replaces escapes of halves of surrogate pairs in the string from \a at to \a end by characters
/// of the private area, each by another one.
bool replaceHalves(QByteArray &text, size_t at, size_t end)
{
    constexpr uint HIGH = 0xd800;
    constexpr uint LOW = 0xdc00;
    constexpr uint BEHIND = 0xe000;
    constexpr size_t ESCAPE = 6;
    const auto unit = [&](size_t from) -> uint {
        if (from + ESCAPE > end || text.at(int(from)) != '\\' || text.at(int(from) + 1) != 'u')
            return 0;
        return text.mid(int(from) + 2, int(ESCAPE) - 2).toUInt(nullptr, 16);
    };
    const auto isIn = [](uint value, uint from, uint to) { return value >= from && value < to; };
    bool isReplaced = false;
    while ((at = size_t(text.indexOf('\\', int(at)))) < end) {
        const uint value = unit(at);
        if (isIn(value, HIGH, LOW) && isIn(unit(at + ESCAPE), LOW, BEHIND)) {
            at += 2 * ESCAPE;
        } else if (isIn(value, HIGH, BEHIND)) {
            const QByteArray other = QByteArray::number(value - HIGH + BEHIND, 16);
            text.replace(int(at) + 2, other.size(), other);
            isReplaced = true;
            at += ESCAPE;
        } else {
            at += 2;
        }
    }
    return isReplaced;
}

/// Replaces the integer from \a at to \a end by a zero and blanks, if it is a long one.
bool replaceInteger(QByteArray &text, size_t at, size_t end)
{
    constexpr size_t LONGEST = 18; // digits that every 64 bits hold
    if (text.at(int(at)) == '-')
        ++at;
    const auto isNoDigit = [](char c) { return !isDigit(c); };
    if (end - at <= LONGEST ||
        std::any_of(text.cbegin() + int(at), text.cbegin() + int(end), isNoDigit))
        return false;
    std::fill(text.begin() + int(at), text.begin() + int(end), ' ');
    text[int(at)] = '0';
    return true;
}

} // namespace

std::string_view member(std::string_view object, Place place)
{
    const size_t begin = Forward(object).value(place.before);
    return object.substr(begin, Backward(object).value(place.behind) - begin);
}

bool hasTinyNumber(std::string_view json)
{
    for (size_t at = 0; at < json.size();) {
        if (json[at] == '"') {
            at = endOfString(json, at);
            continue;
        }
        const size_t begin = at;
        while (at < json.size() && isPartOfNumber(json[at]))
            ++at;
        if (at > begin && isTiny(json.substr(begin, at - begin)))
            return true;
        at += size_t(at == begin);
    }
    return false;
}

QByteArray standIn(const QByteArray &json)
{
    QByteArray text = json;
    bool isReplaced = false;
    const std::string_view bytes(json.constData(), size_t(json.size()));
    for (size_t at = 0; at < bytes.size();) {
        const size_t begin = at;
        if (bytes[at] == '"') {
            at = endOfString(bytes, at);
            isReplaced |= replaceHalves(text, begin, at);
            continue;
        }
        while (at < bytes.size() && isPartOfNumber(bytes[at]))
            ++at;
        if (at > begin)
            isReplaced |= replaceInteger(text, begin, at);
        else
            ++at;
    }
    return isReplaced ? text : QByteArray();
}

} // namespace bus::jsontext
