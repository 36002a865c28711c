#pragma once

#include "trelanframereader.h"

#include <QtCore/QByteArray>
#include <QtCore/QElapsedTimer>
#include <QtCore/QObject>
#include <QtCore/QPointer>
#include <QtCore/QTimer>

#include <memory>
#include <optional>

class QTcpSocket;

namespace bus
{

/// \brief The message channel without pauses: cuts what arrives into frames, and sends what is
/// written together where frames have come together. Internal to the library.
///
/// It knows frames and a socket, and no messages: its owner says what a frame means. The thread of
/// the socket, whose event loop has to run.
class PromptInbox : public QObject
{
    Q_OBJECT

public:
    /// Who has the channel. Whatever it is told may end the connection, begin another one, or
    /// delete owner and inbox.
    class Owner
    {
    public:
        virtual ~Owner() = default;
        virtual void onFrame(TrelanFrame::Kind kind, const QByteArray &payload) = 0;
        /// The connection is of no use any more, for this reason; breakOff() is due.
        virtual void onBroken(const QString &reason) = 0;
    };

    /// \a socket is what the owner has now, and may become another one with a new connection.
    PromptInbox(const QPointer<QTcpSocket> &socket, Owner &owner, QObject *parent);

    /// To be called before a connection is made: forgets what is left of the one before.
    /// \a patience, in milliseconds, is for the rest of a frame that has begun.
    void begin(qint64 maxPayload, std::optional<int> patience);
    /// To be called once the connection is made.
    void watchArrivals();
    /// Sends what waits to be sent, and stops waiting for the rest of a frame.
    void end();

    /// Takes what has arrived, frame by frame. Does nothing while a slot that was told of a frame
    /// runs an event loop of its own: what has come waits until that slot returns.
    void takeArrived();

    /// Sends a frame: at once, unless the next frame to be answered is there already. Those that
    /// arrived together are answered together, or as soon as a millisecond has passed.
    void write(const QByteArray &frame);
    /// Has the system send what it holds. It holds acknowledgements until what they acknowledge is
    /// handed on, since the bus would take its turn before the application; but for little more
    /// than 200 ms, whatever a slot does, and not beyond the end of the process. A process that
    /// ends with something unread resets the connection, what is held then is lost, and those
    /// messages come again.
    void letGo();

    /// Whether a frame is being handed on, up the stack.
    bool isHandingOn() const;

    bool eventFilter(QObject *watched, QEvent *event) override;

private:
    enum State { Waiting, HandingOn };

    bool isConnected() const;
    bool takeArrival();
    void readFrames();
    bool takeFrame();
    void watchStall(bool progress);
    void sendAllAndLetGo();
    void sendUnsent();

    const QPointer<QTcpSocket> &_socket;
    Owner &_owner;
    State _state = Waiting;
    std::unique_ptr<TrelanFrameReader> _reader;
    std::optional<int> _patience; // TrelanTransport::patience() of the moment if there is none
    QTimer _stall;                // runs inside a frame
    QByteArray _unsent;           // frames that leave together
    QElapsedTimer _sinceUnsent;   // since the first of them
    QTimer _sendSoon;             // runs while some of them wait for the event loop
    bool _isHeldBySystem = false; // some of what was sent may be
};

} // namespace bus
