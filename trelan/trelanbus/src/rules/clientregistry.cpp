#include "rules/clientregistry.h"

#include "values/busnames.h"

namespace bus
{

namespace
{

/// "127.0.0.1:4000 (user alice)", for the log.
QString placeText(const QString &peer, const ClientOwner &owner)
{
    return owner.kind == ClientOwner::Remote ? peer
                                             : QStringLiteral("%1 (%2)").arg(peer, owner.text());
}

} // namespace

ClientRegistry::ClientRegistry(const QString &channel, BusOutput &output)
    : _channel(channel)
    , _output(output)
{}

const QString &ClientRegistry::channel() const
{
    return _channel;
}

bool ClientRegistry::contains(ConnectionId id) const
{
    return _clients.contains(id);
}

QString ClientRegistry::name(ConnectionId id) const
{
    const auto known = _clients.constFind(id);
    return known == _clients.constEnd() ? QString() : known->name;
}

QStringList ClientRegistry::names() const
{
    return _ids.keys();
}

ClientRegistry::Client ClientRegistry::client(const QString &name) const
{
    return _clients.value(connection(name));
}

ConnectionId ClientRegistry::connection(const QString &name) const
{
    return _ids.value(name, 0);
}

QString ClientRegistry::handshakeFault(ConnectionId id, const QString &name) const
{
    QString fault = names::clientNameFault(name);
    if (!fault.isEmpty())
        return fault;
    const auto known = _clients.constFind(id);
    if (known != _clients.constEnd() && known->name != name) {
        return QStringLiteral("this connection is registered as %1 already")
            .arg(names::quoted(known->name));
    }
    if (known == _clients.constEnd() && isGhost(id, name))
        return QStringLiteral("client %1 has come back").arg(names::quoted(name));
    return {};
}

void ClientRegistry::add(ConnectionId id, const QString &name, const ClientOwner &owner)
{
    const QString peer = _output.peer(id);
    _clients.insert(id, {name, peer, owner, 0});
    _ids.insert(name, id);
    qCInfo(BUS_LOG).noquote() << QStringLiteral("client %1 is connected from %2 on the %3 channel")
                                     .arg(names::quoted(name), placeText(peer, owner), _channel);
}

QString ClientRegistry::remove(ConnectionId id)
{
    const Client client = _clients.take(id);
    if (client.name.isEmpty())
        return {};
    _ids.remove(client.name);
    qCInfo(BUS_LOG).noquote() << QStringLiteral(
                                     "client %1 at %2 is gone from the %3 channel, after %4 frames")
                                     .arg(names::quoted(client.name), client.peer, _channel)
                                     .arg(client.count);
    return client.name;
}

void ClientRegistry::warnOfTakeover(ConnectionId older, ConnectionId newer, const QString &name,
                                    const ClientOwner &owner)
{
    if (_output.isAtEnd(older) || !_takeoverWarnings.allows(name))
        return;
    qCWarning(BUS_LOG).noquote() << QStringLiteral("client %1 at %2 is taken over by %3")
                                        .arg(names::quoted(name),
                                             placeText(_output.peer(older), client(name).owner),
                                             placeText(_output.peer(newer), owner));
}

void ClientRegistry::count(ConnectionId id)
{
    const auto known = _clients.find(id);
    if (known != _clients.end())
        ++known->count;
}

/// Whether this handshake belongs to a connection that has ended and is read after the client has
/// come back on another one: events of several connections arrive in any order.
bool ClientRegistry::isGhost(ConnectionId id, const QString &name) const
{
    const auto registered = _ids.constFind(name);
    return registered != _ids.constEnd() && _output.isAtEnd(id) && !_output.isAtEnd(*registered);
}

} // namespace bus
