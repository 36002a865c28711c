#include "trelanframe.h"

#include "trelanerror.h"

#include <base64.h>
#include <jsonreader.h>
#include <jsonwriter.h>
#include <scratch.h>
#include <storedstream.h>
#include <zstream.h>

#include <atomic>

namespace bus
{

namespace
{

constexpr char WORD_REQUEST[] = "[-REQUEST-]";
constexpr char WORD_REPLY[] = "[-REPLY-]";
const QString HEADER_REQUEST = QString::fromLatin1(WORD_REQUEST);
const QString HEADER_REPLY = QString::fromLatin1(WORD_REPLY);
const QString KEY_OPERATION = QStringLiteral("operation");
const QString KEY_DATA = QStringLiteral("data");
const QString KEY_RESULT = QStringLiteral("result");
const QString KEY_CODE = QStringLiteral("code");
const QString KEY_DESCRIPTION = QStringLiteral("description");
constexpr char SEPARATOR[] = "\r\n";
// Far above any envelope a client sends on purpose, and far below what a machine has: without it
// a few hundred kilobytes of zeros, compressed, would take the process down.
std::atomic<qint64> _maxInflatedSize {256LL * 1024 * 1024};

/// What is in front of a payload, with room for that.
QByteArray lines(TrelanFrame::Kind kind, int payloadSize)
{
    QByteArray bytes;
    bytes.reserve(2 * TrelanFrame::MAX_LINE_LENGTH + payloadSize);
    bytes += kind == TrelanFrame::Request ? WORD_REQUEST : WORD_REPLY;
    bytes += SEPARATOR;
    bytes += QByteArray::number(payloadSize);
    bytes += SEPARATOR;
    return bytes;
}

QByteArray compressed(const QVariantMap &envelope, TrelanTransport::Coding coding)
{
    return coding == TrelanTransport::Light ? TrelanFrame::compressLightly(json::compact(envelope))
                                            : TrelanFrame::compress(json::indented(envelope));
}

} // namespace

QString TrelanFrame::headerWord(Kind kind)
{
    return kind == Request ? HEADER_REQUEST : HEADER_REPLY;
}

QString TrelanFrame::lineText(const QByteArray &line)
{
    // With the size given, since a NUL byte would otherwise end the text and hide what follows it.
    return QString::fromLatin1(line.constData(), line.size()).simplified();
}

QVariantMap TrelanFrame::request(const QString &operation, const QVariantMap &data)
{
    return {{KEY_OPERATION, operation}, {KEY_DATA, data}};
}

QVariantMap TrelanFrame::reply(const QString &operation, const TrelanError &error,
                               const QVariantMap &data)
{
    const QVariantMap result {{KEY_CODE, int(error.error())},
                              {KEY_DESCRIPTION, error.description()}};
    return {{KEY_OPERATION, operation}, {KEY_DATA, data}, {KEY_RESULT, result}};
}

quint16 TrelanFrame::replyCode(const QVariantMap &result)
{
    const QVariant code = result.value(KEY_CODE);
    // QVariant would make numbers of these too.
    if (code.userType() == QMetaType::QString || code.userType() == QMetaType::Bool)
        return TrelanError::NoError;
    return quint16(code.toUInt());
}

QByteArray TrelanFrame::encode(Kind kind, const QVariantMap &envelope,
                               TrelanTransport::Coding coding)
{
    if (coding == TrelanTransport::Light)
        return encodeText(kind, json::compact(envelope));
    const QByteArray bytes = compressed(envelope, coding);
    QByteArray frame = lines(kind, base64::encodedSize(bytes.size()));
    base64::append(frame, bytes);
    return frame;
}

QByteArray TrelanFrame::encodeText(Kind kind, const QByteArray &json)
{
    static thread_local QByteArray _bytes;
    const Scratch scratch(_bytes);
    if (json.size() <= zstream::STORED_SIZE)
        zstream::store(json, _bytes);
    else
        _bytes = compressLightly(json);
    QByteArray frame = lines(kind, base64::encodedSize(_bytes.size()));
    base64::append(frame, _bytes);
    return frame;
}

QByteArray TrelanFrame::encodePayload(const QVariantMap &envelope, TrelanTransport::Coding coding)
{
    QByteArray payload;
    base64::append(payload, compressed(envelope, coding));
    return payload;
}

QByteArray TrelanFrame::frame(Kind kind, const QByteArray &payload)
{
    return lines(kind, payload.size()) += payload;
}

TrelanFrame::Payload TrelanFrame::decodePayload(const QByteArray &payload, qint64 maxInflatedSize)
{
    Fault fault = NoFault;
    Payload decoded = decodeJson(uncompress(base64::decode(payload), maxInflatedSize, &fault));
    if (fault != NoFault)
        decoded.fault = fault;
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
    static thread_local zstream::Deflater _deflater(Z_DEFAULT_COMPRESSION);
    return _deflater.compress(bytes);
}

QByteArray TrelanFrame::compressLightly(const QByteArray &bytes)
{
    if (bytes.size() <= zstream::STORED_SIZE)
        return zstream::store(bytes);
    static thread_local zstream::Deflater _deflater(Z_BEST_SPEED);
    return _deflater.compress(bytes);
}

QByteArray TrelanFrame::uncompress(const QByteArray &bytes, qint64 maxInflatedSize, Fault *fault)
{
    QByteArray inflated;
    if (stored::read(bytes, maxInflatedSize, inflated)) {
        *fault = NoFault;
        return inflated;
    }
    static thread_local zstream::Inflater _inflater;
    switch (_inflater.uncompress(bytes, maxInflatedSize, inflated)) {
    case zstream::Inflater::Done:
        *fault = NoFault;
        return inflated;
    case zstream::Inflater::TooLarge:
        *fault = TooLarge;
        return {};
    case zstream::Inflater::Damaged:
        break;
    }
    *fault = NotInflatable;
    return {};
}

} // namespace bus
