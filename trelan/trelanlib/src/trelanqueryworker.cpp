#include "trelanqueryworker.h"

#include "channel/laterqueryhandler.h"
#include "channel/reconnection.h"
#include "channel/workerstate.h"
#include "client/pendingstate.h"
#include "codec/replies.h"
#include "sharedobjectsstorage.h"
#include "values/uids.h"

#include <loghelpers.h>
#include <wirekeys.h>

#include <QtCore/QDebug>
#include <QtCore/QMessageLogger>

#include <algorithm>
#include <functional>
#include <memory>
#include <optional>
#include <utility>

namespace bus
{

namespace
{

const QString TRACED_OBJECT = QStringLiteral("fs.state");

/// Logs the content of TRACED_OBJECT. Readers of logs look for exactly this context.
void traceContent(const QVariantMap &content)
{
    QMessageLogger("trelan/trelanlib/src/trelanqueryworker", 34,
                   "void bus::TrelanQueryWorker::publish(bus::TrelanObject)", "default")
            .warning()
        << morvik::logvariant(content);
}

/// The message channel takes a handshake and refuses everything else as unsupported: swapped ports
/// would end in that refusal for ever.
void warnOfOtherPort(const TrelanQueryHandler &handler)
{
    if (handler.lastFailure() == TrelanQueryHandler::Refused &&
        handler.lastError().error() == TrelanError::UnsupportedRequest)
        qWarning("Port %d seems to be that of the message channel",
                 handler.channelSettings().queryPort());
}

QString busAt(const TrelanQueryHandler &handler)
{
    const TrelanChannelSettings settings = handler.channelSettings();
    return channelworker::busAt(settings.host(), settings.queryPort());
}

/// Why the last operation of a worker that connects has failed.
TrelanConnectionState failureState(const TrelanQueryHandler &handler)
{
    using State = TrelanConnectionState;
    switch (handler.lastFailure()) {
    case TrelanQueryHandler::None:
    case TrelanQueryHandler::NotOpen:
        break;
    case TrelanQueryHandler::Timeout:
        return State::away(State::NoBus, busAt(handler) + QStringLiteral(" does not answer"));
    case TrelanQueryHandler::Framing:
        return State::away(State::NoBus,
                           busAt(handler) + QStringLiteral(" answers as no bus does"));
    case TrelanQueryHandler::Refused:
        return channelworker::refusedState(handler.lastError(), busAt(handler),
                                           QStringLiteral("message"));
    }
    return State::away(State::NoBus, QStringLiteral("no bus: ") + busAt(handler));
}

/// An operation with a result. Ends it when nobody is left who could: a worker that stops drops
/// what is asked.
struct Outcome
{
    Outcome() = default;
    ~Outcome()
    {
        state->fail({TrelanFailure::NotConnected,
                     QStringLiteral("the worker was stopped before the bus has answered")});
    }
    Q_DISABLE_COPY(Outcome)

    const PendingState::Ref state = PendingState::make();
};

/// \a unregistered is what that code means of an operation.
TrelanFailure failureOf(const TrelanQueryHandler &handler, TrelanFailure::Kind unregistered)
{
    const TrelanError error = handler.lastError();
    switch (handler.lastFailure()) {
    case TrelanQueryHandler::None:
    case TrelanQueryHandler::NotOpen:
        break;
    case TrelanQueryHandler::Timeout:
        return {TrelanFailure::TimedOut, QStringLiteral("the bus has not answered")};
    case TrelanQueryHandler::Framing:
        return {TrelanFailure::NotConnected, QStringLiteral("the answer of the bus is none")};
    case TrelanQueryHandler::Refused:
        return {error == TrelanError(TrelanError::UnregisteredClient) ? unregistered
                                                                      : TrelanFailure::Refused,
                error.description(), error.error()};
    }
    return {TrelanFailure::NotConnected,
            QStringLiteral("the connection was lost before the bus has answered")};
}

QVariant nothing(const QVariantMap & /*answer*/)
{
    return {};
}

} // namespace

class TrelanQueryWorker::Private
{
public:
    /// Asks a handler for an operation.
    using Ask = std::function<void(LaterQueryHandler &handler, const LaterQueryHandler::Done &)>;
    /// Makes the result of what the bus has answered.
    using Read = std::function<QVariant(const QVariantMap &answer)>;

    QString _clientName;
    QStringList _wildcards;
    QFlags<Option> _options;
    std::optional<TrelanChannelSettings> _ownSettings;
    QPointer<LaterQueryHandler> _handler;
    QPointer<QTimer> _restartTimer;
    SharedObjectsStorage _storage;
    channelworker::Reconnection _reconnection;
    WorkerState _state;

    bool isOpen(const TrelanQueryWorker &worker) const;
    void makeChannel(TrelanQueryWorker &worker);
    TrelanConnectionState connectChannel();
    bool subscribeAll();
    TrelanConnectionState connectedState() const;
    void setState(TrelanQueryWorker &worker, const TrelanConnectionState &state);
    void stopChannel(const TrelanQueryWorker &worker);
    PendingState::Ref begin(TrelanQueryWorker &worker, const Ask &ask, const Read &read = nothing,
                            TrelanFailure::Kind unregistered = TrelanFailure::Refused);
};

TrelanQueryWorker::TrelanQueryWorker(const QString &clientName, QStringList wildcards)
    : d(std::make_unique<Private>())
{
    d->_clientName = clientName;
    d->_wildcards = std::move(wildcards);
}

TrelanQueryWorker::~TrelanQueryWorker()
{
    d->stopChannel(*this);
}

bool TrelanQueryWorker::doStart()
{
    doStop();
    d->makeChannel(*this);
    const TrelanConnectionState state = d->connectChannel();
    // The timer runs if the connection has been lost meanwhile. Then the loss has set the state,
    // and after a success the timer is left alone.
    if (!d->_restartTimer->isActive())
        d->setState(*this, state);
    if (!state.isConnected())
        channelworker::restartLater(*d->_restartTimer, d->_reconnection);
    return true;
}

bool TrelanQueryWorker::doStop()
{
    d->stopChannel(*this);
    return true;
}

TrelanConnectionState TrelanQueryWorker::state() const
{
    return d->_state.get();
}

QFlags<TrelanQueryWorker::Option> TrelanQueryWorker::options() const
{
    return d->_options;
}

void TrelanQueryWorker::setOptions(const QFlags<Option> &options)
{
    d->_options = options;
}

void TrelanQueryWorker::setChannelSettings(const TrelanChannelSettings &settings)
{
    d->_ownSettings = settings;
}

void TrelanQueryWorker::sendMessage(TrelanMessage msg)
{
    if (d->isOpen(*this))
        d->_handler->sendMessageLater(msg);
}

void TrelanQueryWorker::publish(TrelanObject obj)
{
    if (obj.name() == TRACED_OBJECT)
        traceContent(obj.content());
    if (d->isOpen(*this))
        d->_handler->publishLater(obj);
}

void TrelanQueryWorker::subscribe(QStringList wildCards)
{
    if (d->isOpen(*this))
        d->_handler->subscribeLater(wildCards);
}

void TrelanQueryWorker::subscribe(QString wildCard)
{
    if (d->isOpen(*this))
        d->_handler->subscribeLater(wildCard);
}

void TrelanQueryWorker::unsubscribe(QString wildCard)
{
    if (d->isOpen(*this))
        d->_handler->unsubscribeLater(wildCard);
}

void TrelanQueryWorker::unsubscribe(QStringList wildCards)
{
    if (d->isOpen(*this))
        d->_handler->unsubscribeLater(wildCards);
}

void TrelanQueryWorker::sendCommand(TrelanCommand cmd)
{
    if (!d->isOpen(*this))
        return;
    if (cmd.needAnswer()) {
        // The uid is set before the command is kept: the sent one must have it too.
        if (cmd.uid().isEmpty())
            cmd.setUid(d->_handler->channelSettings().mode() == TrelanTransport::Prompt
                           ? uids::unique(cmd)
                           : cmd.genUid());
        d->_storage.storeCmd(cmd);
    }
    d->_handler->sendCommandLater(cmd);
}

void TrelanQueryWorker::loadObject(QString name)
{
    if (!d->isOpen(*this))
        return;
    d->_handler->loadObjectLater(name, [this](bool done, const QVariantMap &answer) {
        if (!done)
            return;
        const TrelanObject object = TrelanObject::fromVariantMap(answer);
        d->_storage.store(object);
        emit objectLoaded(object);
    });
}

TrelanPending TrelanQueryWorker::askToPublish(const TrelanObject &object)
{
    const auto ask = [object](auto &handler, const auto &done) {
        handler.publishLater(object, done);
    };
    return d->begin(*this, ask)->pending();
}

TrelanPending TrelanQueryWorker::askToRemove(const QStringList &names)
{
    const auto ask = [names](auto &handler, const auto &done) { handler.removeLater(names, done); };
    return d->begin(*this, ask)->pending();
}

TrelanPending TrelanQueryWorker::askToSend(const TrelanMessage &message)
{
    const auto ask = [message](auto &handler, const auto &done) {
        handler.sendMessageLater(message, done);
    };
    return d->begin(*this, ask, nothing, TrelanFailure::NobodyThere)->pending();
}

TrelanReply<TrelanObject> TrelanQueryWorker::askToLoad(const QString &name)
{
    const auto ask = [name](auto &handler, const auto &done) {
        handler.loadObjectLater(name, done);
    };
    const auto read = [](const QVariantMap &answer) {
        return QVariant::fromValue(TrelanObject::fromVariantMap(answer));
    };
    return d->begin(*this, ask, read)->reply<TrelanObject>();
}

TrelanReply<TrelanObjects> TrelanQueryWorker::askToLoadAll(const QString &wildcard)
{
    const auto ask = [wildcard](auto &handler, const auto &done) {
        handler.loadObjectsLater(wildcard, done);
    };
    const auto read = [](const QVariantMap &answer) {
        return QVariant::fromValue(replies::objects(answer));
    };
    return d->begin(*this, ask, read)->reply<TrelanObjects>();
}

TrelanPending TrelanQueryWorker::askToSubscribe(const QStringList &wildcards,
                                                TrelanQueryHandler::SubscribeOptions options)
{
    const auto ask = [wildcards, options](auto &handler, const auto &done) {
        handler.subscribeLater(wildcards, done, options);
    };
    return d->begin(*this, ask)->pending();
}

TrelanPending TrelanQueryWorker::askToUnsubscribe(const QStringList &wildcards)
{
    const auto ask = [wildcards](auto &handler, const auto &done) {
        handler.unsubscribeLater(wildcards, done);
    };
    return d->begin(*this, ask)->pending();
}

/// Has the operation asked for in the worker's thread. Nothing but the queued event and the
/// callback holds the outcome, so that it ends with them at the latest.
PendingState::Ref TrelanQueryWorker::Private::begin(TrelanQueryWorker &worker, const Ask &ask,
                                                    const Read &read,
                                                    TrelanFailure::Kind unregistered)
{
    const auto outcome = std::make_shared<Outcome>();
    const auto inThread = [this, &worker, ask, read, unregistered, outcome] {
        if (!isOpen(worker)) {
            outcome->state->fail({TrelanFailure::NotConnected,
                                  QStringLiteral("there is no connection with the bus")});
            return;
        }
        const LaterQueryHandler &handler = *_handler;
        ask(*_handler,
            [&handler, &worker, read, unregistered, outcome](bool done, const QVariantMap &answer) {
                if (done)
                    outcome->state->finish(read(answer));
                else if (!worker.isStopRequested()) // which ends a wait as time does
                    outcome->state->fail(failureOf(handler, unregistered));
            });
    };
    QMetaObject::invokeMethod(&worker, inThread, Qt::QueuedConnection);
    return outcome->state;
}

bool TrelanQueryWorker::Private::isOpen(const TrelanQueryWorker &worker) const
{
    // A stop drops the requests that still wait: each of them would take its time.
    return _handler && _handler->isOpen() && !worker.isStopRequested();
}

void TrelanQueryWorker::Private::makeChannel(TrelanQueryWorker &worker)
{
    _handler = new LaterQueryHandler(_clientName, &worker);
    if (_ownSettings)
        _handler->setChannelSettings(*_ownSettings);
    _handler->setAsksFeatures(_options.testFlag(AskFeatures));
    _reconnection.begin(_handler->channelSettings());
    _restartTimer =
        channelworker::makeRestartTimer(&worker, static_cast<TrelanQueryHandler *>(_handler),
                                        &TrelanQueryHandler::kelbusConnected, _reconnection);

    connect(_restartTimer, SIGNAL(timeout()), &worker, SLOT(restart()));
    connect(_handler, SIGNAL(busDisconnected()), _restartTimer, SLOT(start()));
    connect(_handler, SIGNAL(kelbusConnected()), &worker, SIGNAL(workerConnected()));
    connect(_handler, &TrelanQueryHandler::busDisconnected, _restartTimer, [this, &worker] {
        // A client that the bus does not take is away already, for a reason that says more.
        if (_state.get().status() != TrelanConnectionState::Away)
            setState(worker,
                     channelworker::lostState(_reconnection, _clientName, busAt(*_handler)));
    });
}

/// Opens the channel and subscribes, and says how that went.
TrelanConnectionState TrelanQueryWorker::Private::connectChannel()
{
    if (!_handler->open())
        return failureState(*_handler);
    if (subscribeAll())
        return connectedState();
    TrelanConnectionState state = failureState(*_handler);
    warnOfOtherPort(*_handler);
    _handler->unsubscribe(_wildcards); // no partial subscription is left
    return state;
}

bool TrelanQueryWorker::Private::subscribeAll()
{
    TrelanQueryHandler::SubscribeOptions more;
    more.setFlag(TrelanQueryHandler::WithNow, _options.testFlag(SubscribeNow));
    more.setFlag(TrelanQueryHandler::WithRemovals, _options.testFlag(SubscribeRemovals));
    return std::all_of(_wildcards.cbegin(), _wildcards.cend(), [&](const QString &wildcard) {
        return _handler->subscribeWith(wildcard, more);
    });
}

TrelanConnectionState TrelanQueryWorker::Private::connectedState() const
{
    QStringList lacking;
    const auto want = [&](Option option, const QString &feature) {
        if (_options.testFlag(option) && !_handler->features().contains(feature))
            lacking += feature;
    };
    if (_options.testFlag(AskFeatures)) {
        want(SubscribeNow, features::NOW);
        want(SubscribeRemovals, features::REMOVALS);
    }
    return TrelanConnectionState::connected(lacking);
}

void TrelanQueryWorker::Private::setState(TrelanQueryWorker &worker,
                                          const TrelanConnectionState &state)
{
    if (_state.set(state))
        emit worker.stateChanged(state);
}

void TrelanQueryWorker::Private::stopChannel(const TrelanQueryWorker &worker)
{
    channelworker::stopTimer(_restartTimer);
    if (_handler && !worker.isStopRequested())
        _handler->takeReplies(); // to the requests that were sent before the stop
    channelworker::stopChannel(_handler);
    if (_state.get().isConnected())
        _state.set(channelworker::stoppedState());
}

} // namespace bus
