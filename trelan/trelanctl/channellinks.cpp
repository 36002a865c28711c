#include "channellinks.h"

#include "terminaltext.h"

#include <QtCore/QUuid>

#include <utility>

namespace trelanctl
{

namespace
{

const int ACCEPTANCE_POLL_MS = 10;
const int ACCEPTANCE_MS = 30000; // what the query channel gives an answer, too

/// The channel of this start; the one before may still wait for its deletion.
template <typename Channel>
Channel *channelOf(const QObject &worker)
{
    const auto channels = worker.findChildren<Channel *>(QString(), Qt::FindDirectChildrenOnly);
    return channels.isEmpty() ? nullptr : channels.last();
}

/// The address from which a query channel of that name is open; empty if there is none, or no bus.
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
{}

bool QueryLink::doStart()
{
    TrelanQueryWorker::doStart();
    auto *handler = channelOf<bus::TrelanQueryHandler>(*this);
    // Queued, as it may come out of a request.
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
        // One that does not answer is as good as lost, and the worker tries another.
        if (outcome.code == NoBus && handler->isOpen())
            emit handler->busDisconnected();
    }
    return true;
}

bool QueryLink::subscribe(bus::TrelanQueryHandler &handler)
{
    if (_wildCards.isEmpty())
        return true;
    // A list is separated by what a single wildcard may contain.
    return _wildCards.size() == 1 ? handler.subscribeNow(_wildCards.first())
                                  : handler.subscribeNow(_wildCards);
}

/// A bus that is away is waited for. But two clients of one name would take it from each other for
/// ever, so that the first one gives way.
void QueryLink::judgeLoss()
{
    const auto *handler = channelOf<bus::TrelanQueryHandler>(*this);
    const bool connected = handler && handler->isOpen(); // it only does not answer
    const QString holder = connected ? QString() : holderOf(_clientName);
    if (holder.isEmpty())
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

MessageLink::MessageLink(const QString &clientName)
    : TrelanMsgWorker(clientName, KeepFilter)
    , _acceptance(this) // and so moved to the worker's thread with it
{
    _acceptance.setInterval(ACCEPTANCE_POLL_MS);
    connect(&_acceptance, &QTimer::timeout, this, &MessageLink::awaitAcceptance);
    connect(this, &MessageLink::workerConnected, this, [this] { _connected = true; });
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

/// The channel tells only by its state that the bus has accepted it.
void MessageLink::awaitAcceptance()
{
    auto *channel = channelOf<bus::TrelanMessageReciever>(*this);
    if (!channel || !channel->isOpen()) {
        if (!_patience.hasExpired())
            return;
        _acceptance.stop();
        emit unreachable();
        if (channel) // as good as lost, and the worker tries another
            emit channel->busDisconnected();
        return;
    }
    _acceptance.stop();
    emit opened();
}

} // namespace trelanctl
