#pragma once

#include "values/connectionid.h"

#include <QtCore/QHash>

#include <deque>
#include <functional>

namespace bus
{

/// \brief Requests that go to the disk: how many of them are on their way, and in which order they
/// are answered.
///
/// One request of a connection may always be on its way. Any further ones share bounds with those
/// of all other connections, to equal parts, so that a client with a single request never waits for
/// more than the bounds and one request of each connection. What a closed connection has left on
/// its way still counts.
///
/// Answers of a connection leave in the order of its requests. One thread.
class PendingWrites
{
public:
    static constexpr int MAX_REQUESTS = 256;
    static constexpr qint64 MAX_BYTES = 2 * 1024 * 1024;

    enum Kind { Change, Message };
    struct Write
    {
        ConnectionId connection = 0;
        quint64 number = 0; // from 1 on; 0 is none
        qint64 cost = 0;    // in bytes
        Kind kind = Change;
    };
    using Answer = std::function<void()>;

    bool isEmpty(ConnectionId id) const;
    bool hasChanges(ConnectionId id) const;
    /// Whether one more request of a connection may be on its way.
    bool hasRoom(ConnectionId id, qint64 cost) const;

    /// A request of \a id is on its way from now on.
    Write begin(ConnectionId id, Kind kind, qint64 cost);
    /// The request has arrived or failed: calls \a answer as soon as everything before it is
    /// answered, unless its connection is gone. To be called once for each write.
    void end(const Write &write, const Answer &answer);

    /// The connection is gone.
    void forget(ConnectionId id);

private:
    struct Connection
    {
        std::deque<Answer> answers; // of requests in their order; null for those on their way
        quint64 first = 1;          // number of the first of them
        int changes = 0;
        qint64 bytes = 0;
    };

    QHash<ConnectionId, Connection> _connections; // that have anything to be answered
    int _requests = 0;                            // of all connections
    qint64 _bytes = 0;
};

} // namespace bus
