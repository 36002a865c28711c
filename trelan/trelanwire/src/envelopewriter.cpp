#include "envelopewriter.h"

#include "frameformat.h"
#include "jsonwriter.h"
#include "wirekeys.h"

#include <algorithm>
#include <array>
#include <charconv>

namespace bus
{

namespace
{

// Of an envelope without a large text: its buffer need not grow piece by piece.
constexpr int USUAL_SIZE = 512;

void appendDigits(QByteArray &out, qint64 number)
{
    constexpr size_t MOST_DIGITS = 20;
    std::array<char, MOST_DIGITS> digits {};
    const char *const end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
    out.append(digits.data(), int(end - digits.data()));
}

} // namespace

EnvelopeWriter::EnvelopeWriter(QByteArray &out)
    : EnvelopeWriter(out, 1)
{
    _out.reserve(qMax(_out.capacity(), _out.size() + USUAL_SIZE));
    _out += '{';
}

EnvelopeWriter::EnvelopeWriter(QByteArray &out, int openObjects)
    : _out(out)
    , _openObjects(openObjects)
{}

EnvelopeWriter &EnvelopeWriter::text(std::string_view key, const QString &value)
{
    this->key(key);
    json::appendString(_out, value);
    return *this;
}

EnvelopeWriter &EnvelopeWriter::text(std::string_view key, const QByteArray &utf8)
{
    this->key(key);
    json::appendString(_out, utf8);
    return *this;
}

EnvelopeWriter &EnvelopeWriter::number(std::string_view key, qint64 value)
{
    this->key(key);
    appendDigits(_out, value);
    return *this;
}

EnvelopeWriter &EnvelopeWriter::time(std::string_view key, qint64 milliseconds)
{
    this->key(key);
    _out += '"';
    appendDigits(_out, milliseconds);
    _out += '"';
    return *this;
}

EnvelopeWriter &EnvelopeWriter::raw(std::string_view key, const QByteArray &json)
{
    this->key(key);
    _out += json;
    return *this;
}

EnvelopeWriter &EnvelopeWriter::map(std::string_view key, const QVariantMap &value)
{
    this->key(key);
    json::appendExact(_out, value);
    return *this;
}

EnvelopeWriter &EnvelopeWriter::begin(std::string_view key)
{
    this->key(key);
    _out += '{';
    _isFirst = true;
    ++_openObjects;
    return *this;
}

EnvelopeWriter &EnvelopeWriter::end()
{
    _out += '}';
    _isFirst = false;
    --_openObjects;
    return *this;
}

EnvelopeWriter &EnvelopeWriter::success()
{
    return begin(keys::RESULT).number(keys::CODE, 0).text(keys::DESCRIPTION, QString()).end();
}

void EnvelopeWriter::beginning()
{
    _out += ',';
}

void EnvelopeWriter::finish()
{
    while (_openObjects > 0)
        end();
}

QByteArray EnvelopeWriter::frame(std::string_view word)
{
    finish();
    return frameformat::light(word, _out);
}

void EnvelopeWriter::key(std::string_view key)
{
    constexpr int AROUND = 4; // comma, quotes and colon
    const int before = _out.size();
    _out.resize(before + int(key.size()) + AROUND);
    char *at = _out.data() + before;
    if (!_isFirst)
        *at++ = ',';
    *at++ = '"';
    at = std::copy(key.begin(), key.end(), at);
    *at++ = '"';
    *at++ = ':';
    _out.resize(int(at - _out.constData()));
    _isFirst = false;
}

} // namespace bus
