#include "trelancontroller.h"

#include "trelanlogcreator.h"
#include "trelanmessagereciever.h"
#include "trelanmsgworker.h"
#include "trelanqueryhandler.h"
#include "trelanqueryworker.h"

#include <loggermanager.h>

#include <QtCore/QDebug>
#include <QtCore/QLoggingCategory>
#include <QtNetwork/QHostAddress>

namespace bus
{

TrelanController::TrelanController(const QString &clientName, QObject *parent)
    : AbstractWorkerController(parent)
    , _clientName(clientName)
{}

TrelanController::~TrelanController()
{
    if (!_logBridgeInstalled)
        return;
    LoggerManager::removeOutput(QString::fromLatin1(LOGGER().categoryName()));
    TrelanLogCreator::release();
}

QString TrelanController::clientName() const
{
    return _clientName;
}

bool TrelanController::logBridgeInstalled() const
{
    return _logBridgeInstalled;
}

void TrelanController::setLogBridgeInstalled(bool installed)
{
    _logBridgeInstalled = installed;
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
    TrelanMessageReciever::setMsgHost(address.toIPv4Address());
    TrelanMessageReciever::setMsgPort(msgPort);
    TrelanQueryHandler::setQueryHost(address.toIPv4Address());
    TrelanQueryHandler::setQueryPort(queryPort);
    start();
}

bool TrelanController::initWorkers(TrelanMsgWorker *msgWorker, TrelanQueryWorker *queryWorker)
{
    QThread *msgThread = msgWorker ? wireMsgWorker(msgWorker) : nullptr;
    QThread *queryThread = queryWorker ? wireQueryWorker(queryWorker) : nullptr;
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

QThread *TrelanController::wireMsgWorker(TrelanMsgWorker *worker)
{
    QThread *thread = addWorkerToThread(worker);
    connect(worker, SIGNAL(unprocessedMessage(TrelanMessage)), this,
            SIGNAL(unprocessedMessage(TrelanMessage)), Qt::QueuedConnection);
    connect(worker, SIGNAL(unprocessedObject(TrelanObject)), this,
            SIGNAL(unprocessedObject(TrelanObject)), Qt::QueuedConnection);
    connect(worker, SIGNAL(unprocessedCommand(TrelanCommand)), this,
            SIGNAL(unprocessedCommand(TrelanCommand)), Qt::QueuedConnection);
    prepareMsgWorker(worker);
    return thread;
}

QThread *TrelanController::wireQueryWorker(TrelanQueryWorker *worker)
{
    QThread *thread = addWorkerToThread(worker);
    connect(this, SIGNAL(sendLogMessage(TrelanMessage)), worker, SLOT(sendMessage(TrelanMessage)),
            Qt::QueuedConnection);
    connect(this, SIGNAL(sendMessage(TrelanMessage)), worker, SLOT(sendMessage(TrelanMessage)),
            Qt::QueuedConnection);
    connect(this, SIGNAL(publish(TrelanObject)), worker, SLOT(publish(TrelanObject)),
            Qt::QueuedConnection);
    connect(this, SIGNAL(subscribe(QString)), worker, SLOT(subscribe(QString)),
            Qt::QueuedConnection);
    connect(this, SIGNAL(subscribe(QStringList)), worker, SLOT(subscribe(QStringList)),
            Qt::QueuedConnection);
    connect(this, SIGNAL(unsubscribe(QString)), worker, SLOT(unsubscribe(QString)),
            Qt::QueuedConnection);
    connect(this, SIGNAL(unsubscribe(QStringList)), worker, SLOT(unsubscribe(QStringList)),
            Qt::QueuedConnection);
    connect(this, SIGNAL(loadObject(QString)), worker, SLOT(loadObject(QString)),
            Qt::QueuedConnection);
    connect(worker, SIGNAL(objectLoaded(TrelanObject)), this, SIGNAL(objectLoaded(TrelanObject)),
            Qt::QueuedConnection);
    prepareQueryWorker(worker);
    return thread;
}

} // namespace bus
