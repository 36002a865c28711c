#include "trelanmsgworker.h"

#include "channel/reconnection.h"

namespace bus
{

TrelanMsgWorker::TrelanMsgWorker(const QString &clientName, QFlags<Option> options)
    : _clientName(clientName)
    , _options(options)
    , _reconnection(std::make_unique<channelworker::Reconnection>())
{}

TrelanMsgWorker::~TrelanMsgWorker()
{
    stopChannel();
}

QFlags<TrelanMsgWorker::Option> TrelanMsgWorker::options() const
{
    return _options;
}

void TrelanMsgWorker::setOptions(const QFlags<Option> &options)
{
    _options = options;
}

bool TrelanMsgWorker::doStart()
{
    doStop();
    _reciever = new TrelanMessageReciever(_clientName, this);
    _restartTimer = channelworker::makeRestartTimer(
        this, _reciever.data(), &TrelanMessageReciever::handshakeAccepted, *_reconnection);
    if (_filter && _options.testFlag(KeepFilter))
        _reciever->setFilter(_filter);
    _filter = _reciever->filter();

    connect(_restartTimer, SIGNAL(timeout()), this, SLOT(restart()));
    connect(_reciever, SIGNAL(incomingMessage(TrelanMessage)), this,
            SLOT(processMessage(TrelanMessage)));
    connect(_reciever, SIGNAL(incomingObject(TrelanObject)), this,
            SLOT(processObject(TrelanObject)));
    connect(_reciever, SIGNAL(incomingCommand(TrelanCommand)), this,
            SLOT(processCommand(TrelanCommand)));
    connect(_reciever, SIGNAL(busDisconnected()), _restartTimer, SLOT(start()));
    connect(_reciever, SIGNAL(kelbusConnected()), this, SIGNAL(workerConnected()));
    // A refusal closes the connection, which then says nothing of its own.
    connect(_reciever, &TrelanMessageReciever::handshakeRefused, _restartTimer,
            [this] { channelworker::restartLater(*_restartTimer, *_reconnection); });

    // Otherwise the timer is left alone: it runs if the connection was lost again meanwhile.
    if (!_reciever->open())
        channelworker::restartLater(*_restartTimer, *_reconnection);
    return true;
}

bool TrelanMsgWorker::doStop()
{
    stopChannel();
    return true;
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
    // An answer to a command of this process; the storage keeps it if the command is still there.
    if (!cmd.parentUid().isEmpty())
        _storage.storeCmdAnswer(cmd);
    doProcessCommand(cmd);
}

void TrelanMsgWorker::processObject(TrelanObject obj)
{
    if (_options.testFlag(StoreObjects))
        _storage.store(obj);
    doProcessObject(obj);
}

void TrelanMsgWorker::stopChannel()
{
    channelworker::stopTimer(_restartTimer);
    channelworker::stopChannel(_reciever);
}

} // namespace bus
