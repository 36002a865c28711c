#pragma once

#include "net/busconnection.h"
#include "net/buslistener.h"
#include "net/ownerlookup.h"
#include "rules/buscore.h"
#include "storage/backgroundworker.h"
#include "storage/busstorage.h"
#include "trelanbus.h"

#include <eventdispatcher.h>

#include <QtCore/QHash>
#include <QtCore/QObject>
#include <QtCore/QTimer>
#include <QtCore/QVector>

#include <functional>
#include <memory>

namespace bus
{

/// \brief The bus in its own thread: joins listener, connections, rules and storage.
///
/// Small requests and answers are decoded and encoded here. Large ones are left to the codec
/// thread, since all other clients would wait for them.
class BusServer : public QObject, private BusOutput, private BusConnection::Owner
{
    Q_OBJECT

public:
    /// \a dispatcher belongs to the current thread and outlives the server.
    BusServer(const TrelanBusSettings &settings, EventDispatcher &dispatcher);
    /// Waits for the disk, sends the answers that are due, and closes everything.
    ~BusServer() override;

    /// False, with the reason in errorString(), if it cannot listen or the storage is unusable and
    /// required.
    bool start();

    quint16 queryPort() const;
    quint16 msgPort() const;
    TrelanBus::Storage storage() const;
    QString errorString() const;

private:
    /// The part of a job that is left for the thread of the bus.
    using Completion = std::function<void()>;
    using Job = std::function<Completion()>;
    using Codec = BackgroundWorker<Job, Completion>;

    void takeNext(ConnectionId id) override;
    void reply(ConnectionId id, const QString &word, const TrelanError &error) override;
    void replyObject(ConnectionId id, const QString &word, const ObjectRecord &record) override;
    void replyObjects(ConnectionId id, const QString &word,
                      const QVector<ObjectRecord> &records) override;
    void replyData(ConnectionId id, const QString &word, const QVariantMap &data,
                   qint64 cost) override;
    void replyClients(ConnectionId id, const QString &word, const QVariantList &clients,
                      const QVector<quint64> &sockets) override;
    bool canPush(ConnectionId id) const override;
    void push(ConnectionId id, const QByteArray &frame) override;
    void encode(const std::function<QByteArray()> &make,
                const std::function<void(const QByteArray &)> &done) override;
    void goOnLater() override;
    void closeConnection(ConnectionId id) override;
    bool isAtEnd(ConnectionId id) const override;
    QString peer(ConnectionId id) const override;
    ClientOwner owner(ConnectionId id) const override;
    void setReadsLate(ConnectionId id, bool late) override;
    void readReplies(ConnectionId id) override;
    void setRegistered(ConnectionId id) override;

    void onRequest(ConnectionId id, const QByteArray &payload) override;
    void onReply(ConnectionId id, const QByteArray &payload) override;
    void onDrained(ConnectionId id) override;
    void onFrameTooLarge(ConnectionId id, const QString &fault) override;
    void onClosed(ConnectionId id) override;

    bool listen(BusListener &listener, int descriptor, quint16 port);
    void warnOfOpenDoors() const;
    void onDescriptor(BusConnection::Channel channel, int descriptor);
    void handle(ConnectionId id, BusRequest request);
    void addJob(ConnectionId id, const Job &job);
    void handleCodecResults();
    void handleStorageResults();
    void goOn();
    void settle();
    void watchTimes();
    void checkTimes();
    void answerEncoded(ConnectionId id, qint64 cost, const std::function<QByteArray()> &encode);
    void answer(ConnectionId id, const QByteArray &frame);
    void sendAnswers();
    void goOnBehindAnswers();

    const TrelanBusSettings _settings;
    QString _errorString;
    BusListener _queryListener;
    BusListener _msgListener;
    OwnerLookup _owners;
    BusStorage _storage;
    BusCore _core;
    Poller &_poller;
    QHash<ConnectionId, BusConnection *> _connections;     // children of this
    QHash<ConnectionId, std::shared_ptr<const Job>> _jobs; // for the codec; one for a connection
    ConnectionId _lastId = 0;
    QVector<ConnectionId> _holding;         // connections that may hold answers back
    QHash<QString, QByteArray> _doneFrames; // by operation: the answer that it is done
    WarningLimiter _warnings;
    QTimer _times; // runs while something waits for a client
    QTimer _turns; // runs while the rules have more to do
    Codec _codec;  // last: its thread calls back
};

} // namespace bus
