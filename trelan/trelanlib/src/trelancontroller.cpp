#include "trelancontroller.h"

#include "channel/reconnection.h"
#include "channel/workerstate.h"
#include "trelanlogcreator.h"
#include "trelanmessagereciever.h"
#include "trelanmsgworker.h"
#include "trelanqueryhandler.h"
#include "trelanqueryworker.h"

#include <loggermanager.h>

#include <QtCore/QDebug>
#include <QtCore/QLoggingCategory>
#include <QtCore/QMap>
#include <QtNetwork/QHostAddress>

#include <optional>

namespace bus
{

class TrelanController::Private
{
public:
    enum Part { Messages, Queries };

    QString _clientName;
    bool _logBridgeInstalled = false;
    std::optional<TrelanChannelSettings> _ownSettings;

    WorkerState _state;
    QMap<Part, TrelanConnectionState> _parts; // of the workers that there are
    int _run = 0;                             // what earlier workers still say is ignored

    QThread *wire(TrelanController &controller, TrelanMsgWorker *worker);
    QThread *wire(TrelanController &controller, TrelanQueryWorker *worker);
    template <typename Worker>
    void watchState(TrelanController &controller, Worker *worker, Part part);
    TrelanConnectionState combined() const;
    void setState(TrelanController &controller, const TrelanConnectionState &state);
};

TrelanController::TrelanController(const QString &clientName, QObject *parent)
    : AbstractWorkerController(parent)
    , d(std::make_unique<Private>())
{
    d->_clientName = clientName;
}

TrelanController::~TrelanController()
{
    if (!d->_logBridgeInstalled)
        return;
    LoggerManager::removeOutput(QString::fromLatin1(LOGGER().categoryName()));
    TrelanLogCreator::release();
}

QString TrelanController::clientName() const
{
    return d->_clientName;
}

bool TrelanController::logBridgeInstalled() const
{
    return d->_logBridgeInstalled;
}

void TrelanController::setLogBridgeInstalled(bool installed)
{
    d->_logBridgeInstalled = installed;
}

void TrelanController::setChannelSettings(const TrelanChannelSettings &settings)
{
    d->_ownSettings = settings;
}

TrelanChannelSettings TrelanController::channelSettings() const
{
    return d->_ownSettings.value_or(TrelanChannelSettings::ofProcess());
}

TrelanConnectionState TrelanController::state() const
{
    return d->_state.get();
}

void TrelanController::setBus(QString host, quint16 msgPort, quint16 queryPort)
{
    stop();
    if (host.isEmpty() || msgPort == 0 || queryPort == 0)
        return;
    const QHostAddress address(host);
    bool numeric = false;
    address.toIPv4Address(&numeric);
    if (!numeric) {
        qWarning().noquote().nospace()
            << "The host of the bus has to be a numeric IPv4 address, and \"" << host
            << "\" is none";
    }
    if (d->_ownSettings) {
        d->_ownSettings->setHost(address.toIPv4Address()).setPorts(msgPort, queryPort);
    } else {
        TrelanMessageReciever::setMsgHost(address.toIPv4Address());
        TrelanMessageReciever::setMsgPort(msgPort);
        TrelanQueryHandler::setQueryHost(address.toIPv4Address());
        TrelanQueryHandler::setQueryPort(queryPort);
    }
    start();
}

bool TrelanController::doStop()
{
    ++d->_run;
    d->_parts.clear();
    d->setState(*this, channelworker::stoppedState());
    return AbstractWorkerController::doStop();
}

bool TrelanController::initWorkers(TrelanMsgWorker *msgWorker, TrelanQueryWorker *queryWorker)
{
    // The worker's thread does not run yet.
    if (d->_ownSettings && msgWorker)
        msgWorker->setChannelSettings(*d->_ownSettings);
    if (d->_ownSettings && queryWorker)
        queryWorker->setChannelSettings(*d->_ownSettings);
    QThread *msgThread = msgWorker ? d->wire(*this, msgWorker) : nullptr;
    QThread *queryThread = queryWorker ? d->wire(*this, queryWorker) : nullptr;
    if (queryThread)
        queryThread->start(QThread::InheritPriority);
    if (msgThread)
        msgThread->start(QThread::InheritPriority);
    return true;
}

void TrelanController::prepareMsgWorker(TrelanMsgWorker *msgWorker)
{
    Q_UNUSED(msgWorker)
}

void TrelanController::prepareQueryWorker(TrelanQueryWorker *queryWorker) {Q_UNUSED(queryWorker)}

QThread *TrelanController::Private::wire(TrelanController &controller, TrelanMsgWorker *worker)
{
    QThread *thread = controller.addWorkerToThread(worker);
    connect(worker, SIGNAL(unprocessedMessage(TrelanMessage)), &controller,
            SIGNAL(unprocessedMessage(TrelanMessage)), Qt::QueuedConnection);
    connect(worker, SIGNAL(unprocessedObject(TrelanObject)), &controller,
            SIGNAL(unprocessedObject(TrelanObject)), Qt::QueuedConnection);
    connect(worker, SIGNAL(unprocessedCommand(TrelanCommand)), &controller,
            SIGNAL(unprocessedCommand(TrelanCommand)), Qt::QueuedConnection);
    connect(worker, SIGNAL(objectRemoved(QString)), &controller, SIGNAL(objectRemoved(QString)),
            Qt::QueuedConnection);
    watchState(controller, worker, Messages);
    controller.prepareMsgWorker(worker);
    return thread;
}

QThread *TrelanController::Private::wire(TrelanController &controller, TrelanQueryWorker *worker)
{
    QThread *thread = controller.addWorkerToThread(worker);
    connect(&controller, SIGNAL(sendLogMessage(TrelanMessage)), worker,
            SLOT(sendMessage(TrelanMessage)), Qt::QueuedConnection);
    connect(&controller, SIGNAL(sendMessage(TrelanMessage)), worker,
            SLOT(sendMessage(TrelanMessage)), Qt::QueuedConnection);
    connect(&controller, SIGNAL(publish(TrelanObject)), worker, SLOT(publish(TrelanObject)),
            Qt::QueuedConnection);
    connect(&controller, SIGNAL(subscribe(QString)), worker, SLOT(subscribe(QString)),
            Qt::QueuedConnection);
    connect(&controller, SIGNAL(subscribe(QStringList)), worker, SLOT(subscribe(QStringList)),
            Qt::QueuedConnection);
    connect(&controller, SIGNAL(unsubscribe(QString)), worker, SLOT(unsubscribe(QString)),
            Qt::QueuedConnection);
    connect(&controller, SIGNAL(unsubscribe(QStringList)), worker, SLOT(unsubscribe(QStringList)),
            Qt::QueuedConnection);
    connect(&controller, SIGNAL(loadObject(QString)), worker, SLOT(loadObject(QString)),
            Qt::QueuedConnection);
    connect(worker, SIGNAL(objectLoaded(TrelanObject)), &controller,
            SIGNAL(objectLoaded(TrelanObject)), Qt::QueuedConnection);
    watchState(controller, worker, Queries);
    controller.prepareQueryWorker(worker);
    return thread;
}

template <typename Worker>
void TrelanController::Private::watchState(TrelanController &controller, Worker *worker, Part part)
{
    _parts.insert(part, TrelanConnectionState());
    setState(controller, combined());
    const auto take = [this, &controller, part, run = _run](const TrelanConnectionState &state) {
        if (run != _run)
            return;
        _parts.insert(part, state);
        setState(controller, combined());
    };
    connect(worker, &Worker::stateChanged, &controller, take, Qt::QueuedConnection);
}

/// The state of the part that is worst off; of a connected controller, what any of its parts lacks.
TrelanConnectionState TrelanController::Private::combined() const
{
    const auto severity = [](const TrelanConnectionState &state) {
        if (state.status() != TrelanConnectionState::Away)
            return state.isConnected() ? 0 : 1;
        return state.reason() == TrelanConnectionState::NoBus ? 2 : 3;
    };
    QStringList lacking;
    TrelanConnectionState worst = TrelanConnectionState::connected();
    for (const TrelanConnectionState &part : _parts) {
        lacking += part.lacking();
        if (severity(part) > severity(worst))
            worst = part;
    }
    lacking.removeDuplicates();
    return worst.isConnected() ? TrelanConnectionState::connected(lacking) : worst;
}

void TrelanController::Private::setState(TrelanController &controller,
                                         const TrelanConnectionState &state)
{
    if (_state.set(state))
        emit controller.stateChanged(state);
}

} // namespace bus
