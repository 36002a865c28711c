#pragma once

#include "delivery/busdelivery.h"
#include "delivery/busoutput.h"
#include "request/buspayload.h"
#include "request/busrequest.h"
#include "rules/clientregistry.h"
#include "rules/pendingwrites.h"
#include "rules/publishorder.h"
#include "rules/subscriptionindex.h"
#include "storage/busstorage.h"
#include "values/userdatabase.h"

#include <QtCore/QCache>
#include <QtCore/QPair>
#include <QtCore/QString>

#include <functional>

namespace bus
{

/// \brief The rules of the bus: who is registered, who subscribes to what, what a request does.
///
/// Knows no sockets and no frames. One thread.
class BusCore
{
public:
    BusCore(const TrelanBusSettings &settings, BusStorage &storage, BusOutput &output);

    /// Handles one request of the query channel and sees to it that exactly one reply follows, now
    /// or later. While requests of the connection are on their way to the disk, one that could tell
    /// the difference waits until they are answered.
    void handle(ConnectionId id, BusRequest request);
    /// Handles one request of the message channel. Exactly one reply follows at once.
    void handleOnMessageChannel(ConnectionId id, const BusRequest &request);
    /// Handles a reply on the message channel.
    void handleReply(ConnectionId id, const payload::Acknowledgement &acknowledgement);
    /// Everything that was sent on a connection of the message channel has left.
    void pushMore(ConnectionId id);

    /// To be called after everything that may have sent something: reads the acknowledgements that
    /// have begun to matter.
    void hearDue();

    /// The connection has ended. Another connection that has taken over its name stays registered.
    void connectionClosed(ConnectionId id);

    /// To be called about once a second while hasQueues(), until it returns false, which means that
    /// time alone changes nothing.
    bool checkTimes();
    bool hasQueues() const;

    /// To be called once after each BusOutput::goOnLater().
    void goOn();

    /// Handles requests that have waited for others. To be called after BusStorage::handleResults()
    /// and goOn().
    void handleWaiting();

    /// To be called once, when the storage is open.
    void restoreMessages();

private:
    void complete(ConnectionId id, BusRequest &request) const;
    bool mayStart(ConnectionId id, const BusRequest &request) const;
    void start(ConnectionId id, const BusRequest &request);
    void startOperation(ConnectionId id, const BusRequest &request);
    void replyInTurn(const PendingWrites::Write &write, ConnectionId id, const QString &word,
                     const TrelanError &error);
    void handshake(ClientRegistry &registry, ConnectionId id, const BusRequest &request);
    void acceptHandshake(const ClientRegistry &registry, ConnectionId id,
                         const BusRequest &request);
    QString ownerFault(const ClientOwner &owner, const QString &name) const;
    void refuseOwner(ConnectionId id, const BusRequest &request, const QString &fault);
    void endOlder(ClientRegistry &registry, ConnectionId id, const QString &name,
                  const ClientOwner &owner);
    void endQuery(ConnectionId id);
    void endMessages(ConnectionId id);
    void publish(ConnectionId id, const BusRequest &request);
    void remove(ConnectionId id, const BusRequest &request);
    void objectsRemoved(const QStringList &names, const QString &remover, quint64 place = 0,
                        const std::function<void()> &reply = {});
    bool tellRemoval(PublishOrder::Removal &removal);
    void loadObject(ConnectionId id, const BusRequest &request);
    void loadObjects(ConnectionId id, const BusRequest &request);
    void subscribe(ConnectionId id, const BusRequest &request);
    void unsubscribe(ConnectionId id, const BusRequest &request);
    TrelanError subscriptionFault(const QString &client, const BusRequest &request, int added,
                                  int valued) const;
    void subscribeToRemovals(const QString &client, const QStringList &wildcards);
    void notifyOfStored(const QString &client, const QStringList &wildcards,
                        const BusRequest &request);
    void listClients(ConnectionId id, const BusRequest &request);
    QVariantMap clientData(const QString &name) const;
    void sendMessage(ConnectionId id, const BusRequest &request);
    void deliver(const PublishOrder::Publish &publish);
    void forgetSubscriptions(const QString &client);
    void closeReceivers(const BusDelivery::Overruns &overruns);
    void closeReceiver(const QString &client, const QString &reason);
    void freshenUid(ObjectRecord &record);

    const int _maxSubscriptions;
    const TrelanBusSettings::Admission _admission;
    const QString _instance; // tells this run of the bus from all others
    BusStorage &_storage;
    BusOutput &_output;
    BusDelivery _delivery;
    ClientRegistry _queryClients;
    ClientRegistry _msgClients;
    PublishOrder _order;
    PendingWrites _writes;
    QHash<ConnectionId, BusRequest> _waiting; // for the writes of their connection
    QVector<ConnectionId> _answered;          // whose writes were answered; see handleWaiting()
    SubscriptionIndex _subscriptions;         // of clients with a query connection
    SubscriptionIndex _removals;              // those of them with which removals are told
    QCache<QString, QPair<QString, size_t>> _lastPublished; // uid and digest by object name
    WarningLimiter _warnings;
    WarningLimiter _refusals;
    UserDatabase _users;
};

} // namespace bus
