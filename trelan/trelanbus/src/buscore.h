#pragma once

#include "buslog.h"
#include "busrequest.h"
#include "busstorage.h"

#include <QtCore/QHash>
#include <QtCore/QSet>
#include <QtCore/QString>

namespace bus
{

/// A connection, as the rules of the bus know it. Never used twice.
using ConnectionId = quint64;

/// \brief What the rules of the bus need of whoever owns the connections.
class BusOutput
{
public:
    virtual ~BusOutput() = default;

    /// Answers the request of \a id that is being handled. Ignored when it is gone.
    virtual void reply(ConnectionId id, const QString &word, const TrelanError &error) = 0;
    /// Answers with one object as the data.
    virtual void replyObject(ConnectionId id, const QString &word, const ObjectRecord &record) = 0;
    /// Answers with the objects by name.
    virtual void replyObjects(ConnectionId id, const QString &word,
                              const QVector<ObjectRecord> &records) = 0;

    virtual void closeConnection(ConnectionId id) = 0;
    /// Whether the connection takes no more requests, be it unnoticed so far.
    virtual bool isAtEnd(ConnectionId id) const = 0;
    /// Address and port of the other side.
    virtual QString peer(ConnectionId id) const = 0;
    /// The client has named itself.
    virtual void setRegistered(ConnectionId id) = 0;
};

/// \brief The rules of the bus: who is registered, who subscribes to what, what a request does.
///
/// Knows no sockets and no frames. One thread.
class BusCore
{
public:
    BusCore(const TrelanBusSettings &settings, BusStorage &storage, BusOutput &output);

    /// Handles one request and sees to it that exactly one reply follows, now or later.
    void handle(ConnectionId id, const BusRequest &request);

    /// The connection has ended; what another connection registered under its name stays.
    void connectionClosed(ConnectionId id);

private:
    struct Client
    {
        QString name;
        QSet<QString> wildcards;
    };

    void handshake(ConnectionId id, const BusRequest &request);
    bool isGhost(ConnectionId id, const QString &name) const;
    void takeOver(ConnectionId id, const QString &name);
    void publish(ConnectionId id, const BusRequest &request);
    void remove(ConnectionId id, const BusRequest &request);
    void loadObject(ConnectionId id, const BusRequest &request);
    void loadObjects(ConnectionId id, const BusRequest &request);
    void subscribe(ConnectionId id, const BusRequest &request);
    void unsubscribe(ConnectionId id, const BusRequest &request);
    void sendMessage(ConnectionId id, const BusRequest &request);

    const int _maxSubscriptions;
    BusStorage &_storage;
    BusOutput &_output;
    QHash<ConnectionId, Client> _clients;
    QHash<QString, ConnectionId> _ids; // of the registered clients, by name
    WarningLimiter _takeoverWarnings;
};

} // namespace bus
