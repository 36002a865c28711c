#include "trelanframe.h"

#include "codec/replies.h"
#include "trelanerror.h"

#include <base64.h>
#include <frameformat.h>
#include <jsonreader.h>
#include <jsonwriter.h>
#include <wirekeys.h>
#include <zstream.h>

#include <atomic>

namespace bus
{

namespace
{

// The limit is far above any envelope that a client sends on purpose, and far below what a machine
// has: without it a few hundred kilobytes of compressed zeros would take the process down.
std::atomic<qint64> _maxInflatedSize {256LL * 1024 * 1024};

std::string_view wordOf(TrelanFrame::Kind kind)
{
    return kind == TrelanFrame::Request ? frameformat::REQUEST : frameformat::REPLY;
}

QString textOf(std::string_view word)
{
    return QString::fromLatin1(word.data(), int(word.size()));
}

QByteArray compressed(const QVariantMap &envelope, TrelanTransport::Coding coding)
{
    return coding == TrelanTransport::Light ? TrelanFrame::compressLightly(json::exact(envelope))
                                            : TrelanFrame::compress(json::indented(envelope));
}

} // namespace

QString TrelanFrame::headerWord(Kind kind)
{
    static const QString _request = textOf(frameformat::REQUEST);
    static const QString _reply = textOf(frameformat::REPLY);
    return kind == Request ? _request : _reply;
}

QString TrelanFrame::lineText(const QByteArray &line)
{
    // The size is given, since a NUL byte would otherwise end the text and hide the rest of it.
    return QString::fromLatin1(line.constData(), line.size()).simplified();
}

QVariantMap TrelanFrame::request(const QString &operation, const QVariantMap &data)
{
    return {{keys::OPERATION, operation}, {keys::DATA, data}};
}

QVariantMap TrelanFrame::reply(const QString &operation, const TrelanError &error,
                               const QVariantMap &data)
{
    const QVariantMap result {{keys::CODE, int(error.error())},
                              {keys::DESCRIPTION, error.description()}};
    return {{keys::OPERATION, operation}, {keys::DATA, data}, {keys::RESULT, result}};
}

quint16 TrelanFrame::replyCode(const QVariantMap &result)
{
    return replies::error(result).error();
}

QByteArray TrelanFrame::encode(Kind kind, const QVariantMap &envelope,
                               TrelanTransport::Coding coding)
{
    if (coding == TrelanTransport::Light)
        return encodeText(kind, json::exact(envelope));
    const QByteArray bytes = compressed(envelope, coding);
    QByteArray frame = frameformat::lines(wordOf(kind), base64::encodedSize(bytes.size()));
    base64::append(frame, bytes);
    return frame;
}

QByteArray TrelanFrame::encodeText(Kind kind, const QByteArray &json)
{
    return frameformat::light(wordOf(kind), json);
}

QByteArray TrelanFrame::encodePayload(const QVariantMap &envelope, TrelanTransport::Coding coding)
{
    QByteArray payload;
    base64::append(payload, compressed(envelope, coding));
    return payload;
}

QByteArray TrelanFrame::frame(Kind kind, const QByteArray &payload)
{
    return frameformat::lines(wordOf(kind), payload.size()) += payload;
}

TrelanFrame::Payload TrelanFrame::decodePayload(const QByteArray &payload, qint64 maxInflatedSize)
{
    Fault fault = NoFault;
    Payload decoded = decodeJson(uncompress(base64::decode(payload), maxInflatedSize, &fault));
    if (fault != NoFault)
        decoded.fault = fault;
    if (fault == TooLarge)
        decoded.errorText =
            QStringLiteral("too large: inflates to more than %1 bytes").arg(maxInflatedSize);
    return decoded;
}

TrelanFrame::Payload TrelanFrame::decodeJson(const QByteArray &json)
{
    Payload decoded;
    decoded.json = json;
    if (!json::read(decoded.json, decoded.envelope, &decoded.errorText))
        decoded.fault = NotJson;
    return decoded;
}

qint64 TrelanFrame::maxInflatedSize()
{
    return _maxInflatedSize;
}

void TrelanFrame::setMaxInflatedSize(qint64 bytes)
{
    _maxInflatedSize = qMax<qint64>(bytes, 1);
}

QByteArray TrelanFrame::compress(const QByteArray &bytes)
{
    return zstream::compress(bytes);
}

QByteArray TrelanFrame::compressLightly(const QByteArray &bytes)
{
    QByteArray out;
    zstream::storeOrCompress(bytes, out);
    return out;
}

QByteArray TrelanFrame::uncompress(const QByteArray &bytes, qint64 maxInflatedSize, Fault *fault)
{
    QByteArray inflated;
    switch (zstream::uncompress(bytes, maxInflatedSize, inflated)) {
    case zstream::Done:
        *fault = NoFault;
        return inflated;
    case zstream::TooLarge:
        *fault = TooLarge;
        return {};
    case zstream::Damaged:
        break;
    }
    *fault = NotInflatable;
    return {};
}

} // namespace bus
