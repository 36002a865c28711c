#pragma once

#include "delivery/queuedmessage.h"

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

/// \brief What one client has yet to get and to acknowledge, in order.
///
/// The queue knows bytes and times only: frames come out of takeFrame(), acknowledgements go in,
/// and the time is an argument, in milliseconds of a clock that never goes back.
///
/// A client reads frame by frame, drops a frame that does not come together, and remembers only the
/// last hundred messages. Therefore a window limits what is in flight, and a message that is not
/// acknowledged although a later one is counts as dropped and is sent again.
///
/// A marker waits until everything before it has been acknowledged or given up.
///
/// Besides messages the names of objects can wait, in their place among the messages. A name takes
/// little memory, and becomes a message with the newest value when its turn comes.
class ClientQueue
{
public:
    static constexpr int MAX_IN_FLIGHT = 64;
    /// Unacknowledged bytes; one larger frame may be in flight alone.
    static constexpr qint64 MAX_BYTES_IN_FLIGHT = 32 * 1024;
    /// Unacknowledged bytes for a client that can read a frame in any pieces.
    static constexpr qint64 MAX_BYTES_IN_FLIGHT_PROMPT = 256 * 1024;
    static constexpr int LARGE_TEXT = 128 * 1024; ///< of a message, in bytes
    static constexpr int MAX_RESENDS = 3;
    static constexpr qint64 SILENCE_MS = 60000;
    static constexpr qint64 ANSWER_WAIT_MS = 60000;

    /// What is known of a name that waits.
    struct NameState
    {
        bool fresh = false; ///< its id has to be new
        bool now = false;   ///< the client has asked for the value
        /// When the object was removed, and by whom; 0 if the client is not to be told.
        qint64 removedAt = 0;
        QString remover;
    };

    /// The notification of the newest value of an object or, if there is none any more, of its
    /// removal; without a body if there is nothing to tell.
    using Newest = std::function<QueuedMessage(const QString &name, const NameState &state)>;

    /// Appends a message. A time of queueing in the past means that it has waited since then.
    void append(QueuedMessage message);

    /// Appends the name of an object, once, however often this is called before its turn comes:
    /// what one of the calls says of the name stays true.
    void appendName(const QString &name, const NameState &state);
    bool hasName(const QString &name) const;

    /// Whether takeFrame() may have a frame; it has none otherwise.
    bool hasNext() const;

    /// The message to send next, if it is so large that others would wait for its frame and it has
    /// no frame yet: the caller makes one elsewhere and hands it to setFrame(). Null otherwise.
    const QueuedMessage *largeToEncode(qint64 now, const Newest &newest);
    /// Takes the frame of the message with this key. It is ignored if another message is next now.
    void setFrame(const QString &key, const QByteArray &frame);

    /// The frame to send next, which is in flight from now on; empty if there is none or the window
    /// is full.
    QByteArray takeFrame(qint64 now, const Newest &newest, TrelanTransport::Coding coding);

    /// How the client reads.
    void setMode(TrelanTransport::Mode mode);

    /// The client has acknowledged a message; earlier ones may have been dropped. Returns false if
    /// no such message is in flight.
    bool acknowledge(const QString &sender, const QString &reciever, const QString &uid,
                     qint64 now);

    /// The connection has shown progress: the silence begins anew.
    void heard(qint64 now);

    /// Whether nothing would change if the acknowledgements of what is in flight were read later:
    /// nothing waits, no message in flight is on disk, and the window and \a bounds have room.
    /// Whoever reads late already goes on until half of the room is taken, and others begin while
    /// three quarters are free, so that neither is for one message only.
    struct Bounds
    {
        int messages;
        qint64 bytes;
    };
    bool mayHearLate(const Bounds &bounds, bool already) const;

    /// What was in flight goes out again, before anything newer.
    void restart();

    /// Forgets the notifications, since the subscriptions are gone. Notifications in flight count
    /// until they are acknowledged, but are not sent again.
    void dropNotifications();

    /// Forgets everything, since the client has gone for good.
    void clear();

    /// Drops the oldest waiting message of a kind, but spares the next message if \a keepNext.
    /// Returns false if there is none to drop.
    bool dropOldest(QueuedMessage::Kind kind, bool keepNext);

    /// Sends the oldest message again after a long silence, gives up messages that waited for \a
    /// lifetime and calls for whose answer nobody waits any more, and drops messages that have
    /// reached their own end.
    void checkTimes(qint64 now, qint64 lifetime);

    /// Whether time alone can change anything, so that checkTimes() has to be called.
    bool hasDeadline() const;

    /// The messages that were given up since the last call, for the log.
    QList<QueuedMessage> takeGivenUp();

    /// Ids of the messages that need not be on disk any more, since the last call.
    QVector<qint64> takeSettled();

    bool isEmpty() const;
    /// Messages, the names of objects left out.
    int count() const;
    int nameCount() const;
    int markerCount() const;
    qint64 markerBytes() const;
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

    /// A message that the client may remember.
    struct Memory
    {
        QString key;
        QString object;
        size_t digest; // of the text
    };

    void takeNext(qint64 now, const Newest &newest);
    void takeNames(const Newest &newest);
    bool wouldBeDropped(const QueuedMessage &message) const;
    void freshenFirst();
    void remember(const QueuedMessage &message);
    bool isAnswerLate(const QueuedMessage &message, qint64 now) const;
    bool settleWaiting(const QString &key);
    void sendAgain(int number);
    void beginFlight(const QueuedMessage &message);
    QueuedMessage endFlight(int index);
    void waitAgain(const QueuedMessage &message);
    void nameWaitsAgain(const QueuedMessage &message);
    void account(const QueuedMessage &message, int sign);
    static bool isSuperseded(const QueuedMessage &older, const QueuedMessage &newer);
    void forget(const QueuedMessage &message);

    QList<QueuedMessage> _waiting;
    QList<QueuedMessage> _inFlight;
    std::deque<Name> _names;
    std::deque<Memory> _remembered; // the messages sent last, oldest first
    QSet<QString> _rememberedKeys;
    QHash<QString, NameState> _states; // of the names that wait
    quint64 _lastNumber = 0;
    QList<QueuedMessage> _givenUp;
    QVector<qint64> _settled;
    QByteArray _nextFrame; // of the first waiting message, once it was needed
    qint64 _bytes = 0;
    qint64 _nameBytes = 0;
    int _markers = 0;
    qint64 _markerBytes = 0;
    qint64 _bytesInFlight = 0;
    int _storedInFlight = 0; // messages that are on disk
    qint64 _maxBytesInFlight = MAX_BYTES_IN_FLIGHT;
    qint64 _heardAt = 0;
};

} // namespace bus
