#pragma once

#include "buslog.h"
#include "busoutput.h"
#include "deliveryqueue.h"
#include "trelanbussettings.h"

#include <trelanobject.h>

#include <QtCore/QElapsedTimer>
#include <QtCore/QHash>
#include <QtCore/QString>
#include <QtCore/QStringList>

namespace bus
{

/// \brief What waits for whom: a queue for every client that has something to get, bounded one by
/// one and in all, and its message connection while there is one.
///
/// Nothing is sent before pump() is called. One thread.
class BusDelivery
{
public:
    BusDelivery(const TrelanBusSettings &settings, BusOutput &output);

    /// Accepts a message for its receiver, or says why not.
    TrelanError accept(const TrelanMessage &message);

    /// Queues the notification of \a object for a subscriber. One that is \a fresh is news to a
    /// receiver that knows the value.
    void notify(const QString &client, const TrelanObject &object, bool fresh = false);
    /// The client's subscriptions are gone.
    void dropNotifications(const QString &client);

    /// The client's message connection is \a id from now on.
    void attach(const QString &client, ConnectionId id);
    /// It has none.
    void detach(const QString &client);

    /// The client has answered a delivery, whatever it said.
    void acknowledge(const QString &client, const QString &sender, const QString &reciever,
                     const QString &uid);

    /// Sends what may be sent. Returns how many frames that were.
    int pump(const QString &client);

    /// To be called about once a second while hasQueues(). Returns false when time alone changes
    /// nothing any more, so that it need not be called before something else has happened.
    bool checkTimes();
    bool hasQueues() const;

    /// Clients that have a queue, empty or not.
    QStringList names() const;
    int queuedMessages(const QString &client) const;
    qint64 queuedBytes(const QString &client) const;

private:
    struct Client
    {
        DeliveryQueue queue;
        ConnectionId connection = 0;
    };

    TrelanError roomFault(const QString &name, const TrelanMessage &message) const;
    bool isFull(const DeliveryQueue &queue, int messages, qint64 bytes) const;
    void append(const QString &name, const TrelanMessage &message, Delivery::Kind kind);
    void dropExcess(const QString &name, DeliveryQueue &queue, Delivery::Kind kind,
                    qint64 bytesBefore);
    void countLostLogLines(qint64 lines);
    void changed(const QString &name, qint64 bytesBefore);
    qint64 now() const;

    const TrelanBusSettings _settings;
    BusOutput &_output;
    QElapsedTimer _clock;
    QHash<QString, Client> _clients;
    qint64 _bytes = 0;
    qint64 _lostLogLines = 0;
    QElapsedTimer _logWarning;
    WarningLimiter _warnings;
};

} // namespace bus
