#pragma once

#include "delivery/messagebody.h"

#include <trelantransport.h>

#include <QtCore/QByteArray>
#include <QtCore/QString>

namespace bus
{

/// One message on its way to one client.
struct QueuedMessage
{
    enum Kind {
        Direct, ///< from another client
        Value,  ///< notification of a stored object
        Event,  ///< notification of an object that is not stored
        Marker  ///< says that everything before it has been told
    };

    MessageBody::Ref body;
    QString reciever;
    QString uid;
    QString key;    // tells it from other messages; every acknowledgement is compared with it
    QString object; // the name of the object that a notification is about
    Kind kind = Direct;
    qint64 storedId = 0; // on disk; 0 if it is not there
    quint64 number = 0;  // its place in the queue
    qint64 queuedAt = 0;
    qint64 endsAt = 0; // not to be sent from then on; 0 is never
    qint64 sentAt = 0;
    qint64 frameSize = 0;
    int resends = 0;
    bool sent = false;      // at least once
    bool conflated = false; // the value is read from the storage each time it is sent
    bool now = false;       // a value that the client has asked for, rather than a change
    bool removal = false;   // tells that the object is gone
    bool expired = false;   // not to be sent again
    bool outlived = false;  // given up after the lifetime of messages

    QueuedMessage() = default;
    QueuedMessage(const MessageBody::Ref &sharedBody, const QString &toReciever,
                  const QString &messageUid);
    void setUid(const QString &newUid);

    static QString keyOf(const QString &sender, const QString &reciever, const QString &uid);

    /// How many bytes the waiting message takes, roughly.
    qint64 cost() const;
    QByteArray frame(TrelanTransport::Coding coding) const;
};

} // namespace bus
