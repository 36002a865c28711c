#include "qtleaks.h"
#include "trelanframereader.h"

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

using namespace bus;

namespace
{

bool agreesWithQt(const QByteArray &payload)
{
    const TrelanFrame::Payload decoded = TrelanFrame::decodePayload(payload, 1 << 26);
    const QByteArray compressed = QByteArray::fromBase64(payload);
    if (!compressed.isEmpty() && compressed.at(0) != 0)
        return true; // Qt would allocate as much as it declares
    const QByteArray json = qUncompress(compressed);
    QJsonParseError error {};
    const QJsonDocument document = QJsonDocument::fromJson(json, &error);
    const bool fails = error.error != QJsonParseError::NoError;
    return decoded.json == json && (decoded.fault != TrelanFrame::NoFault) == fails &&
           decoded.envelope == document.object().toVariantMap() &&
           decoded.errorText.isEmpty() != fails;
}

/// Describes in one text what the reader makes of the stream.
QString readAll(const QByteArray &stream, int chunk)
{
    TrelanFrameReader reader(1 << 16);
    QString seen;
    for (int at = 0; at < stream.size(); at += chunk) {
        reader.feed(stream.mid(at, chunk));
        while (reader.next() == TrelanFrameReader::FrameReady) {
            if (!agreesWithQt(reader.payload()))
                abort();
            seen += TrelanFrame::headerWord(reader.kind()) + QString::fromLatin1(reader.payload());
        }
    }
    return seen + QString::number(reader.isInsideFrame()) + reader.faultText();
}

} // namespace

/// The first byte says what the rest is: JSON, compressed data, or else a whole stream that is cut
/// into chunks of that many bytes.
extern "C" int LLVMFuzzerTestOneInput(const quint8 *data, size_t size)
{
    qInstallMessageHandler([](QtMsgType, const QMessageLogContext &, const QString &) {});
    const int chunk = size > 0 ? data[0] : 0;
    const QByteArray rest = QByteArray(reinterpret_cast<const char *>(data), int(size)).mid(1);
    const bool good = chunk == 0   ? agreesWithQt(qCompress(rest).toBase64())
                      : chunk == 1 ? agreesWithQt(rest.toBase64())
                                   : readAll(rest, chunk) == readAll(rest, rest.size() + 1);
    if (!good)
        abort();
    return 0;
}
