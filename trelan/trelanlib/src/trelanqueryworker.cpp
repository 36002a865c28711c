#include "trelanqueryworker.h"

#include "channel/laterqueryhandler.h"
#include "channel/reconnection.h"
#include "values/uids.h"

#include <loghelpers.h>

#include <QtCore/QDebug>
#include <QtCore/QMessageLogger>
#include <QtCore/QThread>

#include <algorithm>
#include <utility>

namespace bus
{

namespace
{

const QString TRACED_OBJECT = QStringLiteral("fs.state");

/// The trace of one particular object. Readers of logs look for this very context.
void traceContent(const QVariantMap &content)
{
    QMessageLogger("trelan/trelanlib/src/trelanqueryworker", 34,
                   "void bus::TrelanQueryWorker::publish(bus::TrelanObject)", "default")
            .warning()
        << morvik::logvariant(content);
}

} // namespace

TrelanQueryWorker::TrelanQueryWorker(const QString &clientName, QStringList wildcards)
    : _clientName(clientName)
    , _wildcards(std::move(wildcards))
    , _reconnection(std::make_unique<channelworker::Reconnection>())
{}

TrelanQueryWorker::~TrelanQueryWorker()
{
    stopChannel();
}

QFlags<TrelanQueryWorker::Option> TrelanQueryWorker::options() const
{
    return _options;
}

void TrelanQueryWorker::setOptions(const QFlags<Option> &options)
{
    _options = options;
}

bool TrelanQueryWorker::doStart()
{
    doStop();
    _handler = new LaterQueryHandler(_clientName, this);
    _restartTimer =
        channelworker::makeRestartTimer(this, static_cast<TrelanQueryHandler *>(_handler),
                                        &TrelanQueryHandler::kelbusConnected, *_reconnection);

    connect(_restartTimer, SIGNAL(timeout()), this, SLOT(restart()));
    connect(_handler, SIGNAL(busDisconnected()), _restartTimer, SLOT(start()));
    connect(_handler, SIGNAL(kelbusConnected()), this, SIGNAL(workerConnected()));

    // Otherwise the timer is left alone: it runs if the connection was lost again meanwhile.
    if (!_handler->open() || !subscribeAll())
        channelworker::restartLater(*_restartTimer, *_reconnection);
    return true;
}

bool TrelanQueryWorker::doStop()
{
    stopChannel();
    return true;
}

void TrelanQueryWorker::sendMessage(TrelanMessage msg)
{
    if (isOpen())
        _handler->sendMessageLater(msg);
}

void TrelanQueryWorker::publish(TrelanObject obj)
{
    if (obj.name() == TRACED_OBJECT)
        traceContent(obj.content());
    if (isOpen())
        _handler->publishLater(obj);
}

void TrelanQueryWorker::subscribe(QStringList wildCards)
{
    if (isOpen())
        _handler->subscribeLater(wildCards);
}

void TrelanQueryWorker::subscribe(QString wildCard)
{
    if (isOpen())
        _handler->subscribeLater(wildCard);
}

void TrelanQueryWorker::unsubscribe(QString wildCard)
{
    if (isOpen())
        _handler->unsubscribeLater(wildCard);
}

void TrelanQueryWorker::unsubscribe(QStringList wildCards)
{
    if (isOpen())
        _handler->unsubscribeLater(wildCards);
}

void TrelanQueryWorker::sendCommand(TrelanCommand cmd)
{
    if (!isOpen())
        return;
    if (cmd.needAnswer()) {
        // Now, so that what is kept and what is sent have the same one.
        if (cmd.uid().isEmpty())
            cmd.setUid(TrelanTransport::mode() == TrelanTransport::Prompt ? uids::unique(cmd)
                                                                          : cmd.genUid());
        _storage.storeCmd(cmd);
    }
    _handler->sendCommandLater(cmd);
}

void TrelanQueryWorker::loadObject(QString name)
{
    if (!isOpen())
        return;
    _handler->loadObjectLater(name, [this](const TrelanObject &object) {
        _storage.store(object);
        emit objectLoaded(object);
    });
}

bool TrelanQueryWorker::isOpen() const
{
    // What still waits when a stop is asked for is dropped: each request would take its time.
    return _handler && _handler->isOpen() && !thread()->isInterruptionRequested();
}

bool TrelanQueryWorker::subscribeAll()
{
    const bool now = _options.testFlag(SubscribeNow);
    const bool all =
        std::all_of(_wildcards.cbegin(), _wildcards.cend(), [&](const QString &wildcard) {
            return now ? _handler->subscribeNow(wildcard) : _handler->subscribe(wildcard);
        });
    if (!all)
        _handler->unsubscribe(_wildcards); // no partial subscription is left
    return all;
}

void TrelanQueryWorker::stopChannel()
{
    channelworker::stopTimer(_restartTimer);
    if (_handler && !thread()->isInterruptionRequested())
        _handler->takeReplies(); // to what was asked before the stop
    channelworker::stopChannel(_handler);
}

} // namespace bus
