#pragma once

#include "client/bussession.h"
#include "client/callmailbox.h"
#include "client/clientdoor.h"
#include "client/deadlines.h"
#include "client/keptobjects.h"
#include "client/outbox.h"
#include "client/seenmessages.h"
#include "client/watchmailbox.h"
#include "client/watchtable.h"
#include "trelanoptions.h"

#include <QtCore/QHash>
#include <QtCore/QObject>
#include <QtCore/QQueue>
#include <QtCore/QString>

#include <memory>

namespace bus
{

/// What a client tells whoever has made it. Called in the client's own thread.
class ClientEvents
{
public:
    virtual ~ClientEvents() = default;
    virtual void onState(const TrelanConnectionState &state) = 0;
    virtual void onMessage(const TrelanMessage &message) = 0;
    /// False if nobody is told.
    virtual bool onCommand(const TrelanCommand &command) = 0;
};

/// \brief What a client does, in its own thread: operations, watches, calls and served commands.
/// Internal to the library.
///
/// Policy lives in classes of its own: what waits in the Outbox, who is told of what in the
/// WatchTable, when to connect in the BusSession.
class ClientEngine : public QObject
{
    Q_OBJECT

public:
    ClientEngine(const QString &clientName, const TrelanClientSettings &settings,
                 const std::shared_ptr<ClientDoor> &door, ClientEvents &events);
    ~ClientEngine() override;

    void start();
    /// Ends everything that has not ended.
    void stop();
    /// Has the tasks of the door run. Thread-safe.
    void wake();

    /// An operation that ends by these options; not yet begun. Thread-safe.
    static Operation::Ref makeOperation(const TrelanOptions &options);
    /// Sends a message through \a door. Thread-safe.
    static Operation::Ref send(ClientDoor &door, const TrelanMessage &message,
                               const TrelanOptions &options);

    /// Calls a command through \a door. Thread-safe.
    static Operation::Ref makeCall(ClientDoor &door, TrelanCommand call,
                                   const TrelanOptions &options);

    /// \name Tasks
    /// @{
    void begin(const Operation::Ref &operation);
    void watch(WatchTable::Number number, const QString &wildcard,
               const std::shared_ptr<WatchMailbox> &mailbox, const Operation::Ref &operation);
    void unwatch(WatchTable::Number number, const Operation::Ref &operation);
    void serve(const QString &command, const std::shared_ptr<CallMailbox> &function);
    void stopServing(const QString &command);
    /// From now on the door is told when nothing is asked that has no answer.
    void reportIdle() { _reportsIdle = true; }
    /// @}

private:
    void reportIfIdle();
    void onUp();
    void onDown();
    void onArrived(const TrelanMessage &message);

    void submit(const Operation::Ref &operation);
    QByteArray frameOf(Operation &operation) const;
    void onReply(const Operation::Ref &operation, const AskingChannel::Reply &reply);
    void onLost(const Operation::Ref &operation);
    void failUnsent(const Operation::Ref &operation, const QString &description);
    bool mayWait(const Operation &operation) const;
    void wait(const Operation::Ref &operation);
    void expire(const Operation::Ref &operation);
    void done(const Operation::Ref &operation, const QVariant &value = {});
    void fail(const Operation::Ref &operation, const TrelanFailure &failure);
    void end(const Operation::Ref &operation);

    void subscribe(const QString &wildcard);
    void subscribeNext();
    void ask(const QString &wildcard, quint64 round);
    void load(const QString &wildcard, quint64 round);
    void refuseWatches(const QString &wildcard, quint64 round, const TrelanError &error);
    void unsubscribe(const QString &wildcard, const Operation::Ref &operation);
    void publishAgain();

    void takeObject(const Incoming &incoming);
    void takeAnswer(const TrelanCommand &answer, bool isWhole);
    void takeCall(const TrelanCommand &call);

    struct WatchEntry
    {
        std::shared_ptr<WatchMailbox> mailbox;
        Operation::Ref whole; // ends when the watch is whole
    };

    const TrelanClientSettings _settings;
    const std::shared_ptr<ClientDoor> _door;
    ClientEvents &_events;
    BusSession _session;
    Deadlines _deadlines;
    Outbox _outbox;
    QHash<QString, Operation::Ref> _calls; // that wait for an answer, by uid
    SeenMessages _seen;
    WatchTable _watches;
    QQueue<QString> _toSubscribe; // wildcards
    QHash<WatchTable::Number, WatchEntry> _watchEntries;
    QHash<QString, std::shared_ptr<CallMailbox>> _served; // by command
    std::shared_ptr<std::atomic<int>> _openCalls;
    KeptObjects _kept;
    QString _instance; // of the bus of the last connection
    bool _wasUp = false;
    bool _reportsIdle = false;
};

} // namespace bus
