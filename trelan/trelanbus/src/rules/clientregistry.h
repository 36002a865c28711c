#pragma once

#include "delivery/busoutput.h"
#include "values/buslog.h"
#include "values/clientowner.h"

#include <QtCore/QHash>
#include <QtCore/QString>
#include <QtCore/QStringList>

namespace bus
{

/// \brief Who is registered on one channel: one connection for a name, the newest.
///
/// One thread.
class ClientRegistry
{
public:
    /// \a channel is the name of the channel in the log.
    ClientRegistry(const QString &channel, BusOutput &output);

    const QString &channel() const;

    struct Client
    {
        QString name;
        QString peer; ///< address and port
        ClientOwner owner;
        qint64 count = 0;
    };

    bool contains(ConnectionId id) const;
    /// The name of a client; empty if \a id is not registered.
    QString name(ConnectionId id) const;
    QStringList names() const;
    /// The client that is registered under \a name; empty if there is none.
    Client client(const QString &name) const;
    /// The connection of a client; 0 if nobody is registered under \a name.
    ConnectionId connection(const QString &name) const;

    /// What is wrong with a handshake, for people; empty if it can be accepted.
    QString handshakeFault(ConnectionId id, const QString &name) const;

    /// Registers \a id, a connection of \a owner, under a name that nobody has.
    void add(ConnectionId id, const QString &name, const ClientOwner &owner);
    /// Forgets \a id. Returns the name that it had, empty if none.
    QString remove(ConnectionId id);

    /// Logs that \a newer, of \a owner, takes over from \a older, once a minute for a name at most.
    /// Nothing is logged if the older connection has ended by itself: the client has just come
    /// back.
    void warnOfTakeover(ConnectionId older, ConnectionId newer, const QString &name,
                        const ClientOwner &owner);

    /// Counts one request or one delivery. The sum is logged at the end.
    void count(ConnectionId id);

private:
    bool isGhost(ConnectionId id, const QString &name) const;

    const QString _channel;
    BusOutput &_output;
    QHash<ConnectionId, Client> _clients;
    QHash<QString, ConnectionId> _ids;
    WarningLimiter _takeoverWarnings;
};

} // namespace bus
