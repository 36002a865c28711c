#pragma once

#include "trelanglobal.h"

#include "trelanchannelsettings.h"
#include "trelancommand.h"
#include "trelanconnectionstate.h"
#include "trelanmessage.h"
#include "trelanobject.h"
#include "trelanpending.h"
#include "trelanqueryhandler.h"
#include "trelantransport.h"

#include <abstractworker.h>

#include <QtCore/QFlags>
#include <QtCore/QStringList>

#include <memory>

namespace bus
{

/// \brief Owns the query channel: everything that this client says to the bus goes through it, one
/// request after the other, in the order in which it was asked for.
///
/// Threads: as TrelanMsgWorker. The slots are reached through queued connections, and each blocks
/// the worker's thread until the bus has answered; nothing tells the caller how it went, except of
/// an operation that is asked for with one of the functions that return a TrelanPending. In Prompt
/// mode (see TrelanTransport) the worker sends waiting requests ahead of the replies to earlier
/// ones, up to 256 requests or 256 KiB; replies are taken in the order of the requests.
///
/// While the channel is down every slot drops what it is given, without a report. A new attempt
/// follows as with TrelanMsgWorker; on each connection the wildcards given at construction are
/// subscribed, and only those: what was added through a slot is lost with the connection.
class TRELAN_EXPORT TrelanQueryWorker : public morvik::AbstractWorker
{
    Q_OBJECT

public:
    enum Option {
        /// Subscribing the wildcards given at construction also brings the values that are stored
        /// now, so that what the application has collected is whole again after every
        /// reconnection. See TrelanQueryHandler::subscribeNow().
        SubscribeNow = 1,
        /// The subscriptions of those wildcards also tell of removed objects, to a message worker
        /// with the option TakeRemovals.
        SubscribeRemovals = 2,
        /// Asks the bus what it can do, see TrelanQueryHandler::setAsksFeatures(), and says in
        /// state() what it lacks of what the options want.
        AskFeatures = 4
    };
    Q_DECLARE_FLAGS(Options, Option)

    TrelanQueryWorker(const QString &clientName, QStringList wildcards);
    ~TrelanQueryWorker() override;

    /// Builds the channel, opens it and subscribes. Always true: a bus that is not there, or that
    /// refuses a subscription, is tried again.
    bool doStart() override;
    /// Takes the channel down without a signal. Always true, and harmless on a stopped worker.
    bool doStop() override;

    QFlags<Option> options() const;
    /// Takes effect with the next connection. Not thread-safe: before the worker is started, or in
    /// its thread.
    void setOptions(const QFlags<Option> &options);

    /// From the next attempt to connect on the worker goes by \a settings instead of those of the
    /// process. Not thread-safe: before the worker is started, or in its thread.
    void setChannelSettings(const TrelanChannelSettings &settings);

    /// Whether the channel is open, with the wildcards given at construction subscribed, or why it
    /// is not. Thread-safe, as long as the worker exists.
    TrelanConnectionState state() const;

Q_SIGNALS:
    /// The bus has accepted the handshake; the wildcards given at construction are subscribed next.
    void workerConnected();
    /// An object asked for with loadObject() has come, and is in the SharedObjectsStorage.
    void objectLoaded(TrelanObject obj);
    /// state() is another one. Emitted in the worker's thread; not when the worker is stopped.
    void stateChanged(bus::TrelanConnectionState state);

public Q_SLOTS:
    void sendMessage(TrelanMessage msg);
    void publish(TrelanObject obj);
    void subscribe(QStringList wildCards);
    void subscribe(QString wildCard);
    void unsubscribe(QString wildCard);
    void unsubscribe(QStringList wildCards);
    /// A command that needs an answer is kept in the SharedObjectsStorage, under its uid, before it
    /// is sent.
    void sendCommand(TrelanCommand cmd);
    void loadObject(QString name);

public:
    /// \name Operations that tell how they went
    ///
    /// Each asks for what the slot or the method of TrelanQueryHandler of like name does, behind
    /// what was asked for before. They return at once, and may be called from any thread for as
    /// long as the worker exists; a controller deletes its workers when it stops. The operation
    /// ends as done, or as NotConnected, where there is no connection, or none any more before the
    /// bus has answered, Refused, with what the bus says, or TimedOut. It also ends when the worker
    /// is stopped or deleted. Do not wait for one in the worker's own thread.
    /// @{
    TrelanPending askToPublish(const TrelanObject &object);
    TrelanPending askToRemove(const QStringList &names);
    /// NobodyThere where the message is not stored and its receiver is not connected.
    TrelanPending askToSend(const TrelanMessage &message);
    /// Refused where there is no such object. The SharedObjectsStorage is left alone.
    TrelanReply<TrelanObject> askToLoad(const QString &name);
    TrelanReply<TrelanObjects> askToLoadAll(const QString &wildcard);
    TrelanPending askToSubscribe(const QStringList &wildcards,
                                 TrelanQueryHandler::SubscribeOptions options = {});
    TrelanPending askToUnsubscribe(const QStringList &wildcards);
    /// @}

private:
    class Private;
    const std::unique_ptr<Private> d;
};

Q_DECLARE_OPERATORS_FOR_FLAGS(TrelanQueryWorker::Options)

} // namespace bus
