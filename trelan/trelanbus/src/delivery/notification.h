#pragma once

#include "delivery/queuedmessage.h"
#include "values/objectrecord.h"

#include <trelantransport.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace bus
{

/// \brief Makes the messages that tell subscribers of a value.
///
/// One value usually goes to many subscribers in turn: what all of them are told is made once, and
/// kept until the next value is asked for. One thread.
class Notification
{
public:
    explicit Notification(TrelanTransport::Coding coding);

    /// The message that tells \a receiver of \a record.
    QueuedMessage message(const ObjectRecord &record, const QString &receiver);

    /// Whether the storage keeps the value, so that it can be read there when it is sent.
    static bool isKept(const ObjectRecord &record);
    /// How many bytes the waiting message takes, roughly.
    static qint64 cost(const ObjectRecord &record);
    /// What all subscribers are told of \a record.
    static MessageBody::Ref body(const ObjectRecord &record, TrelanTransport::Coding coding);

private:
    TrelanTransport::Coding _coding;
    QByteArray _content; // of the last value; shared with its record
    MessageBody::Ref _body;
};

} // namespace bus
