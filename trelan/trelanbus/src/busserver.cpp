#include "busserver.h"

#include "answers.h"
#include "net/socketprocesses.h"
#include "request/buspayload.h"

#include <wirekeys.h>

#include <unistd.h>

#include <cerrno>
#include <memory>
#include <utility>

namespace bus
{

namespace
{

// Parsing a publish of this size takes about half a millisecond, as long as a few hundred small
// publishes; another thread would add two switches of threads. What is compressed takes longer byte
// by byte, and is limited by its inflated size as well.
constexpr qint64 SMALL_REQUEST = 256 * 1024;
constexpr qint64 SMALL_INFLATED = 512 * 1024;
constexpr qint64 SMALL_ANSWER = 64 * 1024;
constexpr int TIMES_INTERVAL_MS = 1000;

qint64 totalCost(const QVector<ObjectRecord> &records)
{
    qint64 cost = 0;
    for (const ObjectRecord &record : records)
        cost += record.cost();
    return cost;
}

/// Adds to each client the process that has its socket, where one can be seen.
QVariantList withProcesses(const QVariantList &clients, const QVector<quint64> &sockets)
{
    QSet<quint64> wanted(sockets.cbegin(), sockets.cend());
    wanted.remove(0);
    const QHash<quint64, SocketProcess> processes = processesOf(wanted);
    QVariantList completed;
    for (int i = 0; i < clients.size(); ++i) {
        QVariantMap client = clients[i].toMap();
        const SocketProcess process = processes.value(sockets[i]);
        if (process.id != 0) {
            client.insert(keys::CLIENT_PROCESS, process.id);
            client.insert(keys::CLIENT_PROGRAM, process.program);
        }
        completed.append(client);
    }
    return completed;
}

} // namespace

BusServer::BusServer(const TrelanBusSettings &settings, EventDispatcher &dispatcher)
    : _settings(settings)
    , _storage(settings,
               [this] {
                   QMetaObject::invokeMethod(this, &BusServer::handleStorageResults,
                                             Qt::QueuedConnection);
               })
    , _core(settings, _storage, *this)
    , _poller(dispatcher.poller())
    , _codec(
          [](const std::vector<Job> &jobs) {
              std::vector<Completion> completions;
              completions.reserve(jobs.size());
              for (const Job &job : jobs)
                  completions.push_back(job());
              return completions;
          },
          [this] {
              QMetaObject::invokeMethod(this, &BusServer::handleCodecResults, Qt::QueuedConnection);
          })
{
    connect(&_queryListener, &BusListener::descriptorArrived, this,
            [this](qintptr descriptor) { onDescriptor(BusConnection::Query, int(descriptor)); });
    connect(&_msgListener, &BusListener::descriptorArrived, this,
            [this](qintptr descriptor) { onDescriptor(BusConnection::Messages, int(descriptor)); });
    dispatcher.setHandler([this](ConnectionId id, quint32 events) {
        if (BusConnection *connection = _connections.value(id))
            connection->handle(events);
    });
    _times.setInterval(TIMES_INTERVAL_MS);
    connect(&_times, &QTimer::timeout, this, &BusServer::checkTimes);
    // A queued call would come before the clients: the queue is emptied in one go.
    _turns.setInterval(0);
    _turns.setSingleShot(true);
    connect(&_turns, &QTimer::timeout, this, &BusServer::goOn);
}

BusServer::~BusServer()
{
    _queryListener.close();
    _msgListener.close();
    const QList<BusConnection *> connections = _connections.values(); // reading may end some
    for (BusConnection *connection : connections)
        connection->readReplies();
    _codec.finish();
    handleCodecResults();
    _storage.finish();
    sendAnswers();
    qDeleteAll(std::exchange(_connections, {}));
}

bool BusServer::start()
{
    if (!_storage.open()) {
        _errorString = _storage.errorString();
        if (_settings.requireStorage())
            return false;
        qCWarning(BUS_LOG).noquote() << "permanent objects are refused:" << _errorString;
    }
    _core.restoreMessages();
    watchTimes();
    const bool listens =
        listen(_queryListener, _settings.queryDescriptor(), _settings.queryPort()) &&
        listen(_msgListener, _settings.msgDescriptor(), _settings.msgPort());
    if (listens)
        warnOfOpenDoors();
    return listens;
}

void BusServer::warnOfOpenDoors() const
{
    if (!_owners.canAsk()) {
        qCWarning(BUS_LOG) << "the kernel does not tell who connects: no name is kept from "
                              "anybody";
    }
    const QHostAddress query = _queryListener.serverAddress();
    const QHostAddress messages = _msgListener.serverAddress();
    const QHostAddress open = query.isLoopback() ? messages : query;
    if (open.isLoopback())
        return;
    qCWarning(BUS_LOG).noquote()
        << QStringLiteral("the bus listens on %1, beyond this machine: whoever can reach its ports "
                          "can read, change and remove everything on it; nothing is encrypted, "
                          "and of users of other machines only the address is known")
               .arg(open.toString());
}

bool BusServer::listen(BusListener &listener, int descriptor, quint16 port)
{
    const bool given = descriptor >= 0;
    if (given ? listener.listen(descriptor) : listener.listen(_settings.host(), port))
        return true;
    const QString where = given
                              ? QStringLiteral("descriptor %1").arg(descriptor)
                              : QStringLiteral("%1:%2").arg(_settings.host().toString()).arg(port);
    _errorString = QStringLiteral("cannot listen on %1: %2").arg(where, listener.errorString());
    return false;
}

quint16 BusServer::queryPort() const
{
    return _queryListener.serverPort();
}

quint16 BusServer::msgPort() const
{
    return _msgListener.serverPort();
}

TrelanBus::Storage BusServer::storage() const
{
    switch (_storage.state()) {
    case BusStorage::MemoryOnly:
        return TrelanBus::MemoryOnly;
    case BusStorage::OnDisk:
        return TrelanBus::OnDisk;
    case BusStorage::Unusable:
        break;
    }
    return TrelanBus::Unusable;
}

QString BusServer::errorString() const
{
    return _errorString;
}

void BusServer::takeNext(ConnectionId id)
{
    if (BusConnection *connection = _connections.value(id))
        connection->takeNext();
}

void BusServer::reply(ConnectionId id, const QString &word, const TrelanError &error)
{
    if (error.error() != TrelanError::NoError) {
        answer(id, answers::status(word, error, _settings));
        return;
    }
    QByteArray &frame = _doneFrames[word]; // bounded: only operations that exist succeed
    if (frame.isEmpty())
        frame = answers::status(word, error, _settings);
    answer(id, frame);
}

void BusServer::replyObject(ConnectionId id, const QString &word, const ObjectRecord &record)
{
    answerEncoded(id, record.cost(), [word, record, settings = _settings] {
        return answers::object(word, record, settings);
    });
}

void BusServer::replyObjects(ConnectionId id, const QString &word,
                             const QVector<ObjectRecord> &records)
{
    const qint64 cost = totalCost(records);
    if (cost > _settings.maxInflatedSize()) {
        const QString fault = QStringLiteral("%1 objects of %2 bytes are above the limit of %3")
                                  .arg(records.size())
                                  .arg(cost)
                                  .arg(_settings.maxInflatedSize());
        reply(id, word, {TrelanError::IncorrectRequestSize, fault});
        return;
    }
    answerEncoded(id, cost, [word, records, settings = _settings] {
        return answers::objects(word, records, settings);
    });
}

void BusServer::replyData(ConnectionId id, const QString &word, const QVariantMap &data,
                          qint64 cost)
{
    answerEncoded(id, cost, [word, data, settings = _settings] {
        return answers::data(word, data, settings);
    });
}

void BusServer::replyClients(ConnectionId id, const QString &word, const QVariantList &clients,
                             const QVector<quint64> &sockets)
{
    const auto encode = [word, clients, sockets, settings = _settings] {
        return answers::data(word, {{keys::CLIENTS, withProcesses(clients, sockets)}}, settings);
    };
    addJob(id, [this, id, encode] { return [this, id, frame = encode()] { answer(id, frame); }; });
}

bool BusServer::canPush(ConnectionId id) const
{
    const BusConnection *connection = _connections.value(id);
    return connection && connection->canPush();
}

void BusServer::push(ConnectionId id, const QByteArray &frame)
{
    sendAnswers(); // the publisher hears of its publish before the subscribers do
    if (BusConnection *connection = _connections.value(id))
        connection->push(frame);
}

void BusServer::setReadsLate(ConnectionId id, bool late)
{
    if (BusConnection *connection = _connections.value(id))
        connection->setReadsLate(late);
}

void BusServer::readReplies(ConnectionId id)
{
    if (BusConnection *connection = _connections.value(id))
        connection->readReplies();
}

void BusServer::encode(const std::function<QByteArray()> &make,
                       const std::function<void(const QByteArray &)> &done)
{
    _codec.add([make, done] { return [done, frame = make()] { done(frame); }; });
}

void BusServer::goOnLater()
{
    _turns.start();
}

void BusServer::closeConnection(ConnectionId id)
{
    if (BusConnection *connection = _connections.value(id))
        connection->close();
}

bool BusServer::isAtEnd(ConnectionId id) const
{
    const BusConnection *connection = _connections.value(id);
    return !connection || connection->isAtEnd();
}

QString BusServer::peer(ConnectionId id) const
{
    const BusConnection *connection = _connections.value(id);
    return connection ? connection->peer() : QString();
}

ClientOwner BusServer::owner(ConnectionId id) const
{
    const BusConnection *connection = _connections.value(id);
    return connection ? connection->clientOwner() : ClientOwner();
}

void BusServer::setRegistered(ConnectionId id)
{
    if (BusConnection *connection = _connections.value(id))
        connection->setRegistered();
}

void BusServer::onDescriptor(BusConnection::Channel channel, int descriptor)
{
    if (_connections.size() >= _settings.maxConnections()) {
        ::close(descriptor);
        if (_warnings.allows(QStringLiteral("connections"))) {
            qCWarning(BUS_LOG) << "a connection is refused: there are" << _connections.size()
                               << "already";
        }
        return;
    }
    auto *connection = new BusConnection(channel, ++_lastId, descriptor, _settings, _poller, *this);
    connection->setParent(this);
    connection->setClientOwner(_owners.ownerOf(descriptor)); // before the client may have gone
    _connections.insert(_lastId, connection);
    if (!connection->open()) {
        if (_warnings.allows(QStringLiteral("watching")))
            qCWarning(BUS_LOG).noquote() << "cannot watch a connection:" << qt_error_string(errno);
        connection->close();
    }
}

void BusServer::onRequest(ConnectionId id, const QByteArray &payload)
{
    const qint64 limit = _settings.maxInflatedSize();
    if (payload.size() <= SMALL_REQUEST) {
        BusRequest request = BusRequest::parse(payload, qMin(limit, SMALL_INFLATED));
        // A small payload may inflate a thousandfold, which makes it a large request.
        if (request.payloadFault != TrelanFrame::TooLarge || limit <= SMALL_INFLATED) {
            handle(id, std::move(request));
            return;
        }
    }
    addJob(id, [this, id, payload, limit] {
        return [this, id, request = BusRequest::parse(payload, limit)] {
            // A late handshake of a connection that is gone must not take over from its successor.
            if (_connections.contains(id))
                handle(id, request);
        };
    });
}

void BusServer::onReply(ConnectionId id, const QByteArray &payload)
{
    // An acknowledgement is short: decoding anything large would be a waste.
    if (payload.size() > SMALL_INFLATED)
        return;
    _core.handleReply(id, payload::decodeAcknowledgement(payload, SMALL_INFLATED));
    settle();
}

void BusServer::handle(ConnectionId id, BusRequest request)
{
    const BusConnection *connection = _connections.value(id);
    if (connection && connection->channel() == BusConnection::Messages)
        _core.handleOnMessageChannel(id, request);
    else
        _core.handle(id, std::move(request));
    settle();
}

void BusServer::onDrained(ConnectionId id)
{
    _core.pushMore(id);
    settle();
}

void BusServer::onFrameTooLarge(ConnectionId id, const QString &fault)
{
    if (BusConnection *connection = _connections.value(id)) {
        connection->answerAndEnd(
            answers::status(QString(), {TrelanError::IncorrectRequestSize, fault}, _settings));
    }
}

void BusServer::onClosed(ConnectionId id)
{
    _jobs.remove(id);
    _core.connectionClosed(id);
    if (BusConnection *connection = _connections.take(id))
        connection->deleteLater();
}

/// Drops the job with its connection, since jobs of clients that come, ask and go would pile up.
void BusServer::addJob(ConnectionId id, const Job &job)
{
    if (!_connections.contains(id))
        return;
    const auto kept = std::make_shared<const Job>(job);
    _jobs.insert(id, kept);
    _codec.add([this, id, waiting = std::weak_ptr<const Job>(kept)]() -> Completion {
        const std::shared_ptr<const Job> due = waiting.lock();
        if (!due)
            return {};
        return [this, id, complete = (*due)()] {
            _jobs.remove(id);
            complete();
        };
    });
}

void BusServer::handleCodecResults()
{
    for (const Completion &complete : _codec.takeResults()) {
        if (complete)
            complete();
    }
    settle();
}

void BusServer::handleStorageResults()
{
    _storage.handleResults();
    goOnBehindAnswers();
}

void BusServer::goOn()
{
    _core.goOn();
    goOnBehindAnswers();
}

/// Comes after whatever may have sent something.
void BusServer::settle()
{
    _core.hearDue();
    watchTimes();
}

/// Runs the clock only while something may run out, since an idle bus has to stay asleep.
void BusServer::watchTimes()
{
    if (!_times.isActive() && _core.hasQueues())
        _times.start();
}

void BusServer::checkTimes()
{
    if (!_core.checkTimes())
        _times.stop();
}

void BusServer::answerEncoded(ConnectionId id, qint64 cost,
                              const std::function<QByteArray()> &encode)
{
    if (cost <= SMALL_ANSWER) {
        answer(id, encode());
        return;
    }
    addJob(id, [this, id, encode] { return [this, id, frame = encode()] { answer(id, frame); }; });
}

void BusServer::answer(ConnectionId id, const QByteArray &frame)
{
    BusConnection *connection = _connections.value(id);
    if (connection && connection->answer(frame) == BusConnection::HeldBack &&
        (_holding.isEmpty() || _holding.constLast() != id))
        _holding.append(id);
}

void BusServer::sendAnswers()
{
    for (const ConnectionId id : std::exchange(_holding, {})) {
        if (BusConnection *connection = _connections.value(id))
            connection->sendAnswers();
    }
}

void BusServer::goOnBehindAnswers()
{
    sendAnswers();
    _core.handleWaiting();
    settle();
}

} // namespace bus
