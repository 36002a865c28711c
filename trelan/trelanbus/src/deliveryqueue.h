#pragma once

#include <trelanmessage.h>

#include <QtCore/QByteArray>
#include <QtCore/QList>
#include <QtCore/QString>

namespace bus
{

/// One message on its way to a client.
struct Delivery
{
    enum Kind {
        Addressed,   ///< from another client
        Notification ///< of an object, for a subscriber
    };

    TrelanMessage message;
    QString key; // of the message: made once, compared with every acknowledgement
    Kind kind = Addressed;
    qint64 queuedAt = 0;
    qint64 sentAt = 0;
    qint64 frameSize = 0;
    int resends = 0;
    bool expired = false; // not to be sent again

    /// What keeping it takes, in bytes.
    qint64 cost() const;
};

/// \brief What one client has yet to get and to acknowledge, in order.
///
/// Bytes and times only: frames come out of takeFrame(), acknowledgements go in, and the time is an
/// argument, in milliseconds of a clock that never goes back.
///
/// The reader of a client reads frame by frame, drops one that does not come together, and forgets
/// messages older than the last hundred: hence a window, and hence a delivery that is not
/// acknowledged although a later one is counts as dropped and is sent again.
class DeliveryQueue
{
public:
    static constexpr int MAX_IN_FLIGHT = 64;
    static constexpr qint64 MAX_BYTES_IN_FLIGHT = 32 * 1024; ///< or one larger frame alone
    static constexpr int MAX_RESENDS = 3;
    static constexpr qint64 SILENCE_MS = 60000;
    static constexpr qint64 ANSWER_WAIT_MS = 60000;

    void append(const TrelanMessage &message, Delivery::Kind kind, qint64 now);

    /// The frame to send next, which is then in flight; empty if there is none, or the window is
    /// full.
    QByteArray takeFrame(qint64 now);

    /// The client has acknowledged a delivery; others may have been dropped. Returns false if
    /// nothing of the kind is in flight.
    bool acknowledge(const QString &sender, const QString &reciever, const QString &uid,
                     qint64 now);

    /// Something is known to go on: the silence begins anew.
    void heard(qint64 now);

    /// What was in flight goes out again, before anything newer.
    void restart();

    /// Forgets the notifications, since the subscriptions are gone. Those in flight count until
    /// they are acknowledged, but are not sent again.
    void dropNotifications();

    /// Drops the oldest of a kind that waits. False if there is none.
    bool dropOldest(Delivery::Kind kind);

    /// Sends the oldest again when nothing was heard of it for long, and gives up calls that waited
    /// for so long that nobody waits for the answer any more.
    void checkTimes(qint64 now);

    /// Whether time alone can change anything, so that checkTimes() has to be called.
    bool hasDeadline() const;

    /// What was given up since the last call, for the log.
    QList<Delivery> takeGivenUp();

    bool isEmpty() const;
    int count() const;
    qint64 bytes() const;

private:
    bool settleWaiting(const QString &key);
    void sendAgain(int number);
    void forget(const Delivery &delivery);

    QList<Delivery> _waiting;
    QList<Delivery> _inFlight;
    QList<Delivery> _givenUp;
    QByteArray _nextFrame; // of the first that waits, once it was needed
    qint64 _bytes = 0;
    qint64 _bytesInFlight = 0;
    qint64 _heardAt = 0;
};

} // namespace bus
