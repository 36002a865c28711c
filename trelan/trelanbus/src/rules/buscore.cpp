#include "rules/buscore.h"

#include "values/busnames.h"

#include <wirekeys.h>

#include <unistd.h>

#include <algorithm>
#include <functional>
#include <string_view>
#include <utility>

namespace bus
{

namespace
{

constexpr int MAX_LAST_PUBLISHED = 10000;
// Comparisons of a name with a wildcard in one request: they take some tenths of a second, in which
// nobody else is served.
constexpr qint64 MAX_TESTS_AT_ONCE = 1000000;
constexpr qint64 FEATURES_COST = 512;
constexpr qint64 REQUEST_COST = 256;   // and of each of its names
constexpr int MAX_TOLD_AT_ONCE = 1000; // removals in one turn: some milliseconds

/// What this bus can do beyond what every bus can, sorted.
QStringList featureNames()
{
    return {features::CLIENTS, features::LIMIT,    features::NOW,  features::OWNERS,
            features::PROMPT,  features::REMOVALS, features::TOLD, features::TRANSIENT};
}

/// The owner that is shown for a client: that of its query connection, else of the other one.
ClientOwner ownerOf(const ClientRegistry::Client &query, const ClientRegistry::Client &messages)
{
    return query.name.isEmpty() ? messages.owner : query.owner;
}

void addOwner(const ClientOwner &owner, QVariantMap &data)
{
    data.insert(keys::CLIENT_OWNER, owner.kindName());
    if (owner.kind != ClientOwner::User)
        return;
    data.insert(keys::CLIENT_USER, owner.name);
    data.insert(keys::CLIENT_USER_ID, owner.userId);
    data.insert(keys::CLIENT_GROUPS, owner.groups);
    if (owner.controlGroup != 0)
        data.insert(keys::CLIENT_CONTROL_GROUP, owner.controlGroup);
}

/// What a request takes on its way to the disk, in bytes, roughly.
qint64 costOf(const BusRequest &request)
{
    if (request.operation == BusRequest::Publish)
        return request.record.cost();
    qint64 cost = REQUEST_COST;
    if (request.message)
        cost += request.message->message().size() * qint64(sizeof(QChar));
    for (const QString &name : request.names)
        cost += REQUEST_COST + name.size() * qint64(sizeof(QChar));
    return cost;
}

void logPublish(const ObjectHead &object)
{
    if (object.isLogged()) {
        qCInfo(BUS_LOG).noquote() << QStringLiteral("%1 is published by %2")
                                         .arg(names::quoted(object.name),
                                              names::quoted(object.publisher));
    }
}

} // namespace

BusCore::BusCore(const TrelanBusSettings &settings, BusStorage &storage, BusOutput &output)
    : _maxSubscriptions(settings.maxSubscriptions())
    , _admission(settings.admission())
    , _instance(names::freshUid())
    , _storage(storage)
    , _output(output)
    , _delivery(settings, storage, output, [this](ConnectionId id) { _msgClients.count(id); })
    , _queryClients(channels::QUERY, output)
    , _msgClients(channels::MESSAGE, output)
    , _order([this](const PublishOrder::Publish &publish) { deliver(publish); },
             [this](PublishOrder::Removal &removal) { return tellRemoval(removal); })
    , _lastPublished(MAX_LAST_PUBLISHED)
{}

void BusCore::handle(ConnectionId id, BusRequest request)
{
    complete(id, request);
    if (_writes.isEmpty(id) || mayStart(id, request))
        start(id, request);
    else
        _waiting.insert(id, request);
}

/// Fills in what the bus knows of a publish or a message.
void BusCore::complete(ConnectionId id, BusRequest &request) const
{
    if (request.operation == BusRequest::Publish) {
        ObjectRecord &record = request.record;
        record.head.publisher = _queryClients.name(id);
        // The id covers the content, so that two values of one millisecond do not share it.
        if (record.head.uid.isEmpty())
            record.head.uid = record.toObject().genUid();
    } else if (request.operation == BusRequest::SendMessage) {
        TrelanMessage &message = *request.message;
        message.setSender(_queryClients.name(id));
        if (message.uid().isEmpty())
            message.setUid(message.genUid());
    }
}

/// Whether a request does and answers the same, whatever becomes of the writes of its connection
/// that are on their way to the disk.
bool BusCore::mayStart(ConnectionId id, const BusRequest &request) const
{
    switch (request.operation) {
    case BusRequest::Publish:
        return !_order.isFull() && request.record.head.isStored() &&
               !names::isCommandName(request.record.head.name) &&
               _writes.hasRoom(id, costOf(request)) && _storage.surelyGoesToDisk(request.record);
    case BusRequest::Remove:
        return !_order.isFull() && _writes.hasRoom(id, costOf(request)) &&
               _storage.surelyGoesToDisk(request.names);
    case BusRequest::SendMessage:
        // What changes tell a receiver takes room in its queue.
        return !_writes.hasChanges(id) && _writes.hasRoom(id, costOf(request)) &&
               _delivery.surelyGoesToDisk(*request.message, request.limit);
    default:
        return false;
    }
}

void BusCore::start(ConnectionId id, const BusRequest &request)
{
    startOperation(id, request);
    if (!_writes.isEmpty(id))
        _output.takeNext(id);
}

void BusCore::startOperation(ConnectionId id, const BusRequest &request)
{
    const bool isHandshake = request.word == QString(operations::HANDSHAKE);
    // A request that could not be read has no operation that could be refused.
    if (!_queryClients.contains(id) && !isHandshake && !request.word.isNull()) {
        _output.reply(id, request.word,
                      {TrelanError::UnregisteredClient,
                       QStringLiteral("the first request has to be \"handshake\"")});
        return;
    }
    _queryClients.count(id);

    switch (request.operation) {
    case BusRequest::Invalid:
        return _output.reply(id, request.word, request.fault);
    case BusRequest::Handshake:
        return handshake(_queryClients, id, request);
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
    case BusRequest::Clients:
        return listClients(id, request);
    }
}

void BusCore::handleOnMessageChannel(ConnectionId id, const BusRequest &request)
{
    if (request.operation == BusRequest::Handshake)
        handshake(_msgClients, id, request);
    else if (request.word.isNull() || request.word == QString(operations::HANDSHAKE))
        _output.reply(id, request.word, request.fault);
    else
        _output.reply(id, request.word, TrelanError(TrelanError::UnsupportedRequest));
}

void BusCore::handleReply(ConnectionId id, const payload::Acknowledgement &acknowledgement)
{
    const QString client = _msgClients.name(id);
    if (client.isEmpty() || acknowledgement.operation != QString(operations::SEND_MESSAGE))
        return;
    _delivery.acknowledge(client, acknowledgement.sender, acknowledgement.reciever,
                          acknowledgement.uid);
}

void BusCore::pushMore(ConnectionId id)
{
    const QString client = _msgClients.name(id);
    if (!client.isEmpty())
        _delivery.sendMore(client);
}

void BusCore::connectionClosed(ConnectionId id)
{
    _writes.forget(id);
    _waiting.remove(id);
    endQuery(id);
    endMessages(id);
}

void BusCore::hearDue()
{
    _delivery.hearDue();
}

bool BusCore::checkTimes()
{
    _delivery.hearAll();
    _delivery.checkTimes();
    return _delivery.hasDeadline();
}

bool BusCore::hasQueues() const
{
    return _delivery.hasQueues();
}

void BusCore::goOn()
{
    _order.resume();
}

void BusCore::handleWaiting()
{
    for (const ConnectionId id : std::exchange(_answered, {})) {
        const auto waiting = _waiting.find(id);
        if (waiting == _waiting.end() || !(_writes.isEmpty(id) || mayStart(id, *waiting)))
            continue;
        const BusRequest request = *waiting;
        _waiting.erase(waiting);
        start(id, request);
    }
}

void BusCore::restoreMessages()
{
    _delivery.restore();
}

/// Registers a client. The newer connection wins, since a client must not be locked out by its own
/// ghost.
void BusCore::handshake(ClientRegistry &registry, ConnectionId id, const BusRequest &request)
{
    const QString fault = registry.handshakeFault(id, request.name);
    if (!fault.isEmpty()) {
        _output.reply(id, request.word, {TrelanError::UnregisteredClient, fault});
        return;
    }
    if (registry.contains(id)) {
        acceptHandshake(registry, id, request);
        return;
    }
    ClientOwner owner = _output.owner(id);
    _users.complete(owner);
    const QString refusal = ownerFault(owner, request.name);
    if (!refusal.isEmpty()) {
        refuseOwner(id, request, refusal);
        return;
    }
    for (ClientRegistry *each : {&_queryClients, &_msgClients}) {
        // Whatever another owner has left behind under the name ends on both channels.
        if (each == &registry || !owner.mayTakeFrom(each->client(request.name).owner))
            endOlder(*each, id, request.name, owner);
    }
    registry.add(id, request.name, owner);
    _output.setRegistered(id);
    const bool receives = &registry == &_msgClients;
    // Attach before the reply: sending it may find the connection at its end and detach it.
    if (receives)
        _delivery.attach(request.name, id,
                         request.prompt ? TrelanTransport::Prompt : TrelanTransport::Paced,
                         request.transient);
    acceptHandshake(registry, id, request);
    if (receives)
        _delivery.sendMore(request.name);
}

/// What hinders an owner from having a name; empty if nothing does. Who has ended is in nobody's
/// way, even if the bus has not noticed yet.
QString BusCore::ownerFault(const ClientOwner &owner, const QString &name) const
{
    if (_admission == TrelanBusSettings::Me && !owner.isRoot() &&
        (owner.kind != ClientOwner::User || owner.userId != ::geteuid()))
        return QStringLiteral("this bus takes no clients of %1").arg(owner.text());
    for (const ClientRegistry *registry : {&_queryClients, &_msgClients}) {
        const ConnectionId holder = registry->connection(name);
        const ClientOwner other = registry->client(name).owner;
        if (holder != 0 && !owner.mayTakeFrom(other) && !_output.isAtEnd(holder)) {
            return QStringLiteral("client %1 belongs to %2").arg(names::quoted(name), other.text());
        }
    }
    return {};
}

void BusCore::refuseOwner(ConnectionId id, const BusRequest &request, const QString &fault)
{
    if (_refusals.allows(request.name)) {
        qCWarning(BUS_LOG).noquote()
            << QStringLiteral("a handshake of %1 from %2 is refused: %3")
                   .arg(names::quoted(request.name), _output.peer(id), fault);
    }
    _output.reply(id, request.word, {TrelanError::UnregisteredClient, fault});
}

/// Ends the connection that has a name, for the sake of \a id, which \a owner has made.
void BusCore::endOlder(ClientRegistry &registry, ConnectionId id, const QString &name,
                       const ClientOwner &owner)
{
    if (const ConnectionId older = registry.connection(name))
        _output.readReplies(older); // or their messages would be sent again
    if (const ConnectionId older = registry.connection(name)) {
        registry.warnOfTakeover(older, id, name, owner);
        connectionClosed(older);
        _output.closeConnection(older);
    }
}

/// Answers who asks for the features. All others get the answer of ever, to the byte.
void BusCore::acceptHandshake(const ClientRegistry &registry, ConnectionId id,
                              const BusRequest &request)
{
    if (!request.features) {
        _output.reply(id, request.word, TrelanError());
        return;
    }
    const QVariantMap data {
        {keys::FEATURES, featureNames()},
        {keys::INSTANCE, _instance},
        {keys::CHANNEL, registry.channel()},
    };
    _output.replyData(id, request.word, data, FEATURES_COST);
}

void BusCore::endQuery(ConnectionId id)
{
    const QString client = _queryClients.remove(id);
    if (client.isEmpty())
        return;
    forgetSubscriptions(client);
}

void BusCore::endMessages(ConnectionId id)
{
    const QString client = _msgClients.remove(id);
    if (!client.isEmpty())
        _delivery.detach(client);
}

void BusCore::publish(ConnectionId id, const BusRequest &request)
{
    const ObjectRecord &record = request.record;
    const bool isKept = record.head.isStored() && !names::isCommandName(record.head.name);
    PendingWrites::Write write;
    if (isKept && _storage.goesToDisk(record))
        write = _writes.begin(id, PendingWrites::Change, costOf(request));
    const quint64 place = _order.takePlace();
    const auto done = [this, id, word = request.word, record, place,
                       write](const TrelanError &error) {
        const auto reply = [this, write, id, word, error] { replyInTurn(write, id, word, error); };
        if (error.error() != TrelanError::NoError) {
            reply();
            _order.leave(place);
            return;
        }
        logPublish(record.head);
        PublishOrder::Publish publish;
        publish.record = record;
        freshenUid(publish.record);
        if (_order.isFull())
            publish.reply = reply;
        else
            reply();
        publish.receivers = _subscriptions.receivers(record.head.name);
        _order.takeEffect(place, publish);
    };
    if (isKept)
        _storage.publish(record, done);
    else
        done(TrelanError());
}

void BusCore::remove(ConnectionId id, const BusRequest &request)
{
    const QString remover = _queryClients.name(id);
    const auto write = _writes.begin(id, PendingWrites::Change, costOf(request));
    // Without a place a removal holds nothing up that nobody is to be told of.
    const quint64 place = _removals.isEmpty() ? 0 : _order.takePlace();
    const auto done = [this, id, word = request.word, remover, place,
                       write](const TrelanError &error, const QStringList &removed) {
        objectsRemoved(removed, remover, place,
                       [this, write, id, word, error] { replyInTurn(write, id, word, error); });
    };
    _storage.remove(request.names, done);
}

/// Replies to a request that was on its way to the disk when those before it are answered, and to
/// any other one at once.
void BusCore::replyInTurn(const PendingWrites::Write &write, ConnectionId id, const QString &word,
                          const TrelanError &error)
{
    const auto reply = [this, id, word, error] { _output.reply(id, word, error); };
    if (write.number == 0) {
        reply();
        return;
    }
    if (_waiting.contains(id) && (_answered.isEmpty() || _answered.constLast() != id))
        _answered.append(id);
    _writes.end(write, reply);
}

/// Tells of stored objects that are gone from the storage. Everything that removes objects ends
/// here. \a place is the one that was taken for the removal, if any.
void BusCore::objectsRemoved(const QStringList &names, const QString &remover, quint64 place,
                             const std::function<void()> &reply)
{
    const bool isTold = !names.isEmpty() && !_removals.isEmpty();
    const bool waits = isTold && _order.isFull();
    if (reply && !waits)
        reply();
    if (isTold) {
        PublishOrder::Removal removal;
        removal.names = names;
        removal.remover = remover;
        removal.time = QDateTime::currentMSecsSinceEpoch();
        if (waits)
            removal.reply = reply;
        _order.takeEffect(place == 0 ? _order.takePlace() : place, std::move(removal));
    } else if (place != 0) {
        _order.leave(place);
    }
}

/// Tells of as many names as may be told before others have a turn. An object that is there again
/// is passed over: its publish is behind the removal, or the client has been told of it already.
bool BusCore::tellRemoval(PublishOrder::Removal &removal)
{
    if (removal.reply)
        std::exchange(removal.reply, {})();
    for (int work = 0; removal.next < removal.names.size(); ++removal.next) {
        if (work >= MAX_TOLD_AT_ONCE) {
            _output.goOnLater();
            return false;
        }
        const QString name = removal.names.at(removal.next);
        ++work;
        if (_storage.find(name))
            continue;
        QStringList receivers = _removals.receivers(name);
        const auto isSpared = [&](const QString &client) { return removal.spares(client, name); };
        receivers.erase(std::remove_if(receivers.begin(), receivers.end(), isSpared),
                        receivers.end());
        work += receivers.size();
        closeReceivers(_delivery.deliverRemoval(name, removal.remover, removal.time, receivers));
    }
    return true;
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
    const QString client = _queryClients.name(id);
    QSet<QString> added;
    for (const QString &wildcard : request.names) {
        if (!_subscriptions.contains(client, wildcard))
            added.insert(wildcard);
        if (_subscriptions.count(client) + added.size() > _maxSubscriptions)
            break; // a frame has room for millions of wildcards
    }
    QStringList distinct; // one wildcard may be there a million times
    if (request.now && _subscriptions.count(client) + added.size() <= _maxSubscriptions) {
        distinct = request.names;
        distinct.removeDuplicates();
    }
    TrelanError fault = subscriptionFault(client, request, added.size(), distinct.size());
    if (fault.error() != TrelanError::NoError && request.told) {
        _delivery.hearAll(); // what has been acknowledged takes no room
        fault = subscriptionFault(client, request, added.size(), distinct.size());
    }
    if (fault.error() != TrelanError::NoError) {
        _output.reply(id, request.word, fault);
        return;
    }
    for (const QString &wildcard : std::as_const(added))
        _subscriptions.add(client, wildcard);
    if (request.removals)
        subscribeToRemovals(client, request.names);
    _output.reply(id, request.word, TrelanError());
    if (request.now)
        notifyOfStored(_queryClients.name(id), distinct, request);
}

void BusCore::subscribeToRemovals(const QString &client, const QStringList &wildcards)
{
    if (_removals.count(client) == 0)
        _order.skipRemovals(client);
    for (const QString &wildcard : wildcards)
        _removals.add(client, wildcard);
}

/// What is wrong with a subscription that adds so many wildcards, and asks for the values of so
/// many.
TrelanError BusCore::subscriptionFault(const QString &client, const BusRequest &request, int added,
                                       int valued) const
{
    if (_subscriptions.count(client) + added > _maxSubscriptions) {
        return {TrelanError::IncorrectRequestData,
                QStringLiteral("a client has %1 subscriptions at most").arg(_maxSubscriptions)};
    }
    if (valued > 1 && qint64(valued) * _storage.objectCount() > MAX_TESTS_AT_ONCE) {
        return {TrelanError::IncorrectRequestData,
                QStringLiteral("%1 wildcards and %2 stored objects are too many at once")
                    .arg(valued)
                    .arg(_storage.objectCount())};
    }
    return request.told ? _delivery.toldFault(client, request.wildcards) : TrelanError();
}

/// Runs in one step with the subscription, so that the client hears of every later change
/// afterwards.
void BusCore::notifyOfStored(const QString &client, const QStringList &wildcards,
                             const BusRequest &request)
{
    if (client.isEmpty())
        return; // it ended while it was answered
    QStringList names = _storage.namesMatching(wildcards);
    std::sort(names.begin(), names.end());
    _order.skip(client, QSet<QString>(names.cbegin(), names.cend()));
    closeReceivers(request.told ? _delivery.tellStored(names, client, request.wildcards)
                                : _delivery.deliverStored(names, client));
}

void BusCore::listClients(ConnectionId id, const BusRequest &request)
{
    _delivery.hearAll();
    QStringList names = _queryClients.names() + _msgClients.names() + _delivery.names();
    std::sort(names.begin(), names.end());
    names.erase(std::unique(names.begin(), names.end()), names.end());
    QVariantList clients;
    QVector<quint64> sockets;
    for (const QString &name : std::as_const(names)) {
        const ClientOwner owner = ownerOf(_queryClients.client(name), _msgClients.client(name));
        clients.append(clientData(name));
        sockets.append(owner.socket);
    }
    _output.replyClients(id, request.word, clients, sockets);
}

QVariantMap BusCore::clientData(const QString &name) const
{
    const ClientRegistry::Client query = _queryClients.client(name);
    const ClientRegistry::Client messages = _msgClients.client(name);
    QStringList connections;
    if (!query.name.isEmpty())
        connections.append(channels::QUERY);
    if (!messages.name.isEmpty())
        connections.append(channels::MESSAGE);
    QVariantMap data {
        {keys::CLIENT_NAME, name},
        {keys::CLIENT_ADDRESS, query.name.isEmpty() ? messages.peer : query.peer},
        {keys::CLIENT_CONNECTIONS, connections},
        {keys::CLIENT_SUBSCRIPTIONS, _subscriptions.count(name)},
        {keys::CLIENT_QUEUED, _delivery.queuedMessages(name)},
        {keys::CLIENT_QUEUED_BYTES, _delivery.queuedBytes(name)},
        {keys::CLIENT_IN, query.count},
        {keys::CLIENT_OUT, messages.count},
    };
    if (!connections.isEmpty())
        addOwner(ownerOf(query, messages), data);
    return data;
}

void BusCore::unsubscribe(ConnectionId id, const BusRequest &request)
{
    const QString client = _queryClients.name(id);
    for (const QString &wildcard : request.names) {
        _subscriptions.remove(client, wildcard);
        _removals.remove(client, wildcard);
    }
    _output.reply(id, request.word, TrelanError());
}

void BusCore::sendMessage(ConnectionId id, const BusRequest &request)
{
    const TrelanMessage &message = *request.message;
    if (message.isLogged()) {
        qCInfo(BUS_LOG).noquote() << QStringLiteral("%1 sends a message to %2")
                                         .arg(names::quoted(message.sender()),
                                              names::quoted(message.reciever()));
    }
    PendingWrites::Write write;
    if (message.isStored())
        write = _writes.begin(id, PendingWrites::Message, costOf(request));
    _delivery.accept(message, request.limit,
                     [this, write, id, word = request.word](const TrelanError &error) {
                         replyInTurn(write, id, word, error);
                     });
}

/// Delivers to each client with a matching wildcard once, however many of its wildcards match.
void BusCore::deliver(const PublishOrder::Publish &publish)
{
    if (publish.reply)
        publish.reply();
    QStringList receivers = publish.receivers;
    if (publish.waited) { // some receivers may be gone or have unsubscribed
        const QStringList present = _subscriptions.receivers(publish.record.head.name);
        const QSet<QString> subscribed(present.cbegin(), present.cend());
        const auto isGone = [&](const QString &client) { return !subscribed.contains(client); };
        receivers.erase(std::remove_if(receivers.begin(), receivers.end(), isGone),
                        receivers.end());
    }
    _delivery.makeRoom();
    closeReceivers(_delivery.deliver(publish.record, receivers));
}

void BusCore::closeReceivers(const BusDelivery::Overruns &overruns)
{
    for (auto overrun = overruns.cbegin(); overrun != overruns.cend(); ++overrun)
        closeReceiver(overrun.key(), *overrun);
}

void BusCore::forgetSubscriptions(const QString &client)
{
    _subscriptions.removeClient(client);
    _removals.removeClient(client);
    _delivery.dropNotifications(client);
}

/// Closes a client that cannot be told of a change, so that it does not believe to know them all.
void BusCore::closeReceiver(const QString &client, const QString &reason)
{
    if (_warnings.allows(client)) {
        qCWarning(BUS_LOG).noquote()
            << QStringLiteral("client %1 loses its subscriptions and its message connection: %2")
                   .arg(names::quoted(client), reason);
    }
    if (const ConnectionId id = _msgClients.connection(client))
        _output.readReplies(id); // or their messages would be sent again
    forgetSubscriptions(client);
    if (const ConnectionId id = _msgClients.connection(client)) {
        endMessages(id);
        _output.closeConnection(id);
    }
}

/// Gives a value another id for its receivers if its publisher has used the uid for the value
/// before: receivers drop a message whose key they know.
void BusCore::freshenUid(ObjectRecord &record)
{
    const QString name = record.head.name;
    const size_t digest = std::hash<std::string_view>()(
        {record.contentJson.constData(), size_t(record.contentJson.size())});
    const QString uid = record.head.uid;
    QPair<QString, size_t> *const last = _lastPublished.object(name);
    if (last && last->first == uid && last->second != digest) {
        record.deliveryUid = names::freshUid();
        if (record.head.isStored())
            _storage.setDeliveryUid(name, record.deliveryUid);
    }
    if (last)
        *last = {uid, digest};
    else
        _lastPublished.insert(name, new QPair<QString, size_t>(uid, digest));
}

} // namespace bus
