#pragma once

#include "values/objectrecord.h"

#include <trelanframe.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

/// What clients have sent, taken apart. Pure; any thread.
///
/// One parser judges every text, and JSON in which an object has a key twice is refused: Qt 5,
/// which makes maps of unusual texts, would take the last value and lose the memory of the others,
/// so that a client could have the bus lose as much as it likes.
namespace bus::payload
{

/// What a content measures beside its bytes.
struct Measure
{
    int depth = 0;          ///< levels of nesting
    qint64 indentation = 0; ///< bytes that are added when it is indented inside an envelope
};

struct Request
{
    TrelanFrame::Fault fault = TrelanFrame::NoFault;
    QString errorText;    ///< what is wrong with JSON that is refused
    QVariantMap envelope; ///< unless isPublish
    Measure measure;      ///< of the content of a publish

    bool isPublish = false; ///< a publish without anything unusual, and these are its values
    ObjectRecord record;    ///< its name and its time are still to be checked
    bool hasTime = false;
};
/// The longest id of a value or a message; what acknowledges it repeats it.
constexpr int MAX_UID = 1024;

Request decodeRequest(const QByteArray &payload, qint64 maxInflatedSize);

/// The answer to a message. An answer that cannot be read has no operation.
struct Acknowledgement
{
    QString operation;
    QString sender;
    QString reciever;
    QString uid;
};
Acknowledgement decodeAcknowledgement(const QByteArray &payload, qint64 maxInflatedSize);

} // namespace bus::payload
