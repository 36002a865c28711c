#pragma once

#include "storage/backgroundworker.h"
#include "storage/objectstore.h"
#include "storage/permanentstore.h"
#include "trelanbussettings.h"
#include "values/buslog.h"

#include <trelanerror.h>

#include <QtCore/QHash>
#include <QtCore/QString>
#include <QtCore/QStringList>

#include <functional>

namespace bus
{

/// \brief What the bus keeps: the values in memory, and the permanent ones on disk behind them.
///
/// All values, and the messages that wait on disk, are reached through this class. A change that
/// concerns the disk is made there first, in a thread of its own, and shows in memory when it is
/// safe. Changes of one name take effect in the order in which they were asked for, whether they
/// concern the disk or not. Reads see what has taken effect.
///
/// One thread.
class BusStorage
{
public:
    using Done = std::function<void(const TrelanError &)>;

    /// Where permanent objects are kept.
    enum State {
        MemoryOnly, ///< no data folder was given
        OnDisk,
        Unusable ///< the data folder cannot be used
    };

    /// \a wake is called in another thread when handleResults() is due.
    BusStorage(const TrelanBusSettings &settings, std::function<void()> wake);
    ~BusStorage();
    Q_DISABLE_COPY(BusStorage)

    /// Loads what is on disk. False, with the reason in errorString(), leaves a storage that
    /// refuses permanent objects and stored messages and is otherwise whole.
    bool open();

    State state() const;
    QString errorString() const;

    /// Keeps a stored object. \a done is called with the outcome, at once or from handleResults().
    void publish(const ObjectRecord &record, const Done &done);

    /// Whether publish() goes to the disk.
    bool goesToDisk(const ObjectRecord &record) const;
    /// Whether publish() goes to the disk, and is not refused before, whatever becomes of the
    /// changes that are under way.
    bool surelyGoesToDisk(const ObjectRecord &record) const;

    /// \a removed has the names of the objects that were there, each once.
    using RemoveDone = std::function<void(const TrelanError &, const QStringList &removed)>;

    /// Drops objects; names that are not there are no error. \a done is called with the outcome, at
    /// once or from handleResults().
    void remove(const QStringList &names, const RemoveDone &done);
    /// Whether remove() goes to the disk, whatever becomes of the changes that are under way.
    bool surelyGoesToDisk(const QStringList &names) const;

    /// \a id is the id of the message on disk, or 0 if it is not there.
    using MessageDone = std::function<void(const TrelanError &, qint64 id)>;

    /// Puts a message on disk, if there is one, until removeMessages(). \a done is called with the
    /// outcome, at once or from handleResults().
    void keepMessage(const TrelanMessage &message, const MessageDone &done);
    void removeMessages(const QVector<qint64> &ids);
    /// The messages that were on disk at the start, in the order in which they came.
    QVector<StoredMessage> takeLoadedMessages();

    void setDeliveryUid(const QString &name, const QString &uid);
    const ObjectRecord *find(const QString &name) const;
    QVector<ObjectRecord> matching(const QString &wildcard) const;
    int objectCount() const;
    QStringList namesMatching(const QStringList &wildcards) const;

    void handleResults();

    /// Waits for the disk, handles the results, and ends the disk's thread.
    void finish();

private:
    struct Job
    {
        quint64 ticket = 0;
        PermanentStore::Change change;
    };
    struct Result
    {
        quint64 ticket = 0;
        QString fault; // empty: it is on disk
    };
    using Disk = BackgroundWorker<Job, Result>;

    /// Runs in the disk's thread.
    static std::vector<Result> write(PermanentStore &store, std::vector<Job> jobs);

    bool isPermanent(const QString &name) const;
    bool concernsDisk(const QString &name) const;
    void change(const PermanentStore::Change &change, const QStringList &names, const Done &done);
    void endPending(const QStringList &names);
    void warnMemoryOnly();

    const QString _folder;
    const std::function<void()> _wake;
    ObjectStore _objects;
    PermanentStore _permanent;
    State _state = MemoryOnly;
    QString _errorString;
    QVector<StoredMessage> _loadedMessages;
    qint64 _lastMessageId = 0;
    QVector<qint64> _unremoved; // messages that the disk has failed to remove
    bool _warnedMemoryOnly = false;
    WarningLimiter _warnings;

    quint64 _lastTicket = 0;
    QHash<quint64, Done> _waitingForDisk; // by ticket
    QHash<QString, int> _pending;         // changes under way, by name
    std::unique_ptr<Disk> _disk; // last, since its thread uses the database; only while OnDisk
};

} // namespace bus
