#include "framedump.h"

#include "terminaltext.h"

#include <trelanframereader.h>

#include <QtCore/QJsonDocument>
#include <QtCore/QJsonObject>

#include <cctype>

namespace trelanctl
{

namespace
{

using bus::TrelanFrame;
using bus::TrelanFrameReader;

/// What is wrong with a payload; empty if nothing is.
QString faultText(const TrelanFrame::Payload &payload, const QJsonDocument &envelope)
{
    switch (payload.fault) {
    case TrelanFrame::NotInflatable:
        return QStringLiteral("the payload is not base64 of compressed data, cut off or damaged");
    case TrelanFrame::TooLarge:
        return QStringLiteral("the payload inflates to more than %1 bytes")
            .arg(TrelanFrame::maxInflatedSize());
    case TrelanFrame::NotJson:
        return QStringLiteral("the payload inflates to %1 bytes that are no JSON: %2")
            .arg(payload.json.size())
            .arg(payload.errorText);
    case TrelanFrame::NoFault:
        break;
    }
    return envelope.isObject() ? QString()
                               : QStringLiteral("the payload is JSON, but not an object");
}

void dumpFrame(FrameDump &dump, int number, const TrelanFrameReader &reader, bool asJson)
{
    const bool request = reader.kind() == TrelanFrame::Request;
    const QString kind = request ? QStringLiteral("request") : QStringLiteral("reply");
    const int size = reader.payload().size();
    const TrelanFrame::Payload payload = TrelanFrame::decodePayload(reader.payload());
    const QJsonDocument envelope = QJsonDocument::fromJson(payload.json);
    const QString fault = faultText(payload, envelope);
    if (!fault.isEmpty()) {
        dump.errors.append(QStringLiteral("frame %1 (%2, %3 bytes): %4")
                               .arg(QString::number(number), kind, QString::number(size), fault));
        return;
    }
    if (asJson) {
        const QJsonObject line = {{QStringLiteral("kind"), kind},
                                  {QStringLiteral("size"), size},
                                  {QStringLiteral("envelope"), envelope.object()}};
        dump.lines.append(
            terminal::escapedJson(QJsonDocument(line).toJson(QJsonDocument::Compact)));
        return;
    }
    dump.lines.append(QStringLiteral("frame %1: %2, %3 bytes of payload, %4 bytes of JSON")
                          .arg(number)
                          .arg(kind)
                          .arg(size)
                          .arg(payload.json.size()));
    dump.lines.append(terminal::escapedJson(envelope.toJson().trimmed()));
}

int lengthWithoutTrailingSpace(const QByteArray &bytes)
{
    int length = bytes.size();
    while (length > 0 && std::isspace(static_cast<unsigned char>(bytes.at(length - 1))) != 0)
        --length;
    return length;
}

} // namespace

FrameDump dumpFrames(QByteArray stream, bool asJson)
{
    FrameDump dump;
    const int length = lengthWithoutTrailingSpace(stream);
    QByteArray tail = stream.mid(length);
    stream.truncate(length);

    TrelanFrameReader reader(length + tail.size());
    reader.feed(stream);
    int number = 1;
    TrelanFrameReader::Status status = reader.next();
    for (;; status = reader.next()) {
        if (status == TrelanFrameReader::FrameReady) {
            dumpFrame(dump, number++, reader, asJson);
        } else if (status == TrelanFrameReader::NeedMoreData && reader.isInsideFrame() &&
                   !tail.isEmpty()) {
            reader.feed(tail); // the white space belongs to the frame
            tail.clear();
        } else {
            break;
        }
    }
    if (status == TrelanFrameReader::Malformed)
        dump.errors.append(
            QStringLiteral("frame %1: %2").arg(number).arg(terminal::escaped(reader.faultText())));
    else if (status == TrelanFrameReader::TooLarge || reader.isInsideFrame())
        dump.errors.append(
            QStringLiteral("frame %1: the input ends before the frame does").arg(number));
    else if (number == 1)
        dump.errors.append(QStringLiteral("no frame: the input is empty"));
    return dump;
}

} // namespace trelanctl
