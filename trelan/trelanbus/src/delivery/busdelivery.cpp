#include "delivery/busdelivery.h"

#include "values/busnames.h"

#include <algorithm>

namespace bus
{

namespace
{

const QString LOGGER_NAME = QStringLiteral("logger");
constexpr qint64 LOG_WARNING_INTERVAL_MS = 60LL * 60 * 1000;
constexpr int CONFLATED_BYTES_SHARE = 16; // a sixteenth of the bytes of a client
constexpr int MAX_MARKERS = 100;
constexpr qint64 MARKER_COST = 512; // bytes beside its wildcards

TrelanError boundFault(const QString &description)
{
    return {TrelanError::StorageAccessError, description};
}

QString totalFault(qint64 maxBytes)
{
    return QStringLiteral("the bus queues %1 bytes at most").arg(maxBytes);
}

TrelanError absenceFault(const QString &name)
{
    return {TrelanError::UnregisteredClient,
            QStringLiteral("client %1 is not connected").arg(names::quoted(name))};
}

qint64 costOf(const TrelanMessage &message)
{
    return QueuedMessage(std::make_shared<const MessageBody>(message), message.reciever(),
                         message.uid())
        .cost();
}

void warnGivenUp(const QString &name, const QList<QueuedMessage> &messages)
{
    int outlived = 0;
    for (const QueuedMessage &message : messages) {
        if (message.outlived) {
            ++outlived;
            continue;
        }
        qCWarning(BUS_LOG).noquote()
            << QStringLiteral("message %1 of %2 for %3 is given up")
                   .arg(names::quoted(message.uid), names::quoted(message.body->sender()),
                        names::quoted(name));
    }
    if (outlived > 0) {
        qCWarning(BUS_LOG).noquote()
            << QStringLiteral("%1 messages for %2 have waited too long and are given up")
                   .arg(outlived)
                   .arg(names::quoted(name));
    }
}

} // namespace

BusDelivery::BusDelivery(const TrelanBusSettings &settings, BusStorage &storage, BusOutput &output,
                         Sent onSent)
    : _settings(settings)
    , _storage(storage)
    , _output(output)
    , _onSent(std::move(onSent))
    , _left(settings.maxQueues())
{
    _clock.start();
}

void BusDelivery::restore()
{
    const qint64 wallClock = QDateTime::currentMSecsSinceEpoch();
    const QVector<StoredMessage> messages = _storage.takeLoadedMessages();
    for (const StoredMessage &stored : messages) {
        // The machine's clock may have been set since then, so that its difference can be anything.
        const qint64 age =
            qBound<qint64>(0, wallClock - stored.queuedAt, _settings.messageLifetime());
        const QString name = stored.message.reciever();
        append(stored.message, now() - age, stored.id, 0);
    }
    // A client may connect at once, and must not get what is out of date.
    checkTimes();
}

void BusDelivery::accept(const TrelanMessage &message, qint64 limit, const Done &done)
{
    const QString name = message.reciever();
    const qint64 cost = costOf(message);
    if (needsRoom(name, cost))
        hearAll(); // what has been acknowledged takes no room
    if (!isConnected(name) && name != LOGGER_NAME && (!message.isStored() || hasLeft(name))) {
        done(absenceFault(name));
        return;
    }
    const TrelanError fault = roomFault(name, cost);
    if (fault.error() == TrelanError::NoError && isKept(message, limit)) {
        keep(message, cost, done);
        return;
    }
    if (fault.error() == TrelanError::NoError)
        append(message, now(), 0, limit);
    finish(message, fault, done);
}

bool BusDelivery::surelyGoesToDisk(const TrelanMessage &message, qint64 limit) const
{
    const QString name = message.reciever();
    return _storage.state() == BusStorage::OnDisk && isKept(message, limit) &&
           (isConnected(name) || !hasLeft(name)) &&
           roomFault(name, costOf(message)).error() == TrelanError::NoError;
}

/// Whether a message that is accepted goes to the disk, if there is one.
bool BusDelivery::isKept(const TrelanMessage &message, qint64 limit) const
{
    // A log line is not worth the wait for the disk, where no bound drops the oldest lines.
    if (!message.isStored() || limit != 0 || message.reciever() == LOGGER_NAME)
        return false;
    // The queue of a transient client would end with the bus, anyway.
    return !isConnected(message.reciever()) || !_clients.constFind(message.reciever())->transient;
}

/// Takes the room before the disk has the message, so that an accepted message always fits.
void BusDelivery::keep(const TrelanMessage &message, qint64 cost, const Done &done)
{
    reserve(message.reciever(), 1, cost);
    _storage.keepMessage(message, [this, message, cost, done](const TrelanError &error, qint64 id) {
        reserve(message.reciever(), -1, -cost);
        const bool kept = error.error() == TrelanError::NoError;
        const bool late = kept && hasLeft(message.reciever());
        if (late)
            _storage.removeMessages({id});
        else if (kept)
            append(message, now(), id, 0);
        settleAccount(message.reciever());
        finish(message, late ? absenceFault(message.reciever()) : error, done);
    });
}

void BusDelivery::finish(const TrelanMessage &message, const TrelanError &error, const Done &done)
{
    done(error);
    if (error.error() != TrelanError::NoError)
        return;
    sendMore(message.reciever());
    dropExcess(message.reciever());
}

void BusDelivery::reserve(const QString &name, int messages, qint64 bytes)
{
    Client &reserving = client(name);
    reserving.reservedMessages += messages;
    reserving.reservedBytes += bytes;
    _bytes += bytes;
}

BusDelivery::Overruns BusDelivery::deliver(const ObjectRecord &record, const QStringList &clients)
{
    Overruns overruns;
    Notification notification(_settings.coding());
    for (const QString &client : clients) {
        const QString overrun = notify(client, record, false, notification);
        if (!overrun.isEmpty())
            overruns.insert(client, overrun);
        sendMore(client, notification);
        dropExcess(client);
    }
    return overruns;
}

BusDelivery::Overruns BusDelivery::deliverRemoval(const QString &object, const QString &remover,
                                                  qint64 time, const QStringList &clients)
{
    Overruns overruns;
    Notification notification(_settings.coding());
    for (const QString &client : clients) {
        if (isBehind(client, object, Notification::REMOVAL_COST)) {
            const QString overrun = appendName(client, object, {false, false, time, remover});
            if (!overrun.isEmpty())
                overruns.insert(client, overrun);
        } else {
            append(client, notification.removal(object, remover, time, client), now());
        }
        sendMore(client, notification);
    }
    return overruns;
}

BusDelivery::Overruns BusDelivery::deliverStored(const QStringList &objects, const QString &client)
{
    Notification notification(_settings.coding());
    const Overruns overruns = queueStored(objects, client, notification);
    if (overruns.isEmpty())
        sendMore(client, notification);
    return overruns;
}

BusDelivery::Overruns BusDelivery::tellStored(const QStringList &objects, const QString &client,
                                              const QString &wildcards)
{
    _told.insert(client);
    Notification notification(_settings.coding());
    const Overruns overruns = queueStored(objects, client, notification);
    if (overruns.isEmpty()) {
        append(client, notification.marker(client, wildcards), now());
        sendMore(client, notification);
    }
    return overruns;
}

BusDelivery::Overruns BusDelivery::queueStored(const QStringList &objects, const QString &client,
                                               Notification &notification)
{
    for (const QString &object : objects) {
        const ObjectRecord *record = _storage.find(object);
        const QString overrun = record ? notify(client, *record, true, notification) : QString();
        if (!overrun.isEmpty())
            return {{client, overrun}};
    }
    return {};
}

/// Markers have bounds of their own: a client that has been away for long, and whose messages fill
/// its queue, has to be able to subscribe.
TrelanError BusDelivery::toldFault(const QString &client, const QString &wildcards) const
{
    const qint64 cost = MARKER_COST + wildcards.size() * qint64(sizeof(QChar));
    const auto known = _clients.constFind(client);
    const int markers = known == _clients.constEnd() ? 0 : known->queue.markerCount();
    const qint64 most = _settings.maxClientBytes() / CONFLATED_BYTES_SHARE;
    if (markers >= MAX_MARKERS) {
        return boundFault(QStringLiteral("client %1 has %2 subscriptions to be told of at most")
                              .arg(names::quoted(client))
                              .arg(MAX_MARKERS));
    }
    if (markers > 0 && known->queue.markerBytes() + cost > most) {
        return boundFault(
            QStringLiteral("client %1 has subscriptions of %2 bytes to be told of at most")
                .arg(names::quoted(client))
                .arg(most));
    }
    return _bytes + cost > _settings.maxQueuedBytes()
               ? boundFault(totalFault(_settings.maxQueuedBytes()))
               : TrelanError();
}

/// What a notification of a stored object says to a client. If \a now, the client has asked for the
/// value.
Notification::Stored BusDelivery::wording(const QString &client, bool now) const
{
    if (_told.isEmpty() || !_told.contains(client))
        return Notification::Unsaid;
    return now ? Notification::Now : Notification::Changed;
}

/// Queues a notification. If \a now, the client has asked for the value, and may know its id.
/// Returns the bound that the client is past, for people; usually nothing.
QString BusDelivery::notify(const QString &name, const ObjectRecord &record, bool now,
                            Notification &notification)
{
    if (Notification::isKept(record) &&
        isBehind(name, record.head.name, Notification::cost(record))) {
        ClientQueue::NameState state;
        state.fresh = now;
        state.now = now;
        return appendName(name, record.head.name, state);
    }
    QueuedMessage message = notification.message(record, name, wording(name, now));
    if (now)
        message.setUid(names::freshUid());
    append(name, std::move(message), this->now());
    return {};
}

void BusDelivery::dropNotifications(const QString &client)
{
    _told.remove(client);
    const auto known = _clients.find(client);
    if (known == _clients.end())
        return;
    known->queue.dropNotifications();
    if (known->lostEvents > 0)
        warnOfLostEvents(client, *known);
    settleAccount(client);
}

void BusDelivery::attach(const QString &name, ConnectionId id, TrelanTransport::Mode mode,
                         bool transient)
{
    Client &attached = client(name);
    _absent -= int(attached.connection == 0);
    attached.connection = id;
    attached.transient = transient;
    attached.mayHearLate = mode == TrelanTransport::Prompt;
    setHearsLate(attached, false);
    _left.remove(name);
    attached.queue.setMode(mode);
}

void BusDelivery::detach(const QString &client)
{
    const auto known = _clients.find(client);
    if (known == _clients.end() || known->connection == 0)
        return;
    known->connection = 0;
    setHearsLate(*known, false);
    ++_absent;
    if (known->transient) {
        known->queue.clear();
        _left.insert(client, new qint64(now()));
    } else {
        known->queue.restart();
    }
    settleAccount(client);
}

void BusDelivery::acknowledge(const QString &client, const QString &sender, const QString &reciever,
                              const QString &uid)
{
    const auto known = _clients.find(client);
    if (known == _clients.end())
        return;
    known->queue.acknowledge(sender, reciever, uid, now());
    settleAccount(client);
    sendMore(client);
}

void BusDelivery::sendMore(const QString &client)
{
    Notification notification(_settings.coding());
    sendMore(client, notification);
}

void BusDelivery::sendMore(const QString &name, Notification &notification)
{
    while (sendNext(name, notification)) {}
    chooseHearing(name);
}

/// Sends one frame. False if there is none to send now.
bool BusDelivery::sendNext(const QString &name, Notification &notification)
{
    const auto newest = [&](const QString &object, const ClientQueue::NameState &state) {
        if (const ObjectRecord *record = _storage.find(object))
            return notification.message(*record, name, wording(name, state.now));
        return state.removedAt == 0
                   ? QueuedMessage()
                   : notification.removal(object, state.remover, state.removedAt, name);
    };
    // The client is looked up each time, since sending may find the connection at its end.
    const auto known = _clients.find(name);
    if (known == _clients.end() || known->connection == 0 || !known->queue.hasNext() ||
        !_output.canPush(known->connection) || encodesLarge(name, *known, std::cref(newest)))
        return false;
    const QByteArray frame = known->queue.takeFrame(now(), std::cref(newest), _settings.coding());
    const ConnectionId connection = known->connection;
    settleAccount(name); // names have become messages
    if (frame.isEmpty())
        return false;
    _output.push(connection, frame);
    _onSent(connection);
    return true;
}

/// Decides whether the acknowledgements of a client are left unread from now on. That they are read
/// again is left to hearDue(), since reading changes the queue.
void BusDelivery::chooseHearing(const QString &name)
{
    const auto known = _clients.find(name);
    if (known == _clients.end() || mayHearLate(*known) == known->hearsLate)
        return;
    if (known->hearsLate) {
        _hearingDue.append(name);
        return;
    }
    setHearsLate(*known, true);
    _output.setReadsLate(known->connection, true);
}

bool BusDelivery::mayHearLate(const Client &client) const
{
    // What is in flight counts for every bound, so that a part of each is left to it.
    const ClientQueue::Bounds bounds {
        qMin(_settings.conflateAbove(), _settings.maxClientMessages()),
        _settings.maxClientBytes() / CONFLATED_BYTES_SHARE};
    return client.connection != 0 && client.mayHearLate && !isTight() &&
           client.queue.mayHearLate(bounds, client.hearsLate);
}

void BusDelivery::hearDue()
{
    if (_isHearing)
        return; // what has begun to matter meanwhile is read further up the stack
    _isHearing = true;
    while (!_hearingDue.isEmpty()) {
        const QStringList due = std::exchange(_hearingDue, {});
        for (const QString &name : due) {
            const auto late = _clients.constFind(name);
            if (late != _clients.constEnd() && late->hearsLate)
                _output.readReplies(late->connection);
            const auto known = _clients.find(name); // what was read may have changed everything
            if (known == _clients.end() || !known->hearsLate || mayHearLate(*known))
                continue;
            setHearsLate(*known, false);
            _output.setReadsLate(known->connection, false);
        }
    }
    _isHearing = false;
}

void BusDelivery::hearAll()
{
    if (_hearingLate == 0)
        return;
    for (auto client = _clients.cbegin(); client != _clients.cend(); ++client) {
        if (client->hearsLate)
            _hearingDue.append(client.key());
    }
    hearDue();
}

void BusDelivery::makeRoom()
{
    if (isTight())
        hearAll();
    else
        hearDue();
}

bool BusDelivery::isTight() const
{
    return _bytes >= _settings.maxQueuedBytes() / 2;
}

/// Whether a message of this cost would be refused, or oldest log lines dropped for it.
bool BusDelivery::needsRoom(const QString &name, qint64 cost) const
{
    if (name != LOGGER_NAME)
        return roomFault(name, cost).error() != TrelanError::NoError;
    const auto known = _clients.constFind(name);
    return isTight() || (known != _clients.constEnd() && isFull(*known, 1, cost));
}

void BusDelivery::setHearsLate(Client &client, bool late)
{
    _hearingLate += int(late) - int(client.hearsLate);
    client.hearsLate = late;
}

void BusDelivery::checkTimes()
{
    const QStringList names = _clients.keys();
    for (const QString &name : names) {
        Client &client = _clients[name];
        if (client.connection != 0 && !_output.canPush(client.connection))
            client.queue.heard(now()); // a large frame is still leaving
        client.queue.checkTimes(now(), _settings.messageLifetime());
        if (client.lostEvents > 0 && _warnings.allows(name))
            warnOfLostEvents(name, client);
        settleAccount(name);
    }
    for (const QString &name : names)
        sendMore(name);
}

bool BusDelivery::hasQueues() const
{
    return _bytes > 0; // names never wait alone, or until some time
}

bool BusDelivery::hasDeadline() const
{
    return std::any_of(_clients.cbegin(), _clients.cend(), [](const Client &client) {
        return client.queue.hasDeadline() || client.lostEvents > 0;
    });
}

QStringList BusDelivery::names() const
{
    return _clients.keys();
}

int BusDelivery::queuedMessages(const QString &client) const
{
    const auto known = _clients.constFind(client);
    return known == _clients.constEnd() ? 0 : known->queue.count() + known->queue.nameCount();
}

qint64 BusDelivery::queuedBytes(const QString &client) const
{
    const auto known = _clients.constFind(client);
    return known == _clients.constEnd() ? 0 : known->queue.bytes() + known->queue.nameBytes();
}

/// The queue of a client, which is made if there is none.
BusDelivery::Client &BusDelivery::client(const QString &name)
{
    const auto known = _clients.find(name);
    if (known != _clients.end())
        return *known;
    ++_absent;
    return *_clients.insert(name, Client());
}

/// Whether a transient client of this name has gone, so lately that messages may still come for it.
bool BusDelivery::hasLeft(const QString &name) const
{
    const qint64 *at = _left.object(name);
    return at && now() - *at < _settings.messageLifetime();
}

bool BusDelivery::isConnected(const QString &name) const
{
    const auto known = _clients.constFind(name);
    return known != _clients.constEnd() && known->connection != 0;
}

TrelanError BusDelivery::roomFault(const QString &name, qint64 cost) const
{
    if (name == LOGGER_NAME)
        return TrelanError(); // dropExcess() makes room
    const auto known = _clients.constFind(name);
    const bool isNew = known == _clients.constEnd();
    if (isNew && _absent >= _settings.maxQueues()) {
        return boundFault(QStringLiteral("the bus has %1 queues for absent clients at most")
                              .arg(_settings.maxQueues()));
    }
    if (_bytes + cost > _settings.maxQueuedBytes())
        return boundFault(totalFault(_settings.maxQueuedBytes()));
    const Client nothing;
    const Client &client = isNew ? nothing : *known;
    if (isFull(client, 1, 0)) {
        return boundFault(QStringLiteral("client %1 has %2 messages waiting at most")
                              .arg(names::quoted(name))
                              .arg(_settings.maxClientMessages()));
    }
    if (isFull(client, 1, cost)) {
        return boundFault(QStringLiteral("client %1 has %2 bytes waiting at most")
                              .arg(names::quoted(name))
                              .arg(_settings.maxClientBytes()));
    }
    return TrelanError();
}

/// Whether a queue with so much more would be past a bound.
bool BusDelivery::isFull(const Client &client, int messages, qint64 bytes) const
{
    return client.queue.count() + client.reservedMessages + messages >
               _settings.maxClientMessages() ||
           client.queue.bytes() + client.reservedBytes + bytes > _settings.maxClientBytes();
}

/// Whether of a stored object only the name is to wait.
bool BusDelivery::isBehind(const QString &name, const QString &object, qint64 cost) const
{
    if (_bytes + cost > _settings.maxQueuedBytes())
        return true;
    const auto known = _clients.constFind(name);
    if (known == _clients.constEnd())
        return cost > _settings.maxClientBytes() / CONFLATED_BYTES_SHARE;
    const ClientQueue &queue = known->queue;
    const int most = qMin(_settings.conflateAbove(), _settings.maxClientMessages());
    return queue.hasName(object) || queue.count() + queue.nameCount() >= most ||
           queue.bytes() + cost > _settings.maxClientBytes() / CONFLATED_BYTES_SHARE;
}

QString BusDelivery::appendName(const QString &name, const QString &object,
                                const ClientQueue::NameState &state)
{
    ClientQueue &queue = client(name).queue;
    if (!queue.hasName(object)) {
        if (queue.nameCount() >= _settings.maxClientNames())
            return QStringLiteral("%1 objects wait for it at most").arg(_settings.maxClientNames());
        // Past the bound of all clients those with more than their share have to go.
        if (_nameBytes > _settings.maxQueuedBytes() &&
            queue.nameBytes() > _nameBytes / _clients.size())
            return totalFault(_settings.maxQueuedBytes());
    }
    const ObjectRecord *record = _storage.find(object);
    queue.appendName(record ? record->head.name : object, state);
    settleAccount(name);
    return {};
}

void BusDelivery::append(const QString &name, QueuedMessage message, qint64 queuedAt)
{
    message.queuedAt = queuedAt;
    client(name).queue.append(std::move(message));
    settleAccount(name);
}

/// The \a limit is counted from \a queuedAt; 0 is none.
void BusDelivery::append(const TrelanMessage &message, qint64 queuedAt, qint64 storedId,
                         qint64 limit)
{
    QueuedMessage queued(std::make_shared<const MessageBody>(message), message.reciever(),
                         message.uid());
    queued.storedId = storedId;
    queued.endsAt = limit == 0 ? 0 : queuedAt + limit;
    append(message.reciever(), std::move(queued), queuedAt);
}

/// Whether the next frame of a client is large and is being made by the codec thread, from now on
/// if it was not yet.
bool BusDelivery::encodesLarge(const QString &name, Client &client,
                               const ClientQueue::Newest &newest)
{
    if (client.encoding)
        return true;
    const QueuedMessage *next = client.queue.largeToEncode(now(), newest);
    if (!next)
        return false;
    settleAccount(name); // names have become messages
    client.encoding = true;
    const auto encode = [message = *next, coding = _settings.coding()] {
        return message.frame(coding);
    };
    _output.encode(encode, [this, name, key = next->key](const QByteArray &frame) {
        const auto known = _clients.find(name);
        if (known == _clients.end())
            return;
        known->encoding = false;
        known->queue.setFrame(key, frame);
        sendMore(name);
    });
    return true;
}

/// Drops what neither fits nor could be sent, the oldest first.
void BusDelivery::dropExcess(const QString &name)
{
    const auto known = _clients.find(name);
    if (known == _clients.end())
        return;
    dropExcess(name, *known, QueuedMessage::Event);
    if (name == LOGGER_NAME)
        dropExcess(name, *known, QueuedMessage::Direct);
    settleAccount(name);
}

/// Drops events that nobody fetches in favour of newer ones. Log lines are dropped, too, rather
/// than refused: the refusal would be logged and come back as the next line.
void BusDelivery::dropExcess(const QString &name, Client &client, QueuedMessage::Kind kind)
{
    const qint64 others = _bytes - client.accounted;
    qint64 dropped = 0;
    while ((isFull(client, 0, 0) || others + client.queue.bytes() > _settings.maxQueuedBytes()) &&
           client.queue.dropOldest(kind, client.encoding)) // the next frame is being made
        ++dropped;
    if (dropped == 0)
        return;
    if (kind == QueuedMessage::Direct) {
        countLostLogLines(dropped);
        return;
    }
    client.lostEvents += dropped;
    if (_warnings.allows(name))
        warnOfLostEvents(name, client);
}

void BusDelivery::warnOfLostEvents(const QString &name, Client &client)
{
    qCWarning(BUS_LOG).noquote() << QStringLiteral(
                                        "%1 notifications for %2 are dropped: its queue is full")
                                        .arg(client.lostEvents)
                                        .arg(names::quoted(name));
    client.lostEvents = 0;
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

/// Brings the sums of all queues up to date with a queue that has changed, and drops the queue when
/// there is nothing left to keep.
void BusDelivery::settleAccount(const QString &name)
{
    const auto known = _clients.find(name);
    if (known == _clients.end())
        return;
    _bytes += known->queue.bytes() - known->accounted;
    known->accounted = known->queue.bytes();
    _nameBytes += known->queue.nameBytes() - known->accountedNames;
    known->accountedNames = known->queue.nameBytes();
    warnGivenUp(name, known->queue.takeGivenUp());
    _storage.removeMessages(known->queue.takeSettled());
    if (known->queue.isEmpty() && known->connection == 0 && known->reservedMessages == 0) {
        if (known->lostEvents > 0)
            warnOfLostEvents(name, *known);
        _clients.erase(known);
        --_absent;
    }
}

qint64 BusDelivery::now() const
{
    return _clock.elapsed();
}

} // namespace bus
