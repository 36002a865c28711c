#pragma once

#include "delivery/busoutput.h"
#include "delivery/clientqueue.h"
#include "delivery/notification.h"
#include "storage/busstorage.h"
#include "trelanbussettings.h"
#include "values/buslog.h"

#include <QtCore/QCache>
#include <QtCore/QElapsedTimer>
#include <QtCore/QHash>
#include <QtCore/QMap>
#include <QtCore/QSet>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <functional>

namespace bus
{

/// \brief What waits for whom: a queue for every client that has something to get, bounded client
/// by client and in all, and the message connection of the client while there is one.
///
/// Messages are refused at a bound. Notifications are not: once a client is behind, only the newest
/// value of a stored object waits, which takes the memory of a name; of objects that are not stored
/// the oldest notifications are dropped. Stored messages are on disk before they are accepted,
/// where there is a disk, and until they are acknowledged.
///
/// Whatever is queued is sent as soon as the connection takes it. One thread.
class BusDelivery
{
public:
    using Done = std::function<void(const TrelanError &)>;
    using Sent = std::function<void(ConnectionId)>;

    /// \a onSent is called for each frame that is handed to a connection.
    BusDelivery(const TrelanBusSettings &settings, BusStorage &storage, BusOutput &output,
                Sent onSent);

    /// Takes over the messages that were on disk at the start.
    void restore();

    /// Accepts a message for its receiver, or says why not. \a done is called at once or when the
    /// message is on disk, and in any case before the message is sent. A message with a \a limit,
    /// in milliseconds, is never on disk, and dropped if it was not sent by then.
    void accept(const TrelanMessage &message, qint64 limit, const Done &done);
    /// Whether accept() puts the message on disk, whatever becomes of the messages that are on
    /// their way there.
    bool surelyGoesToDisk(const TrelanMessage &message, qint64 limit) const;

    /// Clients that are past a bound and cannot be told what they have subscribed to any more, each
    /// with the bound, for people.
    using Overruns = QMap<QString, QString>;

    /// Notifies \a clients of a value, one after the other.
    Overruns deliver(const ObjectRecord &record, const QStringList &clients);
    /// Tells \a clients, one after the other, that \a remover has removed an object at \a time, in
    /// milliseconds since the epoch.
    Overruns deliverRemoval(const QString &object, const QString &remover, qint64 time,
                            const QStringList &clients);
    /// Notifies \a client of the stored values of these objects, with ids that it cannot know.
    Overruns deliverStored(const QStringList &objects, const QString &client);
    /// Notifies \a client of the stored values and, when it has them all, that they were all, which
    /// repeats \a wildcards. From now on its notifications of stored objects say whether they are
    /// changes, until dropNotifications(). toldFault() has to be asked before.
    Overruns tellStored(const QStringList &objects, const QString &client,
                        const QString &wildcards);
    /// Why \a client cannot be told now that all values of \a wildcards have been told.
    TrelanError toldFault(const QString &client, const QString &wildcards) const;
    /// The client's subscriptions are gone.
    void dropNotifications(const QString &client);

    /// The message connection of the client \a name is \a id from now on; \a mode is how it reads.
    /// Nothing is sent before sendMore(). If \a transient, its queue ends with the connection, and
    /// for an hour nothing waits for the name, so that a late answer does not begin a new queue.
    void attach(const QString &name, ConnectionId id, TrelanTransport::Mode mode,
                bool transient = false);
    /// The client has no message connection any more.
    void detach(const QString &client);

    /// The client has answered a message, whatever it said.
    void acknowledge(const QString &client, const QString &sender, const QString &reciever,
                     const QString &uid);

    /// \brief Reads acknowledgements that have arrived: those that have begun to matter, or all.
    ///
    /// Each acknowledgement that is read as it comes wakes the bus up. So those of a client that
    /// reads frames in any pieces wait unread while nothing depends on them: see
    /// ClientQueue::mayHearLate(). What is read comes back through acknowledge().
    /// @{
    void hearDue(); ///< To be called after everything that may have sent something.
    void hearAll();
    /// @}
    /// To be called before deliver(): near the bound of all queues every acknowledgement matters,
    /// and in a row of publishes those that have begun to.
    void makeRoom();

    /// Sends what may be sent: the connection of the client is new or has room again.
    void sendMore(const QString &client);

    /// To be called about once a second while hasDeadline().
    void checkTimes();
    /// Whether time alone changes anything. Looks at every queue; hasQueues() is quicker, and
    /// without queues there is no deadline.
    bool hasDeadline() const;
    bool hasQueues() const;

    /// Clients that have a queue, empty or not.
    QStringList names() const;
    int queuedMessages(const QString &client) const;
    qint64 queuedBytes(const QString &client) const;

private:
    struct Client
    {
        ClientQueue queue;
        ConnectionId connection = 0;
        bool transient = false;   // its queue ends with its connection
        bool mayHearLate = false; // how it reads allows that
        bool hearsLate = false;   // its acknowledgements wait unread
        bool encoding = false;    // its next frame is being made
        int reservedMessages = 0; // on their way to the disk
        qint64 reservedBytes = 0;
        qint64 accounted = 0; // what _bytes holds of this queue
        qint64 accountedNames = 0;
        qint64 lostEvents = 0; // not in the log yet
    };

    Client &client(const QString &name);
    bool hasLeft(const QString &name) const;
    bool isConnected(const QString &name) const;
    bool isKept(const TrelanMessage &message, qint64 limit) const;
    TrelanError roomFault(const QString &name, qint64 cost) const;
    bool isFull(const Client &client, int messages, qint64 bytes) const;
    bool isBehind(const QString &name, const QString &object, qint64 cost) const;
    Notification::Stored wording(const QString &client, bool now) const;
    Overruns queueStored(const QStringList &objects, const QString &client,
                         Notification &notification);
    QString notify(const QString &name, const ObjectRecord &record, bool now,
                   Notification &notification);
    QString appendName(const QString &name, const QString &object,
                       const ClientQueue::NameState &state);
    void append(const QString &name, QueuedMessage message, qint64 queuedAt);
    void append(const TrelanMessage &message, qint64 queuedAt, qint64 storedId, qint64 limit);
    void keep(const TrelanMessage &message, qint64 cost, const Done &done);
    void finish(const TrelanMessage &message, const TrelanError &error, const Done &done);
    void reserve(const QString &name, int messages, qint64 bytes);
    void sendMore(const QString &name, Notification &notification);
    bool sendNext(const QString &name, Notification &notification);
    void chooseHearing(const QString &name);
    bool mayHearLate(const Client &client) const;
    bool isTight() const;
    bool needsRoom(const QString &name, qint64 cost) const;
    void setHearsLate(Client &client, bool late);
    bool encodesLarge(const QString &name, Client &client, const ClientQueue::Newest &newest);
    void dropExcess(const QString &name);
    void dropExcess(const QString &name, Client &client, QueuedMessage::Kind kind);
    void warnOfLostEvents(const QString &name, Client &client);
    void countLostLogLines(qint64 lines);
    void settleAccount(const QString &name);
    qint64 now() const;

    const TrelanBusSettings _settings;
    BusStorage &_storage;
    BusOutput &_output;
    const Sent _onSent;
    QElapsedTimer _clock;
    QHash<QString, Client> _clients;
    QSet<QString> _told;           // clients that are told whether a value is a change
    QCache<QString, qint64> _left; // when a transient client went, by name
    QStringList _hearingDue;       // clients whose acknowledgements have begun to matter
    bool _isHearing = false;
    int _hearingLate = 0; // clients whose acknowledgements wait unread
    int _absent = 0;      // clients without a connection
    qint64 _bytes = 0;    // of all messages, those on their way to the disk included
    qint64 _nameBytes = 0;
    qint64 _lostLogLines = 0;
    QElapsedTimer _logWarning;
    WarningLimiter _warnings;
};

} // namespace bus
