#include "storage/objectstore.h"

#include <algorithm>

namespace bus
{

ObjectStore::ObjectStore(int maxObjects, qint64 maxBytes)
    : _maxObjects(maxObjects)
    , _maxBytes(maxBytes)
{}

QString ObjectStore::roomFault(const ObjectRecord &record) const
{
    const qint64 taken = room(record.head.name);
    const qint64 growth = record.cost() - taken;
    if (taken > 0 && growth <= 0)
        return {};
    if (taken == 0 && _takenObjects + 1 > _maxObjects)
        return QStringLiteral("the bus keeps %1 objects at most").arg(_maxObjects);
    if (_takenBytes + growth > _maxBytes)
        return QStringLiteral("the bus keeps objects of %1 bytes at most").arg(_maxBytes);
    return {};
}

bool ObjectStore::hasAmpleRoom(const ObjectRecord &record) const
{
    return _takenObjects + 1 <= _maxObjects && _takenBytes + record.cost() <= _maxBytes;
}

void ObjectStore::reserve(const ObjectRecord &record)
{
    const QString &name = record.head.name;
    const qint64 before = room(name);
    _reserved[name].append(record.cost());
    account(before, room(name));
}

void ObjectStore::release(const ObjectRecord &record)
{
    const QString &name = record.head.name;
    const qint64 before = room(name);
    const auto reserved = _reserved.find(name);
    reserved->removeOne(record.cost());
    if (reserved->isEmpty())
        _reserved.erase(reserved);
    account(before, room(name));
}

void ObjectStore::put(const ObjectRecord &record)
{
    const QString &name = record.head.name;
    const qint64 before = room(name);
    const auto kept = _objects.insert(name, record);
    kept->head.name = kept.key(); // shares one text among all publishes and queues
    account(before, room(name));
}

bool ObjectStore::remove(const QString &name)
{
    const qint64 before = room(name);
    const bool isRemoved = _objects.remove(name) > 0;
    account(before, room(name));
    return isRemoved;
}

void ObjectStore::setDeliveryUid(const QString &name, const QString &uid)
{
    const auto found = _objects.find(name);
    if (found != _objects.end())
        found->deliveryUid = uid;
}

const ObjectRecord *ObjectStore::find(const QString &name) const
{
    const auto found = _objects.constFind(name);
    return found == _objects.constEnd() ? nullptr : &*found;
}

QVector<ObjectRecord> ObjectStore::matching(const QString &wildcard) const
{
    QVector<ObjectRecord> records;
    for (const ObjectRecord &record : _objects) {
        if (TrelanObject::testWildCard(record.head.name, wildcard))
            records.append(record);
    }
    return records;
}

int ObjectStore::count() const
{
    return _objects.size();
}

QStringList ObjectStore::namesMatching(const QStringList &wildcards) const
{
    QStringList names;
    for (auto object = _objects.cbegin(); object != _objects.cend(); ++object) {
        const bool matches =
            std::any_of(wildcards.cbegin(), wildcards.cend(), [&](const QString &wildcard) {
                return TrelanObject::testWildCard(object.key(), wildcard);
            });
        if (matches)
            names.append(object.key());
    }
    return names;
}

/// The room that a name takes: that of the largest among its value and the values that it may get,
/// since one of them stays. 0 if there is none.
qint64 ObjectStore::room(const QString &name) const
{
    const ObjectRecord *record = find(name);
    qint64 most = record ? record->cost() : 0;
    const auto reserved = _reserved.constFind(name);
    if (reserved != _reserved.constEnd())
        most = qMax(most, *std::max_element(reserved->cbegin(), reserved->cend()));
    return most;
}

void ObjectStore::account(qint64 before, qint64 after)
{
    _takenBytes += after - before;
    _takenObjects += int(after > 0) - int(before > 0);
}

} // namespace bus
