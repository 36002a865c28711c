#include "busserver.h"

#include <trelanframe.h>

#include <unistd.h>

namespace bus
{

namespace
{

// About where decoding takes as long as a few hundred small requests.
constexpr qint64 SMALL_REQUEST = 64 * 1024;
constexpr qint64 SMALL_INFLATED = 512 * 1024;
constexpr qint64 SMALL_ANSWER = 64 * 1024;

QByteArray replyFrame(const QString &word, const TrelanError &error,
                      const QVariantMap &data = QVariantMap())
{
    return TrelanFrame::encode(TrelanFrame::Reply, TrelanFrame::reply(word, error, data));
}

/// The frame of an answer, or of what is said in its place when it is above the limit.
QByteArray answerFrame(const QString &word, const QVariantMap &data, qint64 maxFrameSize)
{
    const QByteArray payload =
        TrelanFrame::encodePayload(TrelanFrame::reply(word, TrelanError(), data));
    if (payload.size() <= maxFrameSize)
        return TrelanFrame::frame(TrelanFrame::Reply, payload);
    const QString fault = QStringLiteral("an answer of %1 bytes is above the limit of %2")
                              .arg(payload.size())
                              .arg(maxFrameSize);
    return replyFrame(word, {TrelanError::IncorrectRequestSize, fault});
}

QVariantMap objectsData(const QVector<ObjectRecord> &records)
{
    QVariantMap data;
    for (const ObjectRecord &record : records)
        data.insert(record.head.name(), record.toObject().toVariantMap());
    return data;
}

qint64 totalCost(const QVector<ObjectRecord> &records)
{
    qint64 cost = 0;
    for (const ObjectRecord &record : records)
        cost += record.cost();
    return cost;
}

} // namespace

BusServer::BusServer(const TrelanBusSettings &settings)
    : _settings(settings)
    , _storage(settings,
               [this] {
                   QMetaObject::invokeMethod(
                       this, [this] { _storage.handleResults(); }, Qt::QueuedConnection);
               })
    , _core(settings, _storage, *this)
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
    connect(&_listener, &BusListener::descriptorArrived, this, &BusServer::onDescriptor);
}

BusServer::~BusServer()
{
    _listener.close();
    _codec.finish();
    handleCodecResults();
    _storage.finish();
    const QList<BusConnection *> connections = _connections.values();
    for (BusConnection *connection : connections) {
        connection->disconnect(this);
        delete connection;
    }
}

bool BusServer::start()
{
    if (!_storage.open()) {
        _errorString = _storage.errorString();
        if (_settings.requireStorage)
            return false;
        qCWarning(BUS_LOG).noquote() << "permanent objects are refused:" << _errorString;
    }
    if (_listener.listen(_settings.host, _settings.queryPort))
        return true;
    _errorString = QStringLiteral("cannot listen on %1:%2: %3")
                       .arg(_settings.host.toString())
                       .arg(_settings.queryPort)
                       .arg(_listener.errorString());
    return false;
}

quint16 BusServer::queryPort() const
{
    return _listener.serverPort();
}

TrelanBus::Storage BusServer::storage() const
{
    return _storage.state();
}

QString BusServer::errorString() const
{
    return _errorString;
}

void BusServer::reply(ConnectionId id, const QString &word, const TrelanError &error)
{
    answer(id, replyFrame(word, error));
}

void BusServer::replyObject(ConnectionId id, const QString &word, const ObjectRecord &record)
{
    answerEncoded(id, record.cost(), [word, record, most = _settings.maxFrameSize] {
        return answerFrame(word, record.toObject().toVariantMap(), most);
    });
}

void BusServer::replyObjects(ConnectionId id, const QString &word,
                             const QVector<ObjectRecord> &records)
{
    const qint64 cost = totalCost(records);
    if (cost > _settings.maxInflatedSize) {
        const QString fault = QStringLiteral("%1 objects of %2 bytes are above the limit of %3")
                                  .arg(records.size())
                                  .arg(cost)
                                  .arg(_settings.maxInflatedSize);
        reply(id, word, {TrelanError::IncorrectRequestSize, fault});
        return;
    }
    answerEncoded(id, cost, [word, records, most = _settings.maxFrameSize] {
        return answerFrame(word, objectsData(records), most);
    });
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

void BusServer::setRegistered(ConnectionId id)
{
    if (BusConnection *connection = _connections.value(id))
        connection->setRegistered();
}

void BusServer::onDescriptor(qintptr descriptor)
{
    if (_connections.size() >= _settings.maxConnections) {
        ::close(int(descriptor));
        if (_warnings.allows(QStringLiteral("connections"))) {
            qCWarning(BUS_LOG) << "a connection is refused: there are" << _connections.size()
                               << "already";
        }
        return;
    }
    auto *connection = new BusConnection(++_lastId, descriptor, _settings, this);
    _connections.insert(_lastId, connection);
    connect(connection, &BusConnection::requestArrived, this, &BusServer::onRequest);
    connect(connection, &BusConnection::frameTooLarge, this, &BusServer::onFrameTooLarge);
    connect(connection, &BusConnection::closed, this, &BusServer::onClosed);
}

void BusServer::onRequest(ConnectionId id, const QByteArray &payload)
{
    const qint64 limit = _settings.maxInflatedSize;
    if (payload.size() <= SMALL_REQUEST) {
        const BusRequest request = BusRequest::parse(payload, qMin(limit, SMALL_INFLATED));
        // A small payload may inflate a thousandfold, and is a large request then.
        if (request.payloadFault != TrelanFrame::TooLarge || limit <= SMALL_INFLATED) {
            _core.handle(id, request);
            return;
        }
    }
    _codec.add([this, id, payload, limit] {
        return
            [this, id, request = BusRequest::parse(payload, limit)] { _core.handle(id, request); };
    });
}

void BusServer::onFrameTooLarge(ConnectionId id, const QString &fault)
{
    if (BusConnection *connection = _connections.value(id)) {
        connection->answerAndEnd(replyFrame(QString(), {TrelanError::IncorrectRequestSize, fault}));
    }
}

void BusServer::onClosed(ConnectionId id)
{
    _core.connectionClosed(id);
    if (BusConnection *connection = _connections.take(id))
        connection->deleteLater();
}

void BusServer::handleCodecResults()
{
    for (const Completion &complete : _codec.takeResults())
        complete();
}

void BusServer::answerEncoded(ConnectionId id, qint64 cost,
                              const std::function<QByteArray()> &encode)
{
    if (cost <= SMALL_ANSWER) {
        answer(id, encode());
        return;
    }
    _codec.add([this, id, encode] { return [this, id, frame = encode()] { answer(id, frame); }; });
}

void BusServer::answer(ConnectionId id, const QByteArray &frame)
{
    if (BusConnection *connection = _connections.value(id))
        connection->answer(frame);
}

} // namespace bus
