#include "trelanmsgworker.h"

#include "channel/reconnection.h"

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

    void stopChannel()
    {
        channelworker::stopTimer(_restartTimer);
        channelworker::stopChannel(_reciever);
    }
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
    d->_reciever = new TrelanMessageReciever(d->_clientName, this);
    if (d->_ownSettings)
        d->_reciever->setChannelSettings(*d->_ownSettings);
    d->_reconnection.begin(d->_reciever->channelSettings());
    d->_restartTimer = channelworker::makeRestartTimer(
        this, d->_reciever.data(), &TrelanMessageReciever::handshakeAccepted, d->_reconnection);
    if (d->_filter && d->_options.testFlag(KeepFilter))
        d->_reciever->setFilter(d->_filter);
    d->_filter = d->_reciever->filter();
    d->_reciever->setTransient(d->_options.testFlag(Transient));

    connect(d->_restartTimer, SIGNAL(timeout()), this, SLOT(restart()));
    connect(d->_reciever, SIGNAL(incomingMessage(TrelanMessage)), this,
            SLOT(processMessage(TrelanMessage)));
    connect(d->_reciever, SIGNAL(incomingObject(TrelanObject)), this,
            SLOT(processObject(TrelanObject)));
    connect(d->_reciever, SIGNAL(incomingCommand(TrelanCommand)), this,
            SLOT(processCommand(TrelanCommand)));
    connect(d->_reciever, SIGNAL(busDisconnected()), d->_restartTimer, SLOT(start()));
    connect(d->_reciever, SIGNAL(kelbusConnected()), this, SIGNAL(workerConnected()));
    // A refusal closes the connection without busDisconnected().
    connect(d->_reciever, &TrelanMessageReciever::handshakeRefused, d->_restartTimer,
            [this] { channelworker::restartLater(*d->_restartTimer, d->_reconnection); });

    // After a success the timer is left alone: it runs if the connection has been lost meanwhile.
    if (!d->_reciever->open())
        channelworker::restartLater(*d->_restartTimer, d->_reconnection);
    return true;
}

bool TrelanMsgWorker::doStop()
{
    d->stopChannel();
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

} // namespace bus
