#include "trelanqueryworker.h"

#include "channel/laterqueryhandler.h"
#include "channel/reconnection.h"
#include "sharedobjectsstorage.h"
#include "values/uids.h"

#include <loghelpers.h>

#include <QtCore/QDebug>
#include <QtCore/QMessageLogger>

#include <algorithm>
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

} // namespace

class TrelanQueryWorker::Private
{
public:
    QString _clientName;
    QStringList _wildcards;
    QFlags<Option> _options;
    std::optional<TrelanChannelSettings> _ownSettings;
    QPointer<LaterQueryHandler> _handler;
    QPointer<QTimer> _restartTimer;
    SharedObjectsStorage _storage;
    channelworker::Reconnection _reconnection;

    bool isOpen(const TrelanQueryWorker &worker) const;
    bool subscribeAll();
    void stopChannel(const TrelanQueryWorker &worker);
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
    d->_handler = new LaterQueryHandler(d->_clientName, this);
    if (d->_ownSettings)
        d->_handler->setChannelSettings(*d->_ownSettings);
    d->_reconnection.begin(d->_handler->channelSettings());
    d->_restartTimer =
        channelworker::makeRestartTimer(this, static_cast<TrelanQueryHandler *>(d->_handler),
                                        &TrelanQueryHandler::kelbusConnected, d->_reconnection);

    connect(d->_restartTimer, SIGNAL(timeout()), this, SLOT(restart()));
    connect(d->_handler, SIGNAL(busDisconnected()), d->_restartTimer, SLOT(start()));
    connect(d->_handler, SIGNAL(kelbusConnected()), this, SIGNAL(workerConnected()));

    // After a success the timer is left alone: it runs if the connection has been lost meanwhile.
    if (!d->_handler->open() || !d->subscribeAll())
        channelworker::restartLater(*d->_restartTimer, d->_reconnection);
    return true;
}

bool TrelanQueryWorker::doStop()
{
    d->stopChannel(*this);
    return true;
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
    d->_handler->loadObjectLater(name, [this](const TrelanObject &object) {
        d->_storage.store(object);
        emit objectLoaded(object);
    });
}

bool TrelanQueryWorker::Private::isOpen(const TrelanQueryWorker &worker) const
{
    // A stop drops the requests that still wait: each of them would take its time.
    return _handler && _handler->isOpen() && !worker.isStopRequested();
}

bool TrelanQueryWorker::Private::subscribeAll()
{
    const bool now = _options.testFlag(SubscribeNow);
    const bool all =
        std::all_of(_wildcards.cbegin(), _wildcards.cend(), [&](const QString &wildcard) {
            return now ? _handler->subscribeNow(wildcard) : _handler->subscribe(wildcard);
        });
    if (!all) {
        warnOfOtherPort(*_handler);
        _handler->unsubscribe(_wildcards); // no partial subscription is left
    }
    return all;
}

void TrelanQueryWorker::Private::stopChannel(const TrelanQueryWorker &worker)
{
    channelworker::stopTimer(_restartTimer);
    if (_handler && !worker.isStopRequested())
        _handler->takeReplies(); // to the requests that were sent before the stop
    channelworker::stopChannel(_handler);
}

} // namespace bus
