#include "buscore.h"

#include "busnames.h"

#include <utility>

namespace bus
{

namespace
{

void logPublish(const TrelanObject &object)
{
    if (object.isLogged()) {
        qCInfo(BUS_LOG).noquote() << QStringLiteral("%1 is published by %2")
                                         .arg(names::quoted(object.name()),
                                              names::quoted(object.publisher()));
    }
}

} // namespace

BusCore::BusCore(const TrelanBusSettings &settings, BusStorage &storage, BusOutput &output)
    : _maxSubscriptions(settings.maxSubscriptions)
    , _storage(storage)
    , _output(output)
{}

void BusCore::handle(ConnectionId id, const BusRequest &request)
{
    const bool isHandshake = request.word == QLatin1String("handshake");
    // What could not be read at all has no operation to be refused.
    if (!_clients.contains(id) && !isHandshake && !request.word.isNull()) {
        _output.reply(id, request.word,
                      {TrelanError::UnregisteredClient,
                       QStringLiteral("the first request has to be \"handshake\"")});
        return;
    }

    switch (request.operation) {
    case BusRequest::Invalid:
        return _output.reply(id, request.word, request.fault);
    case BusRequest::Handshake:
        return handshake(id, request);
    case BusRequest::Publish:
        return publish(id, request);
    case BusRequest::Remove:
        return remove(id, request);
    case BusRequest::LoadObject:
        return loadObject(id, request);
    case BusRequest::LoadObjects:
        return loadObjects(id, request);
    case BusRequest::Subscribe:
        return subscribe(id, request);
    case BusRequest::Unsubscribe:
        return unsubscribe(id, request);
    case BusRequest::SendMessage:
        return sendMessage(id, request);
    }
}

void BusCore::connectionClosed(ConnectionId id)
{
    const Client client = _clients.take(id);
    const auto registered = _ids.constFind(client.name);
    if (registered != _ids.constEnd() && *registered == id)
        _ids.erase(registered);
}

void BusCore::handshake(ConnectionId id, const BusRequest &request)
{
    QString fault = names::clientNameFault(request.name);
    const auto known = _clients.constFind(id);
    const bool repeated = known != _clients.constEnd();
    if (fault.isEmpty() && repeated && known->name != request.name) {
        fault = QStringLiteral("this connection is registered as %1 already")
                    .arg(names::quoted(known->name));
    }
    if (fault.isEmpty() && !repeated && isGhost(id, request.name))
        fault = QStringLiteral("client %1 has come back").arg(names::quoted(request.name));
    if (!fault.isEmpty()) {
        _output.reply(id, request.word, {TrelanError::UnregisteredClient, fault});
        return;
    }
    if (!repeated) {
        takeOver(id, request.name);
        _clients.insert(id, {request.name, {}});
        _ids.insert(request.name, id);
        _output.setRegistered(id);
    }
    _output.reply(id, request.word, TrelanError());
}

/// Whether this is the handshake of a connection that has ended, read after the client has come
/// back on another: events of several connections arrive in any order.
bool BusCore::isGhost(ConnectionId id, const QString &name) const
{
    const auto registered = _ids.constFind(name);
    return registered != _ids.constEnd() && _output.isAtEnd(id) && !_output.isAtEnd(*registered);
}

/// A client must never be locked out by its own ghost, so that the newer connection wins.
void BusCore::takeOver(ConnectionId id, const QString &name)
{
    const auto registered = _ids.constFind(name);
    if (registered == _ids.constEnd())
        return;
    const ConnectionId older = *registered;
    if (!_output.isAtEnd(older) && _takeoverWarnings.allows(name)) {
        qCWarning(BUS_LOG).noquote()
            << QStringLiteral("client %1 at %2 is taken over by %3")
                   .arg(names::quoted(name), _output.peer(older), _output.peer(id));
    }
    connectionClosed(older);
    _output.closeConnection(older);
}

void BusCore::publish(ConnectionId id, const BusRequest &request)
{
    ObjectRecord record = request.record;
    record.head.setPublisher(_clients.value(id).name);
    if (record.head.uid().isEmpty()) {
        // An id over the content too: two values of one millisecond must not share it.
        record.head.setUid(record.toObject().genUid());
    }
    const auto done = [this, id, word = request.word,
                       head = record.head](const TrelanError &error) {
        if (error.error() == TrelanError::NoError)
            logPublish(head);
        _output.reply(id, word, error);
    };
    if (record.head.isStored() && !names::isCommandName(record.head.name()))
        _storage.publish(record, done);
    else
        done(TrelanError());
}

void BusCore::remove(ConnectionId id, const BusRequest &request)
{
    _storage.remove(request.names, [this, id, word = request.word](const TrelanError &error) {
        _output.reply(id, word, error);
    });
}

void BusCore::loadObject(ConnectionId id, const BusRequest &request)
{
    const ObjectRecord *record = _storage.find(request.name);
    if (record) {
        _output.replyObject(id, request.word, *record);
        return;
    }
    _output.reply(id, request.word,
                  {TrelanError::IncorrectRequestData,
                   QStringLiteral("there is no object %1").arg(names::quoted(request.name))});
}

void BusCore::loadObjects(ConnectionId id, const BusRequest &request)
{
    _output.replyObjects(id, request.word, _storage.matching(request.name));
}

void BusCore::subscribe(ConnectionId id, const BusRequest &request)
{
    Client &client = _clients[id];
    QSet<QString> added;
    for (const QString &wildcard : request.names) {
        if (!client.wildcards.contains(wildcard))
            added.insert(wildcard);
        if (client.wildcards.size() + added.size() > _maxSubscriptions)
            break; // a frame has room for millions
    }
    if (client.wildcards.size() + added.size() > _maxSubscriptions) {
        _output.reply(
            id, request.word,
            {TrelanError::IncorrectRequestData,
             QStringLiteral("a client has %1 subscriptions at most").arg(_maxSubscriptions)});
        return;
    }
    client.wildcards.unite(added);
    _output.reply(id, request.word, TrelanError());
}

void BusCore::unsubscribe(ConnectionId id, const BusRequest &request)
{
    Client &client = _clients[id];
    for (const QString &wildcard : request.names)
        client.wildcards.remove(wildcard);
    _output.reply(id, request.word, TrelanError());
}

void BusCore::sendMessage(ConnectionId id, const BusRequest &request)
{
    _output.reply(id, request.word,
                  {TrelanError::UnregisteredClient,
                   QStringLiteral("client %1 is not connected").arg(names::quoted(request.name))});
}

} // namespace bus
