#pragma once

#include "trelanglobal.h"

#include "trelanchannelsettings.h"
#include "trelancommand.h"
#include "trelanconnectionstate.h"
#include "trelanmessage.h"
#include "trelanobject.h"

#include <abstractworkercontroller.h>

#include <QtCore/QString>
#include <QtCore/QStringList>

#include <memory>

namespace bus
{

class TrelanMsgWorker;
class TrelanQueryWorker;

/// \brief An application's single point of contact with the bus.
///
/// An application derives from it, makes its workers in doStart() and hands them to initWorkers().
/// It then talks to the bus by emitting the signals that lead to the bus, which return at once, and
/// hears from it by connecting to the signals that lead to the application.
///
/// Threads: the controller lives in the application's thread and every method is called there; each
/// worker has a thread of its own. All connections are queued. Requests are sent in the order of
/// emission, and nothing tells how they ended. A request is dropped while the bus is away, and when
/// it still waits as the controller stops.
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
    /// Stops the workers; takes the log bridge down if it was installed.
    ~TrelanController() override;

    QString clientName() const;

    /// Whether the application has installed the log bridge for this controller. The library only
    /// reads it, in the destructor.
    bool logBridgeInstalled() const;
    void setLogBridgeInstalled(bool installed);

    /// \brief Settings for the workers of this controller alone, in place of those of the process,
    /// so that a controller has a bus or a transport of its own.
    ///
    /// initWorkers() hands them to the workers, also to one that has settings already. From then on
    /// setBus() changes the host and the ports in these, and leaves those of the process alone.
    void setChannelSettings(const TrelanChannelSettings &settings);
    /// Its own settings, or else those of the process as they are now.
    TrelanChannelSettings channelSettings() const;

    /// \brief Whether its workers have the bus: connected if each of them is.
    ///
    /// Otherwise it says what is wrong with one of them. A refusal, a name that is taken and a
    /// wrong port come before a bus that is not there. Away, with the description "stopped", after
    /// a stop. Known to the controller by its event loop, as everything that comes from the
    /// workers.
    TrelanConnectionState state() const;

Q_SIGNALS:
    /// To the application: a message has arrived that the message worker has not consumed.
    void unprocessedMessage(TrelanMessage msg);
    /// To the application: a subscribed object has changed, and the message worker has not consumed
    /// it.
    void unprocessedObject(TrelanObject obj);
    /// To the application: a call, or the answer to one, has arrived that the message worker has
    /// not consumed.
    void unprocessedCommand(TrelanCommand cmd);
    /// To the bus: sends a line of the log; the method to give to TrelanLogCreator::init().
    void sendLogMessage(TrelanMessage msg);
    /// To the bus: sends a message to its receiver.
    void sendMessage(TrelanMessage msg);
    /// To the bus: publishes an object under this client's name.
    void publish(TrelanObject obj);
    /// To the bus: subscribes until the connection is lost. What the query worker was made with is
    /// subscribed on every connection.
    void subscribe(QStringList wildCards);
    /// To the bus: subscribes one wildcard, until the connection is lost.
    void subscribe(QString wildCard);
    /// To the bus: ends the subscription of a wildcard, until the connection is lost.
    void unsubscribe(QString wildCard);
    /// To the bus: ends the subscriptions of these wildcards, until the connection is lost.
    void unsubscribe(QStringList wildCards);
    /// To the bus, once it is connected: an application that sends commands connects this signal to
    /// the query worker's sendCommand(), normally in prepareQueryWorker().
    void sendCommand(TrelanCommand cmd);
    /// To the bus: asks for the stored object of this name; objectLoaded() brings it.
    void loadObject(QString name);
    /// To the application: an object asked for with loadObject() has come. Nothing comes where the
    /// bus does not know it.
    void objectLoaded(TrelanObject obj);
    /// To the application: state() is another one.
    void stateChanged(bus::TrelanConnectionState state);
    /// To the application: an object is removed. For workers with the options TakeRemovals and
    /// SubscribeRemovals.
    void objectRemoved(QString name);

public Q_SLOTS:
    /// \brief Stops everything, and starts again with the bus at \a host, a numeric IPv4 address.
    ///
    /// With an empty host or a port 0 it only stops. Host and ports are settings of the process,
    /// shared by all its controllers that have none of their own. The call waits until the workers
    /// have stopped, some tenths of a second.
    void setBus(QString host, quint16 msgPort, quint16 queryPort);

protected:
    /// Gives each worker a thread, wires it and starts it. Either worker may be null. Returns true.
    virtual bool initWorkers(TrelanMsgWorker *msgWorker, TrelanQueryWorker *queryWorker);
    /// Called after the standard connections are made and before the thread runs, so that a
    /// subclass can add connections of its own.
    virtual void prepareMsgWorker(TrelanMsgWorker *msgWorker);
    /// As prepareMsgWorker(), for the query worker.
    virtual void prepareQueryWorker(TrelanQueryWorker *queryWorker);

    bool doStop() override;

private:
    class Private;
    const std::unique_ptr<Private> d;
};

} // namespace bus
