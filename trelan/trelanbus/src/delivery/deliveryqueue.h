#pragma once

#include "delivery/deliverybody.h"

#include <QtCore/QByteArray>
#include <QtCore/QHash>
#include <QtCore/QList>
#include <QtCore/QSet>
#include <QtCore/QString>
#include <QtCore/QVector>

#include <deque>
#include <functional>

namespace bus
{

/// One message on its way to a client.
struct Delivery
{
    enum Kind {
        Addressed, ///< from another client
        Value,     ///< notification of a stored object
        Event      ///< notification of an object that is not stored
    };

    DeliveryBody::Ref body;
    QString reciever;
    QString uid;
    QString key;    // of the message: made once, compared with every acknowledgement
    QString object; // of a notification: what it is about
    Kind kind = Addressed;
    qint64 storedId = 0; // on disk; 0 if it is not there
    quint64 number = 0;  // its place
    qint64 queuedAt = 0;
    qint64 sentAt = 0;
    qint64 frameSize = 0;
    int resends = 0;
    bool sent = false;      // at least once
    bool conflated = false; // the value is taken from the storage each time it is sent
    bool expired = false;   // not to be sent again
    bool outlived = false;  // given up since it waited longer than messages do

    Delivery() = default;
    Delivery(const DeliveryBody::Ref &body, const QString &reciever, const QString &uid);
    void setUid(const QString &newUid);

    /// What keeping it takes, in bytes.
    qint64 cost() const;
    QByteArray frame(TrelanTransport::Coding coding) const;
};

/// \brief What one client has yet to get and to acknowledge, in order.
///
/// Bytes and times only: frames come out of takeFrame(), acknowledgements go in, and the time is an
/// argument, in milliseconds of a clock that never goes back.
///
/// The reader of a client reads frame by frame, drops one that does not come together, and forgets
/// messages older than the last hundred: hence a window, and hence a delivery that is not
/// acknowledged although a later one is counts as dropped and is sent again.
///
/// Beside messages the names of objects can wait, in their place among them. Such a name takes
/// little, and becomes a message with the value of then when its turn comes.
class DeliveryQueue
{
public:
    static constexpr int MAX_IN_FLIGHT = 64;
    static constexpr qint64 MAX_BYTES_IN_FLIGHT = 32 * 1024; ///< or one larger frame alone
    /// Likewise, for a reader that takes what has arrived whatever its pieces.
    static constexpr qint64 MAX_BYTES_IN_FLIGHT_PROMPT = 256 * 1024;
    static constexpr int LARGE_TEXT = 128 * 1024; ///< of a message, in bytes
    static constexpr int MAX_RESENDS = 3;
    static constexpr qint64 SILENCE_MS = 60000;
    static constexpr qint64 ANSWER_WAIT_MS = 60000;

    /// The notification of the newest value of an object; without a body if there is none any more.
    using Newest = std::function<Delivery(const QString &name)>;

    /// Its time of queueing may be before the times that other methods were given: then it has
    /// waited since.
    void append(Delivery delivery);

    /// The newest value of this object is to be sent, once, however often this is called before. If
    /// \a fresh, under an id that the receiver cannot know.
    void appendName(const QString &name, bool fresh);
    bool hasName(const QString &name) const;

    /// Whether takeFrame() may have a frame; it has none otherwise.
    bool hasNext() const;

    /// The message to send next if it is so large that others would wait for its frame, and it has
    /// none yet: whoever asks makes one elsewhere, and gives it to setFrame(). Null otherwise.
    const Delivery *largeToEncode(const Newest &newest);
    /// The frame of the message with this key, which counts if that is still the next.
    void setFrame(const QString &key, const QByteArray &frame);

    /// The frame to send next, which is then in flight; empty if there is none, or the window is
    /// full.
    QByteArray takeFrame(qint64 now, const Newest &newest = {},
                         TrelanTransport::Coding coding = TrelanTransport::Classic);

    /// How its reader reads.
    void setMode(TrelanTransport::Mode mode);

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

    /// Forgets everything, since the client has gone for good.
    void clear();

    /// Drops the oldest of a kind that waits; not the one that is next, if that is to be kept.
    /// False if there is none.
    bool dropOldest(Delivery::Kind kind, bool keepNext);

    /// Sends the oldest again when nothing was heard of it for long, and gives up messages that
    /// waited for \a lifetime, and calls for whose answer nobody waits any more.
    void checkTimes(qint64 now, qint64 lifetime);

    /// Whether time alone can change anything, so that checkTimes() has to be called.
    bool hasDeadline() const;

    /// What was given up since the last call, for the log.
    QList<Delivery> takeGivenUp();

    /// What need not be on disk any more, by id, since the last call.
    QVector<qint64> takeSettled();

    bool isEmpty() const;
    /// Messages, the names of objects left out.
    int count() const;
    int nameCount() const;
    qint64 bytes() const; ///< of the messages
    qint64 nameBytes() const;

    static qint64 nameCost(const QString &name);

private:
    struct Name
    {
        QString name;
        quint64 number;
        int resends; // of its message
    };

    /// One that was sent, as its receiver may remember it.
    struct Sent
    {
        QString key;
        QString object;
        size_t text; // its digest
    };

    void takeNames(const Newest &newest);
    bool wouldBeDropped(const Delivery &delivery) const;
    void freshenFirst();
    void remember(const Delivery &delivery);
    bool isAnswerLate(const Delivery &delivery, qint64 now) const;
    bool settleWaiting(const QString &key);
    void sendAgain(int number);
    void waitAgain(const Delivery &delivery);
    static bool isSuperseded(const Delivery &older, const Delivery &newer);
    void forget(const Delivery &delivery);

    QList<Delivery> _waiting;
    QList<Delivery> _inFlight;
    std::deque<Name> _names;
    std::deque<Sent> _sent;        // the last of them
    QSet<QString> _sentKeys;       // theirs
    QHash<QString, bool> _isFresh; // of each of the names
    quint64 _lastNumber = 0;
    QList<Delivery> _givenUp;
    QVector<qint64> _settled;
    QByteArray _nextFrame; // of the first that waits, once it was needed
    qint64 _bytes = 0;
    qint64 _nameBytes = 0;
    qint64 _bytesInFlight = 0;
    qint64 _maxBytesInFlight = MAX_BYTES_IN_FLIGHT;
    qint64 _heardAt = 0;
};

} // namespace bus
