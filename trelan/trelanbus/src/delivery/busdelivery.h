#pragma once

#include "delivery/busoutput.h"
#include "delivery/deliveryqueue.h"
#include "storage/busstorage.h"
#include "trelanbussettings.h"
#include "values/buslog.h"

#include <QtCore/QCache>
#include <QtCore/QElapsedTimer>
#include <QtCore/QHash>
#include <QtCore/QPair>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <functional>

namespace bus
{

/// \brief A published value on its way to its subscribers. What they all get is made when the first
/// of them needs it.
class Notification
{
public:
    Notification(const ObjectRecord &record, TrelanTransport::Coding coding, bool forMany = false);

    /// Whether the value can be taken from the storage later, since it is kept there.
    bool isKept() const;
    QString name() const;
    /// What keeping its message takes, in bytes, roughly.
    qint64 cost() const;

    Delivery delivery(const QString &receiver);

private:
    const ObjectRecord &_record;
    const TrelanTransport::Coding _coding;
    const bool _isForMany;
    DeliveryBody::Ref _body;
};

/// \brief What waits for whom: a queue for every client that has something to get, bounded one by
/// one and in all, and its message connection while there is one.
///
/// Messages are refused at a bound. Notifications are not: of a stored object only the newest value
/// waits once a client is behind, so that it costs the length of a name; of objects that are not
/// stored the oldest go. Stored messages are on disk before they are accepted, where there is a
/// disk, and until they are acknowledged.
///
/// Nothing is sent before pump() is called. One thread.
class BusDelivery
{
public:
    using Done = std::function<void(const TrelanError &)>;

    /// \a ready is called later with a client that is to be pumped, since a frame of it is made.
    BusDelivery(const TrelanBusSettings &settings, BusStorage &storage, BusOutput &output,
                const std::function<void(const QString &client)> &ready);

    /// Takes over the messages that were on disk at the start.
    void restore();

    /// Accepts a message for its receiver, or says why not. \a done is called at once or when the
    /// message is on disk.
    void accept(const TrelanMessage &message, const Done &done);

    /// Queues a notification for a subscriber. One that is \a fresh is news to a receiver that
    /// knows the value. Returns which bound the client is past, for people, usually nothing: then
    /// it cannot be told what it has subscribed any more.
    QString notify(const QString &client, Notification &notification, bool fresh = false);
    /// Around the subscribers of one publish, who are notified and pumped in between.
    void beginNotification();
    void endNotification();
    /// The client's subscriptions are gone.
    void dropNotifications(const QString &client);

    /// The message connection of the client \a name is \a id from now on, which is read in this
    /// way. If \a transient, its queue ends with the connection, and for an hour nothing waits for
    /// the name, so that a late answer does not begin a new queue.
    void attach(const QString &name, ConnectionId id, TrelanTransport::Mode mode,
                bool transient = false);
    /// The client has no message connection any more.
    void detach(const QString &client);

    /// The client has answered a delivery, whatever it said.
    void acknowledge(const QString &client, const QString &sender, const QString &reciever,
                     const QString &uid);

    /// Sends what may be sent. Returns how many frames that were.
    int pump(const QString &client);

    /// To be called after pump() where something was queued: what neither fits nor could be sent is
    /// dropped, the oldest first.
    void trim(const QString &client);

    /// To be called about once a second while hasDeadline(), and each client to be pumped then.
    void checkTimes();
    /// Whether time alone changes anything. Looks at every queue; without any, which hasQueues()
    /// tells at once, there is no deadline.
    bool hasDeadline() const;
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
        bool transient = false;   // its queue ends with its connection
        bool encoding = false;    // its next frame is being made
        int reservedMessages = 0; // on their way to the disk
        qint64 reservedBytes = 0;
        qint64 accounted = 0; // of the bytes of the queue
        qint64 accountedNames = 0;
        qint64 lostEvents = 0; // not in the log yet
    };

    Client &client(const QString &name);
    bool hasLeft(const QString &name);
    TrelanError roomFault(const QString &name, qint64 cost) const;
    bool isFull(const Client &client, int messages, qint64 bytes) const;
    bool isBehind(const QString &name, const Notification &notification) const;
    QString appendName(const QString &name, const QString &object, bool fresh);
    void append(const QString &name, Delivery delivery, qint64 queuedAt);
    void append(const TrelanMessage &message, qint64 queuedAt, qint64 storedId = 0);
    void keep(const TrelanMessage &message, qint64 cost, const Done &done);
    void reserve(const QString &name, int messages, qint64 bytes);
    Delivery newestOf(const QString &receiver, const QString &object);
    bool encodesLarge(const QString &name, Client &client, const DeliveryQueue::Newest &newest);
    void dropExcess(const QString &name, Client &client, Delivery::Kind kind);
    void warnOfLostEvents(const QString &name, Client &client);
    void countLostLogLines(qint64 lines);
    void changed(const QString &name);
    qint64 now() const;

    const TrelanBusSettings _settings;
    BusStorage &_storage;
    BusOutput &_output;
    const std::function<void(const QString &)> _ready;
    QElapsedTimer _clock;
    QHash<QString, Client> _clients;
    QCache<QString, qint64> _left; // when a transient client went, by name
    bool _notifies = false;
    QPair<QByteArray, DeliveryBody::Ref>
        _newest;       // the last content that was asked for, and what it says
    int _absent = 0;   // of them, without a connection
    qint64 _bytes = 0; // of all messages, those on their way to the disk included
    qint64 _nameBytes = 0;
    qint64 _lostLogLines = 0;
    QElapsedTimer _logWarning;
    WarningLimiter _warnings;
};

} // namespace bus
