#pragma once

#include "trelanbussettings.h"
#include "values/clientowner.h"
#include "values/connectionid.h"

#include <poller.h>
#include <trelanframereader.h>

#include <QtCore/QList>
#include <QtCore/QObject>
#include <QtCore/QTimer>

#include <optional>

namespace bus
{

/// \brief One connection of a client: bytes in and out, and how long they may take.
///
/// The connection hands over one request at a time, and the next when the owner has answered it or
/// asks for the next, and all answers so far have left: one client makes the bus keep one frame in
/// each direction at most, and what the owner lets it have on its way, however fast it sends and
/// however slowly it reads. The connection works in short turns, between which other connections
/// have theirs. It lives in the thread of the bus.
class BusConnection : public QObject
{
public:
    enum Channel {
        Query,   ///< requests and answers in turn
        Messages ///< frames are pushed, and replies to them arrive at any time
    };

    /// Is told what happens to a connection.
    class Owner
    {
    public:
        virtual ~Owner() = default;

        /// A request has arrived; answer() is due, now or later, and takeNext() may come before.
        virtual void onRequest(ConnectionId id, const QByteArray &payload) = 0;
        /// A reply has arrived, on the message channel.
        virtual void onReply(ConnectionId id, const QByteArray &payload) = 0;
        /// Everything that was sent has left, and canPush() is true again.
        virtual void onDrained(ConnectionId id) = 0;
        /// A frame above the limit has been announced, and everything before it is answered;
        /// answerAndEnd() is due.
        virtual void onFrameTooLarge(ConnectionId id, const QString &fault) = 0;
        /// The connection has ended. This is called once, and last. The connection may be in the
        /// middle of something, and must not be destroyed at once.
        virtual void onClosed(ConnectionId id) = 0;
    };

    /// Takes \a descriptor, a connected socket that does not block. The owner is told nothing
    /// before open().
    BusConnection(Channel channel, ConnectionId id, int descriptor,
                  const TrelanBusSettings &settings, Poller &poller, Owner &owner);
    ~BusConnection() override;

    /// Who has made the connection; to be set before open().
    void setClientOwner(const ClientOwner &owner);
    ClientOwner clientOwner() const;

    /// Begins to read. False, with errno, if the system cannot watch one more socket.
    bool open();

    Channel channel() const;
    /// Address and port of the other side.
    QString peer() const;
    /// Whether the connection takes no more requests, since the other side has ended it, even if
    /// nobody has noticed yet, or since its last frame was sent.
    bool isAtEnd() const;

    /// Ends the wait for the handshake.
    void setRegistered();

    /// Hands over the next request before the one that was handed over last is answered.
    void takeNext();

    enum Sending {
        Sent,
        HeldBack ///< sendAnswers() is due soon
    };
    /// Answers the oldest request that has no answer, and goes on reading. The answer to the
    /// request that was handed over last is sent at once; others leave together.
    Sending answer(const QByteArray &frame);
    void sendAnswers();

    /// Sends a last frame, ends the sending side, and reads on for a while without looking at what
    /// comes. If the connection were closed at once, what the client still sends would make its
    /// system throw the answer away.
    void answerAndEnd(const QByteArray &frame);

    /// Whether everything sent so far has left, so that push() may be called.
    bool canPush() const;
    /// Sends a frame that answers nothing.
    void push(const QByteArray &frame);

    /// Leaves what comes unread in the system until readReplies(), so that it does not wake the
    /// thread, or has it read as it comes. The end of the connection is noticed either way. For the
    /// message channel.
    void setReadsLate(bool late);
    /// Reads what has come, and hands it over before this returns. Does nothing on the query
    /// channel.
    void readReplies();

    /// Ends the connection; Owner::onClosed() follows.
    void close();

    /// Handles what the poller has found, in the bits of epoll.
    void handle(quint32 events);

private:
    enum State {
        Reading,     ///< requests are taken
        HandingOver, ///< the owner is looking at a request, and may answer at once
        Answering,   ///< the answer to a request comes later
        Ending,      ///< the last answer is leaving
        Discarding,  ///< the last answer has left
        Closed
    };

    void onStalled();
    void scheduleTurn();
    void takeTurn(bool isReadable);
    void takeRequests(bool isReadable);
    bool mayTakeRequest() const;
    bool isRequest(TrelanFrameReader::Status status) const;
    void takeRequest(TrelanFrameReader::Status status);
    void goOn();
    int receive();
    void send(const QByteArray &frame);
    void sendRest();
    void endSending();
    void watch(quint32 events);
    void watchProgress();
    void closeWith(const QString &reason);
    void release();

    const Channel _channel;
    const ConnectionId _connectionId;
    const TrelanBusSettings _settings;
    Poller &_poller;
    Owner &_owner;
    int _descriptor;
    quint32 _events; // that the poller watches
    TrelanFrameReader _reader;
    State _state = Reading;
    int _unanswered = 0; // requests before the one that was handed over last
    std::optional<TrelanFrameReader::Status> _postponed; // of a frame that ends the connection
    QList<QByteArray> _leaving;                          // frames that have not left as a whole
    int _sentOfFirst = 0;                                // bytes of the first of them
    int _answersLeaving = 0;
    bool _readsLate = false;
    QTimer _nextTurn;
    QTimer _stall;
    QTimer _handshake;
    const QString _peer;
    ClientOwner _clientOwner;
};

} // namespace bus
