#pragma once

#include "trelanglobal.h"

#include "trelancommand.h"
#include "trelanmessage.h"
#include "trelanobject.h"

#include <abstractworkercontroller.h>

#include <QtCore/QString>
#include <QtCore/QStringList>

namespace bus
{

class TrelanMsgWorker;
class TrelanQueryWorker;

/// \brief An application's single point of contact with the bus.
///
/// An application derives from it, makes its workers in doStart() and hands them to initWorkers().
/// It then talks to the bus by emitting the signals that lead there, which return at once, and
/// hears from it by connecting to the others.
///
/// Threads: the controller lives in the application's thread and every method is called there; each
/// worker has a thread of its own. All connections are queued: what is emitted is done in order of
/// emission, and nothing tells whether it was; while the bus is away it is dropped, and so is what
/// still waits when the controller stops.
///
/// \code
/// class Thermometer : public bus::TrelanController
/// {
/// public:
///     Thermometer() : TrelanController("thermometer", nullptr) {}
/// protected:
///     bool doStart() override
///     {
///         return initWorkers(new bus::TrelanMsgWorker(clientName()),
///                            new bus::TrelanQueryWorker(clientName(), { "room.*" }));
///     }
/// };
///
/// Thermometer thermometer;
/// QObject::connect(&thermometer, &Thermometer::unprocessedObject, &window, &Window::show);
/// thermometer.setBus("127.0.0.1", 43537, 43535);
/// emit thermometer.publish(room);
/// \endcode
class TRELAN_EXPORT TrelanController : public morvik::AbstractWorkerController
{
    Q_OBJECT

public:
    explicit TrelanController(const QString &clientName, QObject *parent = nullptr);
    /// Stops, as any worker controller; takes the log bridge down if it was installed.
    ~TrelanController() override;

    QString clientName() const;

    /// Whether the application has installed the log bridge for this controller. The library only
    /// reads it, in the destructor.
    bool logBridgeInstalled() const;
    void setLogBridgeInstalled(bool installed);

Q_SIGNALS:
    void unprocessedMessage(TrelanMessage msg);
    void unprocessedObject(TrelanObject obj);
    void unprocessedCommand(TrelanCommand cmd);
    void sendLogMessage(TrelanMessage msg);
    void sendMessage(TrelanMessage msg);
    void publish(TrelanObject obj);
    void subscribe(QStringList wildCards);
    void subscribe(QString wildCard);
    void unsubscribe(QString wildCard);
    void unsubscribe(QStringList wildCards);
    /// Leads nowhere by itself: an application that sends commands connects it to the query
    /// worker's sendCommand(), normally in prepareQueryWorker().
    void sendCommand(TrelanCommand cmd);
    void loadObject(QString name);
    void objectLoaded(TrelanObject obj);

public Q_SLOTS:
    /// \brief Stops everything, and starts again with the bus at \a host, a numeric IPv4 address.
    ///
    /// With an empty host or a port 0 it only stops. Host and ports are those of the process, for
    /// every controller. Waits until the workers have stopped, some tenths of a second.
    void setBus(QString host, quint16 msgPort, quint16 queryPort);

protected:
    /// Gives each worker a thread, wires it and starts it. Either may be null. Always true.
    virtual bool initWorkers(TrelanMsgWorker *msgWorker, TrelanQueryWorker *queryWorker);
    /// For connections of a subclass's own, after the standard ones and before the thread runs.
    virtual void prepareMsgWorker(TrelanMsgWorker *msgWorker);
    virtual void prepareQueryWorker(TrelanQueryWorker *queryWorker);

private:
    QThread *wireMsgWorker(TrelanMsgWorker *worker);
    QThread *wireQueryWorker(TrelanQueryWorker *worker);

    QString _clientName;
    bool _logBridgeInstalled = false;
};

} // namespace bus
