#pragma once

#include "request/jsontext.h"
#include "values/objectrecord.h"

#include <trelanframe.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>
#include <QtCore/QVariantMap>

/// What clients have sent, taken apart. Pure; any thread.
///
/// JSON in which an object has a key twice is refused: Qt 5, to which unusual texts are left, would
/// take the last value and lose the memory of the others, so that a client could have the bus lose
/// as much as it likes.
namespace bus::payload
{

struct Request
{
    TrelanFrame::Fault fault = TrelanFrame::NoFault;
    QString errorText;    ///< of JSON that is none
    QVariantMap envelope; ///< unless it is a publish that has nothing unusual

    bool isPublish = false;
    ObjectRecord record; ///< of such a publish; its name and its time are still to be checked
    bool hasTime = false;
    jsontext::Measure measure; ///< of its content
};
/// The longest id of a value or a message; what acknowledges it repeats it.
constexpr int MAX_UID = 1024;

Request decodeRequest(const QByteArray &payload, qint64 maxInflatedSize);

/// The answer to a delivery. One that is none, or cannot be read, has no operation.
struct Acknowledgement
{
    QString operation;
    QString sender;
    QString reciever;
    QString uid;
};
Acknowledgement decodeAcknowledgement(const QByteArray &payload, qint64 maxInflatedSize);

} // namespace bus::payload
