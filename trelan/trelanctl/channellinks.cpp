#include "channellinks.h"

#include "terminaltext.h"

#include <QtCore/QThread>
#include <QtCore/QUuid>

#include <utility>

namespace trelanctl
{

namespace
{

const int ACCEPTANCE_POLL_MS = 10;
const int ROOM_POLL_MS = 50;
const int ACCEPTANCE_MS = 30000; // as long as the query channel waits for an answer

/// The channel of this start, which is the last child: one before may still wait for its deletion.
template <typename Channel>
Channel *channelOf(const QObject &worker)
{
    const auto channels = worker.findChildren<Channel *>(QString(), Qt::FindDirectChildrenOnly);
    return channels.isEmpty() ? nullptr : channels.last();
}

/// The address from which a query channel is open under \a clientName; empty if there is none, or
/// no bus.
QString holderOf(const QString &clientName)
{
    bus::TrelanQueryHandler probe(QUuid::createUuid().toString());
    QVariantMap answer;
    if (!probe.open() || !probe.request(answer, QStringLiteral("clients"), {}))
        return {};
    const QVariantList clients = answer.value(QStringLiteral("clients")).toList();
    for (const QVariant &entry : clients) {
        const QVariantMap client = entry.toMap();
        if (client.value(QStringLiteral("name")) == clientName &&
            client.value(QStringLiteral("connections"))
                .toStringList()
                .contains(QLatin1String("query")))
            return client.value(QStringLiteral("address")).toString();
    }
    return {};
}

} // namespace

QueryLink::QueryLink(const Arguments &arguments, const QString &clientName, QStringList wildCards)
    : TrelanQueryWorker(clientName, {})
    , _arguments(arguments)
    , _clientName(clientName)
    , _wildCards(std::move(wildCards))
{
    if (_arguments.command == Arguments::Watch)
        setOptions(AskFeatures);
}

bool QueryLink::doStart()
{
    if (_hasGivenWay) // the worker would come back at once, and take the name away again
        return false;
    TrelanQueryWorker::doStart();
    auto *handler = channelOf<bus::TrelanQueryHandler>(*this);
    // Queued, since the signal may come out of a request.
    connect(handler, &bus::TrelanQueryHandler::busDisconnected, this, &QueryLink::judgeLoss,
            Qt::QueuedConnection);
    if (!handler->isOpen()) {
        const Outcome outcome = failureOf(*handler, _arguments, false);
        emit failed(outcome.code, outcome.text);
    } else if (subscribe(*handler)) {
        emit opened();
    } else {
        const Outcome outcome = failureOf(*handler, _arguments, true);
        emit failed(outcome.code, outcome.text);
        // A connection without answers is as good as lost: the signal makes the worker try another.
        if (outcome.code == NoBus && handler->isOpen())
            emit handler->busDisconnected();
    }
    return true;
}

bool QueryLink::subscribe(bus::TrelanQueryHandler &handler)
{
    if (_wildCards.isEmpty()) {
        // Asks for nothing, but the port of a message channel refuses even that.
        return handler.subscribe(QStringList()) ||
               (handler.lastFailure() == bus::TrelanQueryHandler::Refused &&
                handler.lastError().error() != bus::TrelanError::UnsupportedRequest);
    }
    const bool tellsRemovals = handler.features().contains(QLatin1String("removals"));
    bus::TrelanQueryHandler::SubscribeOptions options = bus::TrelanQueryHandler::WithNow;
    options.setFlag(bus::TrelanQueryHandler::WithRemovals, tellsRemovals);
    // A single wildcard may contain what separates the wildcards of a list.
    return _wildCards.size() == 1 ? handler.subscribeWith(_wildCards.first(), options)
                                  : handler.subscribeWith(_wildCards, options);
}

/// Waits for a bus that is away, but gives way to another client of the same name: two of them
/// would take the name from each other for ever.
void QueryLink::judgeLoss()
{
    const auto *handler = channelOf<bus::TrelanQueryHandler>(*this);
    const bool connected = handler && handler->isOpen(); // and the bus only does not answer
    const QString holder = connected ? QString() : holderOf(_clientName);
    _hasGivenWay = !holder.isEmpty();
    if (!_hasGivenWay)
        emit lost();
    else
        emit failed(Failed, QStringLiteral("another client has taken the name '%1' over, from %2")
                                .arg(terminal::escaped(_clientName), terminal::escaped(holder)));
}

void QueryLink::send(bus::TrelanMessage message)
{
    auto *handler = channelOf<bus::TrelanQueryHandler>(*this);
    if (handler && handler->sendMessage(message)) {
        emit sent(message, 0, QString());
        return;
    }
    const bool refused = handler && handler->lastFailure() == bus::TrelanQueryHandler::Refused;
    emit sent(message, refused ? handler->lastError().error() : -1,
              handler ? failureOf(*handler, _arguments, true).text : QString());
}

MessageLink::MessageLink(const QString &clientName, Options options,
                         std::shared_ptr<QSemaphore> room)
    : TrelanMsgWorker(clientName, options | KeepFilter)
    , _room(std::move(room))
    , _acceptance(this) // a child goes to the worker's thread with it
{
    _acceptance.setInterval(ACCEPTANCE_POLL_MS);
    connect(&_acceptance, &QTimer::timeout, this, &MessageLink::awaitAcceptance);
    connect(this, &MessageLink::workerConnected, this, [this] { _connected = true; });
    // Before a controller hands it on, since this connection is made first.
    connect(this, &MessageLink::objectRemoved, this, [this] { awaitRoom(); });
}

bool MessageLink::doStart()
{
    _connected = false;
    TrelanMsgWorker::doStart();
    auto *channel = channelOf<bus::TrelanMessageReciever>(*this);
    connect(channel, &bus::TrelanMessageReciever::busDisconnected, this, &MessageLink::lost);
    connect(channel, &bus::TrelanMessageReciever::handshakeRefused, this, &MessageLink::lost);
    _patience.setRemainingTime(ACCEPTANCE_MS);
    if (_connected)
        _acceptance.start();
    else
        emit unreachable();
    return true;
}

void MessageLink::doProcessMessage(const bus::TrelanMessage &msg)
{
    awaitRoom();
    TrelanMsgWorker::doProcessMessage(msg);
}

void MessageLink::doProcessCommand(const bus::TrelanCommand &cmd)
{
    awaitRoom();
    TrelanMsgWorker::doProcessCommand(cmd);
}

void MessageLink::doProcessObject(const bus::TrelanObject &obj)
{
    awaitRoom();
    TrelanMsgWorker::doProcessObject(obj);
}

/// Waits in steps, since the thread that would make room may be the one that stops this thread.
void MessageLink::awaitRoom()
{
    while (!_room->tryAcquire(1, ROOM_POLL_MS) && !thread()->isInterruptionRequested()) {}
}

/// The channel tells only by its state that the bus has accepted it.
void MessageLink::awaitAcceptance()
{
    auto *channel = channelOf<bus::TrelanMessageReciever>(*this);
    if (!channel || !channel->isOpen()) {
        if (!_patience.hasExpired())
            return;
        _acceptance.stop();
        emit unreachable();
        if (channel) // makes the worker try another, as this one is as good as lost
            emit channel->busDisconnected();
        return;
    }
    _acceptance.stop();
    emit opened();
}

} // namespace trelanctl
