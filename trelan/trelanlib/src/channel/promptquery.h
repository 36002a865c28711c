#pragma once

#include "channel/connectioncount.h"
#include "trelanframereader.h"

#include <QtCore/QByteArray>
#include <QtCore/QPointer>
#include <QtCore/QQueue>
#include <QtCore/QString>

#include <functional>
#include <memory>
#include <optional>

class QTcpSocket;

namespace bus
{

/// \brief Requests and replies without pauses on a query channel: requests are sent ahead, and
/// replies are taken in the order of their requests. Internal to the library.
///
/// It knows frames and a socket, and no operations: what a reply says is for the caller to judge.
/// It never ends a connection itself. The thread of the socket.
class PromptQuery
{
public:
    enum Outcome {
        Replied,   ///< see Result::payload
        Lost,      ///< the connection has ended before the reply was there
        TimedOut,  ///< the connection is there, but no whole reply in time
        Malformed, ///< what came is no reply; see Result::fault
        Unasked    ///< a reply came before anything was asked, so that nothing was sent
    };
    struct Result
    {
        Outcome outcome = Lost;
        QByteArray payload;
        QString fault; ///< for people
    };
    using Done = std::function<void(const Result &)>;

    /// Replies that are not waited for are taken in the event loop of \a context. \a socket is what
    /// the caller has now, and may become another one with a new connection; these are counted in
    /// \a connections.
    PromptQuery(const QPointer<QTcpSocket> &socket, const ConnectionCount &connections,
                QObject &context);

    /// To be called when a connection is to be made, after it was counted. What the one before has
    /// left behind is forgotten; its requests end as Lost when their turn comes. \a patience, in
    /// milliseconds, is for each reply.
    void begin(qint64 maxPayload, std::optional<int> patience);
    /// The connection is broken off: what has come on it answers nobody.
    void forget();

    /// Sends a request, and waits for its reply and those before it. \a done is called before this
    /// returns.
    void request(const QByteArray &frame, const Done &done);
    /// Sends a request behind those that have no reply yet, 256 of them or 256 KiB at most: above
    /// that it waits for the oldest. \a done is called by takeReplies() at the latest.
    void ask(const QByteArray &frame, const Done &done);
    /// Sends a request as ask() does. Its reply is taken when the event loop has nothing left to
    /// ask before it.
    void askLater(const QByteArray &frame, const Done &done);
    /// Waits for all replies that are to come.
    void takeReplies();

private:
    struct Pending
    {
        ConnectionCount::Mark connection;
        qint64 size;
        Done done;
    };

    bool isConnected() const;
    bool isOutOfStep();
    void takeReply();
    void takeReplyLater();
    void sendUnsent();
    Result awaitReply();
    TrelanFrameReader::Status awaitFrame(int milliseconds);

    const QPointer<QTcpSocket> &_socket;
    const ConnectionCount &_connections;
    QObject &_context;
    qint64 _maxPayload = 0;
    std::optional<int> _patience; // TrelanTransport::patience() of the moment if there is none
    std::unique_ptr<TrelanFrameReader> _reader;
    QQueue<Pending> _pending; // requests without a reply, the oldest first
    qint64 _pendingBytes = 0; // of their frames
    QByteArray _unsent;       // the last of their frames, which leave together
    bool _takesLater = false; // the event loop is going to take a reply
};

} // namespace bus
