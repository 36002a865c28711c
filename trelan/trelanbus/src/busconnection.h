#pragma once

#include "busoutput.h"
#include "trelanbussettings.h"

#include <trelanframereader.h>

#include <QtCore/QObject>
#include <QtCore/QTimer>
#include <QtNetwork/QTcpSocket>

namespace bus
{

/// \brief One connection of a client: bytes in and out, and how long they may take.
///
/// It hands over one request at a time and reads the next when that one is answered and the answer
/// has left, so that what one client can make the bus keep is bounded by one frame each way,
/// however fast it sends and however slowly it reads. It works in short turns, between which all
/// others have theirs. Lives in the thread of the bus.
class BusConnection : public QObject
{
    Q_OBJECT

public:
    enum Channel {
        Query,   ///< requests and answers in turn
        Messages ///< frames are pushed, and their replies arrive at any time
    };

    BusConnection(Channel channel, ConnectionId id, qintptr descriptor,
                  const TrelanBusSettings &settings, QObject *parent);
    ~BusConnection() override;

    Channel channel() const;
    /// Address and port of the other side.
    QString peer() const;
    /// Whether it takes no more requests: the other side has ended it, be it unnoticed so far, or
    /// it was sent its last frame.
    bool isAtEnd() const;

    /// Ends the wait for the handshake.
    void setRegistered();

    /// Sends the answer to the request handed over last, and goes on reading.
    void answer(const QByteArray &frame);

    /// Sends a last frame, ends the sending side, and reads on without looking for a while: were
    /// the connection closed at once, what the client still sends would make its system throw the
    /// answer away.
    void answerAndEnd(const QByteArray &frame);

    /// Whether everything sent so far has left, so that push() may be called.
    bool canPush() const;
    /// Sends a frame that answers nothing.
    void push(const QByteArray &frame);

    /// Ends the connection; closed() follows.
    void close();

Q_SIGNALS:
    /// A request has arrived; answer() is due.
    void requestArrived(bus::ConnectionId id, QByteArray payload);
    /// A reply has arrived, on the message channel.
    void replyArrived(bus::ConnectionId id, QByteArray payload);
    /// What was sent has left, and canPush() is true again.
    void drained(bus::ConnectionId id);
    /// A frame above the limit has been announced; answerAndEnd() is due.
    void frameTooLarge(bus::ConnectionId id, QString fault);
    /// The connection has ended. The last thing it emits, and it is emitted once.
    void closed(bus::ConnectionId id);

private:
    enum State {
        Reading,    ///< taking requests
        Answering,  ///< one was handed over
        Ending,     ///< the last answer is leaving
        Discarding, ///< the last answer has left
        Closed
    };

    void onReadyRead();
    void onBytesWritten();
    void onDisconnected();
    void onStalled();
    void scheduleTurn();
    void takeTurn();
    bool takeRequests();
    bool mayTakeRequest() const;
    void takeRequest(TrelanFrameReader::Status status);
    void send(const QByteArray &frame);
    void endSending();
    void watchProgress();
    void closeWith(const QString &reason);

    const Channel _channel;
    const ConnectionId _connectionId;
    const TrelanBusSettings _settings;
    QTcpSocket _socket;
    TrelanFrameReader _reader;
    State _state = Reading;
    bool _inTurn = false;
    int _answersLeaving = 0;
    QTimer _nextTurn;
    QTimer _stall;
    QTimer _handshake;
    QString _peer;
};

} // namespace bus
