#include "busdelivery.h"

#include "busnames.h"

namespace bus
{

namespace
{

const QString LOGGER_NAME = QStringLiteral("logger");
constexpr qint64 LOG_WARNING_INTERVAL_MS = 60LL * 60 * 1000;

TrelanError boundFault(const QString &description)
{
    return {TrelanError::StorageAccessError, description};
}

void warnGivenUp(const QString &name, const QList<Delivery> &deliveries)
{
    for (const Delivery &delivery : deliveries) {
        qCWarning(BUS_LOG).noquote()
            << QStringLiteral("message %1 of %2 for %3 is given up")
                   .arg(names::quoted(delivery.message.uid()),
                        names::quoted(delivery.message.sender()), names::quoted(name));
    }
}

} // namespace

BusDelivery::BusDelivery(const TrelanBusSettings &settings, BusOutput &output)
    : _settings(settings)
    , _output(output)
{
    _clock.start();
}

TrelanError BusDelivery::accept(const TrelanMessage &message)
{
    const QString name = message.reciever();
    const auto known = _clients.constFind(name);
    const bool connected = known != _clients.constEnd() && known->connection != 0;
    if (!connected && !message.isStored() && name != LOGGER_NAME) {
        return {TrelanError::UnregisteredClient,
                QStringLiteral("client %1 is not connected").arg(names::quoted(name))};
    }
    const TrelanError fault = roomFault(name, message);
    if (fault.error() == TrelanError::NoError)
        append(name, message, Delivery::Addressed);
    return fault;
}

void BusDelivery::notify(const QString &client, const TrelanObject &object, bool fresh)
{
    TrelanMessage message = object.toMessage(client);
    if (fresh)
        message.setUid(names::freshUid());
    append(client, message, Delivery::Notification);
}

void BusDelivery::dropNotifications(const QString &client)
{
    const auto known = _clients.find(client);
    if (known == _clients.end())
        return;
    const qint64 before = known->queue.bytes();
    known->queue.dropNotifications();
    changed(client, before);
}

void BusDelivery::attach(const QString &client, ConnectionId id)
{
    _clients[client].connection = id;
}

void BusDelivery::detach(const QString &client)
{
    const auto known = _clients.find(client);
    if (known == _clients.end())
        return;
    const qint64 before = known->queue.bytes();
    known->connection = 0;
    known->queue.restart();
    changed(client, before);
}

void BusDelivery::acknowledge(const QString &client, const QString &sender, const QString &reciever,
                              const QString &uid)
{
    const auto known = _clients.find(client);
    if (known == _clients.end())
        return;
    const qint64 before = known->queue.bytes();
    known->queue.acknowledge(sender, reciever, uid, now());
    changed(client, before);
}

int BusDelivery::pump(const QString &client)
{
    const auto known = _clients.find(client);
    if (known == _clients.end() || known->connection == 0)
        return 0;
    int pushed = 0;
    while (_output.canPush(known->connection)) {
        const QByteArray frame = known->queue.takeFrame(now());
        if (frame.isEmpty())
            break;
        _output.push(known->connection, frame);
        ++pushed;
    }
    return pushed;
}

bool BusDelivery::checkTimes()
{
    bool hasDeadline = false;
    const QStringList names = _clients.keys();
    for (const QString &name : names) {
        Client &client = _clients[name];
        const qint64 before = client.queue.bytes();
        if (client.connection != 0 && !_output.canPush(client.connection))
            client.queue.heard(now()); // a large frame is still leaving
        client.queue.checkTimes(now());
        changed(name, before);
        pump(name);
        const auto left = _clients.constFind(name);
        hasDeadline = hasDeadline || (left != _clients.constEnd() && left->queue.hasDeadline());
    }
    return hasDeadline;
}

bool BusDelivery::hasQueues() const
{
    return _bytes > 0;
}

QStringList BusDelivery::names() const
{
    return _clients.keys();
}

int BusDelivery::queuedMessages(const QString &client) const
{
    const auto known = _clients.constFind(client);
    return known == _clients.constEnd() ? 0 : known->queue.count();
}

qint64 BusDelivery::queuedBytes(const QString &client) const
{
    const auto known = _clients.constFind(client);
    return known == _clients.constEnd() ? 0 : known->queue.bytes();
}

TrelanError BusDelivery::roomFault(const QString &name, const TrelanMessage &message) const
{
    if (name == LOGGER_NAME)
        return TrelanError(); // see dropExcess()
    const auto known = _clients.constFind(name);
    const bool isNew = known == _clients.constEnd();
    Delivery delivery;
    delivery.message = message;
    const qint64 cost = delivery.cost();
    if (isNew && _clients.size() >= _settings.maxQueues)
        return boundFault(QStringLiteral("the bus has %1 queues at most").arg(_settings.maxQueues));
    if (_bytes + cost > _settings.maxQueuedBytes) {
        return boundFault(
            QStringLiteral("the bus queues %1 bytes at most").arg(_settings.maxQueuedBytes));
    }
    if (!isNew && isFull(known->queue, 1, cost)) {
        return boundFault(QStringLiteral("client %1 has %2 messages or %3 bytes waiting at most")
                              .arg(names::quoted(name))
                              .arg(_settings.maxClientMessages)
                              .arg(_settings.maxClientBytes));
    }
    return TrelanError();
}

/// Whether a queue is past a bound, with so much on top.
bool BusDelivery::isFull(const DeliveryQueue &queue, int messages, qint64 bytes) const
{
    return queue.count() + messages > _settings.maxClientMessages ||
           queue.bytes() + bytes > _settings.maxClientBytes;
}

void BusDelivery::append(const QString &name, const TrelanMessage &message, Delivery::Kind kind)
{
    DeliveryQueue &queue = _clients[name].queue;
    const qint64 before = queue.bytes();
    queue.append(message, kind, now());
    if (kind == Delivery::Notification || name == LOGGER_NAME)
        dropExcess(name, queue, kind, before);
    _bytes += queue.bytes() - before;
}

/// An event that nobody fetches makes room for the next; so does a log line, which must not be
/// refused either: the refusal would be logged, and come back as the next line.
void BusDelivery::dropExcess(const QString &name, DeliveryQueue &queue, Delivery::Kind kind,
                             qint64 bytesBefore)
{
    const qint64 others = _bytes - bytesBefore;
    qint64 dropped = 0;
    while ((isFull(queue, 0, 0) || others + queue.bytes() > _settings.maxQueuedBytes) &&
           queue.dropOldest(kind))
        ++dropped;
    if (dropped == 0)
        return;
    if (kind == Delivery::Addressed)
        countLostLogLines(dropped);
    else if (_warnings.allows(name)) {
        qCWarning(BUS_LOG).noquote()
            << QStringLiteral("notifications for %1 are dropped: its queue is full")
                   .arg(names::quoted(name));
    }
}

void BusDelivery::countLostLogLines(qint64 lines)
{
    _lostLogLines += lines;
    if (_logWarning.isValid() && !_logWarning.hasExpired(LOG_WARNING_INTERVAL_MS))
        return;
    qCWarning(BUS_LOG) << "log lines are lost, since no client \"logger\" fetches them:"
                       << _lostLogLines;
    _logWarning.start();
    _lostLogLines = 0;
}

/// Settles the account of a queue that was changed, and drops it when nothing is left to keep.
void BusDelivery::changed(const QString &name, qint64 bytesBefore)
{
    const auto known = _clients.find(name);
    _bytes += known->queue.bytes() - bytesBefore;
    warnGivenUp(name, known->queue.takeGivenUp());
    if (known->queue.isEmpty() && known->connection == 0)
        _clients.erase(known);
}

qint64 BusDelivery::now() const
{
    return _clock.elapsed();
}

} // namespace bus
