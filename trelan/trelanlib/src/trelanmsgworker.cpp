#include "trelanmsgworker.h"

#include "channel/reconnection.h"
#include "channel/workerstate.h"

#include "sharedobjectsstorage.h"
#include "trelanmessagereciever.h"

#include <optional>

namespace bus
{

class TrelanMsgWorker::Private
{
public:
    QString _clientName;
    QFlags<Option> _options;
    std::optional<TrelanChannelSettings> _ownSettings;
    QPointer<TrelanMessageReciever> _reciever;
    QPointer<QTimer> _restartTimer;
    TrelanMessageReciever::Filter _filter; // of the current channel, or of the one before
    SharedObjectsStorage _storage;
    channelworker::Reconnection _reconnection;
    WorkerState _state;

    void makeChannel(TrelanMsgWorker &worker);
    void connectChannel(TrelanMsgWorker &worker);
    QString busAt() const;
    void setState(TrelanMsgWorker &worker, const TrelanConnectionState &state);
    void tryAgain(TrelanMsgWorker &worker, const TrelanConnectionState &state);
    void stopChannel();
};

TrelanMsgWorker::TrelanMsgWorker(const QString &clientName, QFlags<Option> options)
    : d(std::make_unique<Private>())
{
    d->_clientName = clientName;
    d->_options = options;
}

TrelanMsgWorker::~TrelanMsgWorker()
{
    d->stopChannel();
}

QFlags<TrelanMsgWorker::Option> TrelanMsgWorker::options() const
{
    return d->_options;
}

void TrelanMsgWorker::setOptions(const QFlags<Option> &options)
{
    d->_options = options;
}

void TrelanMsgWorker::setChannelSettings(const TrelanChannelSettings &settings)
{
    d->_ownSettings = settings;
}

bool TrelanMsgWorker::doStart()
{
    doStop();
    d->makeChannel(*this);
    d->connectChannel(*this);
    // After a success the timer is left alone: it runs if the connection has been lost meanwhile.
    if (!d->_reciever->open())
        d->tryAgain(*this, TrelanConnectionState::away(TrelanConnectionState::NoBus,
                                                       QStringLiteral("no bus: ") + d->busAt()));
    return true;
}

bool TrelanMsgWorker::doStop()
{
    d->stopChannel();
    return true;
}

TrelanConnectionState TrelanMsgWorker::state() const
{
    return d->_state.get();
}

void TrelanMsgWorker::doProcessMessage(const TrelanMessage &msg)
{
    emit unprocessedMessage(msg);
}

void TrelanMsgWorker::doProcessCommand(const TrelanCommand &cmd)
{
    emit unprocessedCommand(cmd);
}

void TrelanMsgWorker::doProcessObject(const TrelanObject &obj)
{
    emit unprocessedObject(obj);
}

void TrelanMsgWorker::processMessage(TrelanMessage msg)
{
    doProcessMessage(msg);
}

void TrelanMsgWorker::processCommand(TrelanCommand cmd)
{
    // The command answers one of this process; the storage keeps the answer if it has the command.
    if (!cmd.parentUid().isEmpty())
        d->_storage.storeCmdAnswer(cmd);
    doProcessCommand(cmd);
}

void TrelanMsgWorker::processObject(TrelanObject obj)
{
    if (d->_options.testFlag(StoreObjects))
        d->_storage.store(obj);
    doProcessObject(obj);
}

void TrelanMsgWorker::Private::makeChannel(TrelanMsgWorker &worker)
{
    _reciever = new TrelanMessageReciever(_clientName, &worker);
    if (_ownSettings)
        _reciever->setChannelSettings(*_ownSettings);
    _reciever->setAsksFeatures(_options.testFlag(AskFeatures));
    _reciever->setTransient(_options.testFlag(Transient));
    _reciever->setTakesRemovals(_options.testFlag(TakeRemovals));
    if (_filter && _options.testFlag(KeepFilter))
        _reciever->setFilter(_filter);
    _filter = _reciever->filter();
    _reconnection.begin(_reciever->channelSettings());
    _restartTimer = channelworker::makeRestartTimer(
        &worker, _reciever.data(), &TrelanMessageReciever::handshakeAccepted, _reconnection);
}

void TrelanMsgWorker::Private::connectChannel(TrelanMsgWorker &worker)
{
    connect(_restartTimer, SIGNAL(timeout()), &worker, SLOT(restart()));
    connect(_reciever, SIGNAL(incomingMessage(TrelanMessage)), &worker,
            SLOT(processMessage(TrelanMessage)));
    connect(_reciever, SIGNAL(incomingObject(TrelanObject)), &worker,
            SLOT(processObject(TrelanObject)));
    connect(_reciever, SIGNAL(incomingCommand(TrelanCommand)), &worker,
            SLOT(processCommand(TrelanCommand)));
    connect(_reciever, &TrelanMessageReciever::objectRemoved, &worker,
            [this, &worker](const QString &name) {
                if (_options.testFlag(StoreObjects))
                    _storage.remove(name);
                emit worker.objectRemoved(name);
            });
    connect(_reciever, SIGNAL(busDisconnected()), _restartTimer, SLOT(start()));
    connect(_reciever, SIGNAL(kelbusConnected()), &worker, SIGNAL(workerConnected()));
    connect(_reciever, &TrelanMessageReciever::handshakeAccepted, _restartTimer,
            [this, &worker] { setState(worker, TrelanConnectionState::connected()); });
    connect(_reciever, &TrelanMessageReciever::busDisconnected, _restartTimer, [this, &worker] {
        // A client that the bus does not take is away already, for a reason that says more.
        if (_state.get().status() != TrelanConnectionState::Away)
            setState(worker, channelworker::lostState(_reconnection, _clientName, busAt()));
    });
    // A refusal closes the connection without busDisconnected().
    connect(_reciever, &TrelanMessageReciever::handshakeRefused, _restartTimer, [this, &worker] {
        tryAgain(worker, channelworker::refusedState(_reciever->refusal(), busAt(),
                                                     QStringLiteral("query")));
    });
}

QString TrelanMsgWorker::Private::busAt() const
{
    const TrelanChannelSettings settings = _reciever->channelSettings();
    return channelworker::busAt(settings.host(), settings.messagePort());
}

void TrelanMsgWorker::Private::setState(TrelanMsgWorker &worker, const TrelanConnectionState &state)
{
    if (_state.set(state))
        emit worker.stateChanged(state);
}

/// After a failed attempt. A connection that was lost in it has started the timer, and has set the
/// state.
void TrelanMsgWorker::Private::tryAgain(TrelanMsgWorker &worker, const TrelanConnectionState &state)
{
    if (!_restartTimer->isActive())
        setState(worker, state);
    channelworker::restartLater(*_restartTimer, _reconnection);
}

void TrelanMsgWorker::Private::stopChannel()
{
    channelworker::stopTimer(_restartTimer);
    channelworker::stopChannel(_reciever);
    if (_state.get().isConnected())
        _state.set(channelworker::stoppedState());
}

} // namespace bus
