#include "channellinks.h"

#include <utility>

namespace trelanctl
{

namespace
{

const int ACCEPTANCE_POLL_MS = 10;

/// The channel of this start; the one before may still wait for its deletion.
template <typename Channel>
Channel *channelOf(const QObject &worker)
{
    const auto channels = worker.findChildren<Channel *>(QString(), Qt::FindDirectChildrenOnly);
    return channels.isEmpty() ? nullptr : channels.last();
}

} // namespace

QueryLink::QueryLink(const Arguments &arguments, const QString &clientName, QStringList wildCards)
    : TrelanQueryWorker(clientName, {})
    , _arguments(arguments)
    , _wildCards(std::move(wildCards))
{}

bool QueryLink::doStart()
{
    TrelanQueryWorker::doStart();
    auto *handler = channelOf<bus::TrelanQueryHandler>(*this);
    connect(handler, &bus::TrelanQueryHandler::busDisconnected, this, &QueryLink::lost);
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
    if (_connected)
        _acceptance.start();
    else
        emit unreachable();
    return true;
}

/// The channel tells only by its state that the bus has accepted it.
void MessageLink::awaitAcceptance()
{
    const auto *channel = channelOf<bus::TrelanMessageReciever>(*this);
    if (!channel || !channel->isOpen())
        return;
    _acceptance.stop();
    emit opened();
}

} // namespace trelanctl
