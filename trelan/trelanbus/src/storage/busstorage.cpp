#include "storage/busstorage.h"

#include <algorithm>

namespace bus
{

BusStorage::BusStorage(const TrelanBusSettings &settings, std::function<void()> wake)
    : _folder(settings.dataFolder())
    , _wake(std::move(wake))
    , _objects(settings.maxObjects(), settings.maxObjectBytes())
{}

BusStorage::~BusStorage() = default;

bool BusStorage::open()
{
    if (_folder.isEmpty())
        return true;
    QVector<ObjectRecord> records;
    if (!_permanent.open(_folder) || !_permanent.load(records, _loadedMessages)) {
        _loadedMessages.clear();
        _errorString = _permanent.errorString();
        _permanent.close();
        _state = Unusable;
        return false;
    }
    // What is on disk was acknowledged, and is taken even if a bound was lowered since.
    for (const ObjectRecord &record : std::as_const(records))
        _objects.put(record);
    if (!_loadedMessages.isEmpty())
        _lastMessageId = _loadedMessages.constLast().id;
    _state = OnDisk;
    _disk = std::make_unique<Disk>(
        [this](std::vector<Job> jobs) { return write(_permanent, std::move(jobs)); }, _wake);
    return true;
}

BusStorage::State BusStorage::state() const
{
    return _state;
}

QString BusStorage::errorString() const
{
    return _errorString;
}

void BusStorage::publish(const ObjectRecord &record, const Done &done)
{
    const QString &name = record.head.name;
    const bool permanent = record.head.isPermanent();
    if (permanent && _state == Unusable) {
        done({TrelanError::InvalidDataStorage, _errorString});
        return;
    }
    const QString fault = _objects.roomFault(record);
    if (!fault.isEmpty()) {
        done({TrelanError::StorageAccessError, fault});
        return;
    }
    if (permanent && _state == MemoryOnly)
        warnMemoryOnly();

    PermanentStore::Change toDisk;
    if (permanent && _state == OnDisk) {
        toDisk.puts.append(record);
    } else if (concernsDisk(name)) {
        toDisk.removes.append(name);
    } else {
        _objects.put(record);
        done(TrelanError());
        return;
    }
    _objects.reserve(record);
    change(toDisk, {name}, [this, record, done](const TrelanError &error) {
        _objects.release(record);
        if (error.error() == TrelanError::NoError)
            _objects.put(record);
        done(error);
    });
}

bool BusStorage::goesToDisk(const ObjectRecord &record) const
{
    return _state == OnDisk && (record.head.isPermanent() || concernsDisk(record.head.name));
}

/// A name without changes under way takes the room that its value takes.
bool BusStorage::surelyGoesToDisk(const ObjectRecord &record) const
{
    if (_state != OnDisk)
        return false;
    const bool isPending = _pending.contains(record.head.name);
    if (!record.head.isPermanent() && (isPending || !isPermanent(record.head.name)))
        return false;
    return isPending ? _objects.hasAmpleRoom(record) : _objects.roomFault(record).isEmpty();
}

void BusStorage::remove(const QStringList &names, const RemoveDone &done)
{
    PermanentStore::Change toDisk;
    for (const QString &name : names) {
        if (concernsDisk(name))
            toDisk.removes.append(name);
    }
    const auto removeFromMemory = [this, names] {
        QStringList removed;
        for (const QString &name : names) {
            if (_objects.remove(name))
                removed.append(name);
        }
        return removed;
    };
    if (toDisk.removes.isEmpty()) {
        done(TrelanError(), removeFromMemory());
        return;
    }
    // All names wait, not only those on disk: a value that is published meanwhile must stay.
    change(toDisk, names, [removeFromMemory, done](const TrelanError &error) {
        done(error, error.error() == TrelanError::NoError ? removeFromMemory() : QStringList());
    });
}

bool BusStorage::surelyGoesToDisk(const QStringList &names) const
{
    const auto isPending = [this](const QString &name) { return _pending.contains(name); };
    const auto isOnDisk = [this](const QString &name) { return isPermanent(name); };
    return _state == OnDisk && std::none_of(names.cbegin(), names.cend(), isPending) &&
           std::any_of(names.cbegin(), names.cend(), isOnDisk);
}

void BusStorage::keepMessage(const TrelanMessage &message, const MessageDone &done)
{
    if (_state == Unusable) {
        done({TrelanError::InvalidDataStorage, _errorString}, 0);
        return;
    }
    if (_state == MemoryOnly) {
        done(TrelanError(), 0);
        return;
    }
    PermanentStore::Change toDisk;
    const qint64 id = ++_lastMessageId;
    toDisk.messages.append({id, message, QDateTime::currentMSecsSinceEpoch()});
    change(toDisk, {}, [id, done](const TrelanError &error) { done(error, id); });
}

/// Nobody waits for the removal: a message that is still there when the bus crashes is delivered
/// once more.
void BusStorage::removeMessages(const QVector<qint64> &ids)
{
    if (_state != OnDisk || (ids.isEmpty() && _unremoved.isEmpty()))
        return;
    PermanentStore::Change toDisk;
    toDisk.settledMessages = std::exchange(_unremoved, {}) + ids;
    change(toDisk, {}, [this, removed = toDisk.settledMessages](const TrelanError &error) {
        if (error.error() != TrelanError::NoError)
            _unremoved += removed;
    });
}

QVector<StoredMessage> BusStorage::takeLoadedMessages()
{
    return std::exchange(_loadedMessages, {});
}

void BusStorage::setDeliveryUid(const QString &name, const QString &uid)
{
    _objects.setDeliveryUid(name, uid);
}

const ObjectRecord *BusStorage::find(const QString &name) const
{
    return _objects.find(name);
}

QVector<ObjectRecord> BusStorage::matching(const QString &wildcard) const
{
    return _objects.matching(wildcard);
}

int BusStorage::objectCount() const
{
    return _objects.count();
}

QStringList BusStorage::namesMatching(const QStringList &wildcards) const
{
    return _objects.namesMatching(wildcards);
}

void BusStorage::handleResults()
{
    if (!_disk)
        return;
    for (const Result &result : _disk->takeResults()) {
        const TrelanError error = result.fault.isEmpty()
                                      ? TrelanError()
                                      : TrelanError(TrelanError::StorageAccessError, result.fault);
        // A full disk fails every publish, and a line for each must not fill the log.
        if (!result.fault.isEmpty() && _warnings.allows(result.fault))
            qCWarning(BUS_LOG).noquote() << result.fault;
        _waitingForDisk.take(result.ticket)(error);
    }
}

void BusStorage::finish()
{
    if (!_disk)
        return;
    removeMessages({});
    _disk->finish();
    handleResults();
    _disk.reset();
    _permanent.close();
}

std::vector<BusStorage::Result> BusStorage::write(PermanentStore &store, std::vector<Job> jobs)
{
    QVector<PermanentStore::Change> changes;
    std::vector<Result> results;
    for (const Job &job : jobs) {
        changes.append(job.change);
        results.push_back({job.ticket, QString()});
    }
    // A change that fails must not make the others fail. Halves find it with few commits.
    QVector<QPair<int, int>> parts {{0, changes.size()}};
    while (!parts.isEmpty()) {
        const auto [first, count] = parts.takeLast();
        if (store.apply(changes.mid(first, count)))
            continue;
        if (count == 1) {
            results[size_t(first)].fault = store.errorString();
        } else {
            parts.append({first + count / 2, count - count / 2});
            parts.append({first, count / 2});
        }
    }
    return results;
}

bool BusStorage::isPermanent(const QString &name) const
{
    const ObjectRecord *record = _objects.find(name);
    return record && record->head.isPermanent();
}

/// Whether the disk holds a value of this name, or will, so that every change has to go there.
bool BusStorage::concernsDisk(const QString &name) const
{
    return _state == OnDisk && (_pending.contains(name) || isPermanent(name));
}

void BusStorage::change(const PermanentStore::Change &change, const QStringList &names,
                        const Done &done)
{
    for (const QString &name : names)
        ++_pending[name];
    const quint64 ticket = ++_lastTicket;
    _waitingForDisk.insert(ticket, [this, names, done](const TrelanError &error) {
        endPending(names);
        done(error);
    });
    _disk->add({ticket, change});
}

void BusStorage::endPending(const QStringList &names)
{
    for (const QString &name : names) {
        if (--_pending[name] == 0)
            _pending.remove(name);
    }
}

void BusStorage::warnMemoryOnly()
{
    if (_warnedMemoryOnly)
        return;
    _warnedMemoryOnly = true;
    qCWarning(BUS_LOG) << "no data folder: permanent objects are kept in memory only";
}

} // namespace bus
