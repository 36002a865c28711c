#pragma once

#include "trelanglobal.h"

#include "sharedobjectsstorage.h"
#include "trelancommand.h"
#include "trelanmessage.h"
#include "trelanmessagereciever.h"
#include "trelanobject.h"

#include <abstractworker.h>

#include <QtCore/QFlags>
#include <QtCore/QPointer>
#include <QtCore/QTimer>

#include <memory>

namespace bus
{

namespace channelworker
{
class Reconnection;
}

/// \brief Owns the message channel: keeps it connected, stores what its options say, and hands
/// everything that arrives to virtual handlers, whose defaults emit the unprocessed... signals.
///
/// Threads: made in the application's thread, then run in a thread of its own by a controller
/// (TrelanController::initWorkers()). The handlers run in that thread; the signals reach the
/// application through queued connections.
///
/// While the bus is away a new attempt follows every 5 s, with a new channel each time.
class TRELAN_EXPORT TrelanMsgWorker : public morvik::AbstractWorker
{
    Q_OBJECT

public:
    enum Option {
        StoreObjects = 1, ///< every incoming object goes into the SharedObjectsStorage
        /// A new channel remembers which messages the one before has received, so that a message
        /// whose acknowledgement was lost with the connection is not seen twice.
        KeepFilter = 2
    };
    Q_DECLARE_FLAGS(Options, Option)

    explicit TrelanMsgWorker(const QString &clientName, QFlags<Option> options = {});
    ~TrelanMsgWorker() override;

    QFlags<Option> options() const;
    /// Takes effect for the next incoming object or channel. Not thread-safe: before the worker is
    /// started, or in its thread.
    void setOptions(const QFlags<Option> &options);

    /// Builds the channel and opens it. Always true: a bus that is not there is waited for.
    bool doStart() override;
    /// Takes the channel down without a signal. Always true, and harmless on a stopped worker.
    bool doStop() override;

    virtual void doProcessMessage(const TrelanMessage &msg);
    virtual void doProcessCommand(const TrelanCommand &cmd);
    virtual void doProcessObject(const TrelanObject &obj);

Q_SIGNALS:
    void unprocessedMessage(TrelanMessage msg);
    void unprocessedObject(TrelanObject obj);
    void unprocessedCommand(TrelanCommand cmd);
    /// The connection is made; the bus has yet to accept the handshake.
    void workerConnected();

protected Q_SLOTS:
    void processMessage(TrelanMessage msg);
    void processCommand(TrelanCommand cmd);
    void processObject(TrelanObject obj);

private:
    void stopChannel();

    QString _clientName;
    QPointer<TrelanMessageReciever> _reciever;
    QPointer<QTimer> _restartTimer;
    QFlags<Option> _options;
    TrelanMessageReciever::Filter _filter; // of the current channel, or of the one before
    SharedObjectsStorage _storage;
    std::unique_ptr<channelworker::Reconnection> _reconnection;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(TrelanMsgWorker::Options)

} // namespace bus
