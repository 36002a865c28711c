#include "envelopewriter.h"

#include "frameformat.h"
#include "jsonwriter.h"
#include "wirekeys.h"

namespace bus
{

EnvelopeWriter::EnvelopeWriter(QByteArray &out)
    : EnvelopeWriter(out, 1)
{
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
    _out += QByteArray::number(value);
    return *this;
}

EnvelopeWriter &EnvelopeWriter::time(std::string_view key, qint64 milliseconds)
{
    this->key(key);
    _out += '"' + QByteArray::number(milliseconds) + '"';
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
    json::appendCompact(_out, value);
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
    if (!_isFirst)
        _out += ',';
    _isFirst = false;
    _out += '"';
    _out.append(key.data(), int(key.size())) += "\":";
}

} // namespace bus
