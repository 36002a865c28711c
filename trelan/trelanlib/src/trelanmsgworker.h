#pragma once

#include "trelanglobal.h"

#include "trelanchannelsettings.h"
#include "trelancommand.h"
#include "trelanconnectionstate.h"
#include "trelanmessage.h"
#include "trelanobject.h"
#include "trelantransport.h"

#include <abstractworker.h>

#include <QtCore/QFlags>

#include <memory>

namespace bus
{

/// \brief Owns the message channel: keeps it connected, stores what its options say, and hands
/// everything that arrives to virtual handlers, whose defaults emit the unprocessed... signals.
///
/// Threads: made in the application's thread, then run in a thread of its own by a controller
/// (TrelanController::initWorkers()). The handlers run in that thread; the signals reach the
/// application through queued connections.
///
/// While the bus is away a new attempt follows every 5 s, with a new channel each time. With
/// TrelanTransport::Prompt the first one follows at once, and later ones after up to 5 s. Other
/// pauses are a setting, see TrelanChannelSettings::setPauses().
class TRELAN_EXPORT TrelanMsgWorker : public morvik::AbstractWorker
{
    Q_OBJECT

public:
    enum Option {
        StoreObjects = 1, ///< every incoming object goes into the SharedObjectsStorage
        /// A new channel remembers which messages the one before has received, so that a message
        /// whose acknowledgement was lost with the connection is not seen twice.
        KeepFilter = 2,
        /// The bus keeps nothing for this client while it is away.
        Transient = 4,
        /// Tells of removed objects by objectRemoved(), and takes them out of the
        /// SharedObjectsStorage if StoreObjects is set. The query worker has to subscribe with
        /// SubscribeRemovals.
        TakeRemovals = 8,
        /// Asks the bus what it can do, see TrelanMessageReciever::setAsksFeatures().
        AskFeatures = 16
    };
    Q_DECLARE_FLAGS(Options, Option)

    explicit TrelanMsgWorker(const QString &clientName, QFlags<Option> options = {});
    ~TrelanMsgWorker() override;

    QFlags<Option> options() const;
    /// Takes effect for the next incoming object or channel. Not thread-safe: before the worker is
    /// started, or in its thread.
    void setOptions(const QFlags<Option> &options);

    /// From the next attempt to connect on the worker goes by \a settings instead of those of the
    /// process. Not thread-safe: before the worker is started, or in its thread.
    void setChannelSettings(const TrelanChannelSettings &settings);

    /// Whether the bus has accepted the channel, or why it has not. Thread-safe, as long as the
    /// worker exists.
    TrelanConnectionState state() const;

    /// Builds the channel and opens it. Always true: a bus that is not there is waited for.
    bool doStart() override;
    /// Takes the channel down without a signal. Always true, and harmless on a stopped worker.
    bool doStop() override;

    virtual void doProcessMessage(const TrelanMessage &msg);
    virtual void doProcessCommand(const TrelanCommand &cmd);
    virtual void doProcessObject(const TrelanObject &obj);

Q_SIGNALS:
    /// A message has arrived that doProcessMessage() leaves to the application.
    void unprocessedMessage(TrelanMessage msg);
    /// A subscribed object has changed, and doProcessObject() leaves it to the application.
    void unprocessedObject(TrelanObject obj);
    /// A call, or the answer to one, has arrived that doProcessCommand() leaves to the application.
    /// The answer is in the SharedObjectsStorage already if its command is kept there.
    void unprocessedCommand(TrelanCommand cmd);
    /// The connection is made; the bus has yet to accept the handshake.
    void workerConnected();
    /// state() is another one. Emitted in the worker's thread; not when the worker is stopped.
    void stateChanged(bus::TrelanConnectionState state);
    /// The bus has removed an object. Only with the option TakeRemovals.
    void objectRemoved(QString name);

protected Q_SLOTS:
    /// Hands the message to doProcessMessage().
    void processMessage(TrelanMessage msg);
    /// Stores an answer beside its command, and hands the command to doProcessCommand().
    void processCommand(TrelanCommand cmd);
    /// Stores the object if the options say so, and hands it to doProcessObject().
    void processObject(TrelanObject obj);

private:
    class Private;
    const std::unique_ptr<Private> d;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(TrelanMsgWorker::Options)

} // namespace bus
