#include "trelanframereader.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>
#include <QtCore/QStringList>

using bus::TrelanFrame;
using bus::TrelanFrameReader;

namespace
{

void require(bool holds, const char *what)
{
    if (!holds) {
        fprintf(stderr, "%s\n", what);
        abort();
    }
}

/// What Qt's own functions make of the payload, unless they would take what memory it declares.
void checkPayload(const QByteArray &payload)
{
    const TrelanFrame::Payload decoded = TrelanFrame::decodePayload(payload, 1 << 26);
    const QByteArray compressed = QByteArray::fromBase64(payload);
    if (!compressed.isEmpty() && compressed.at(0) != 0)
        return;
    const QByteArray json = qUncompress(compressed);
    QJsonParseError error {};
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    const bool fails = error.error != QJsonParseError::NoError;
    require(decoded.json == json, "inflated otherwise than by Qt");
    require((decoded.fault != TrelanFrame::NoFault) == fails, "refused otherwise than by Qt");
    require(decoded.envelope == document.object().toVariantMap(), "another envelope");
    require(decoded.errorText.isEmpty() != fails, "a fault without a text");
}

QStringList readAll(const QByteArray &stream, int chunk)
{
    TrelanFrameReader reader(1 << 16);
    QStringList seen;
    for (int at = 0; at < stream.size(); at += chunk) {
        reader.feed(stream.mid(at, chunk));
        while (reader.next() == TrelanFrameReader::FrameReady) {
            checkPayload(reader.payload());
            seen << QString::fromLatin1(reader.payload().toHex()) + QChar('0' + reader.kind());
        }
    }
    return seen << reader.faultText() << QString::number(reader.isInsideFrame());
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    return 0;
}

/// The first byte says what the rest is: JSON, compressed data, or else a whole stream that is cut
/// into chunks of that many bytes.
extern "C" int LLVMFuzzerTestOneInput(const quint8 *data, size_t size)
{
    const int chunk = size > 0 ? data[0] : 0;
    const QByteArray rest = QByteArray(reinterpret_cast<const char *>(data), int(size)).mid(1);
    if (chunk < 2)
        checkPayload(chunk == 0 ? qCompress(rest).toBase64() : rest.toBase64());
    else
        require(readAll(rest, chunk) == readAll(rest, rest.size() + 1), "chunks matter");
    return 0;
}
